// Where a host document is kept: in memory, or in a state directory.
//
// A state directory holds
//   document.json   the keys, one JSON object; only ever replaced as a whole
//   events.jsonl    one line per event: {"time":T,"id":N,"text":"..."}
//   lock            locked with flock(2) by the process that has the directory open
// The process may be killed at any moment: document.json is then the old or the new one,
// complete, and an event whose call has returned is there. An unfinished last line of
// events.jsonl is removed when the directory is next opened. The owner can read and write the
// files whatever the umask.
//
// All calls are safe from any thread and may throw std::bad_alloc.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "VxaCore/Dom.h"

namespace VxaCore {

namespace Host {

// An array or object that another program wrote into document.json: kept, not read.
struct NestedValue {};

// A key's value; monostate if the key is missing or null. Strings are UTF-8 without NUL.
using DocumentValue = std::variant<std::monostate, bool, double, std::string, NestedValue>;

struct Event {
    double time_s = 0;  // since the epoch
    int id = 0;
    std::string text;  // UTF-8
};

struct EventList {
    std::vector<Event> events;   // oldest first
    std::size_t unreadable = 0;  // lines in the file that are not events
};

}  // namespace Host

class VXA_CORE_API CDom::Store {
public:
    // Keeps everything in memory until the store is destroyed.
    static std::unique_ptr<Store> InMemory();

    // Opens a state directory; makes it and its parents if they are missing. Throws
    // std::runtime_error with the reason:
    // - it cannot be made, read or written
    // - another store holds it (the message names the process)
    // - a symbolic link in the path belongs to a user other than root and the caller
    // - one of its files is a symbolic link, has more than one hard link or is not a regular
    //   file; nothing is written then
    // - document.json is not a JSON object; the message has line and column but nothing of the
    //   content, and the file is left alone
    static std::unique_ptr<Store> InDirectory(const std::string& path);

    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    Host::DocumentValue Get(const std::string& key) const;

    // Sets a key, or removes it (monostate). Writes only what changed, or what an earlier
    // failure left unwritten. Throws std::runtime_error if it could not be stored; the value is
    // then kept in memory, except in a closed store and for values that no document can hold (a
    // NestedValue, a number that is not finite, a string or key that is not UTF-8 or has a NUL).
    void Set(const std::string& key, const Host::DocumentValue& value);

    // Stores an event. Throws std::runtime_error if it could not be stored; it is then kept in
    // memory, except in a closed store, and tried again with the next.
    void WriteEvent(int id, const std::string& utf8);

    // Returns all events, those from before this process included. Throws std::runtime_error if
    // they cannot be read.
    Host::EventList Events() const;

    // Releases the directory. Afterwards Get still returns what the document held; Set,
    // WriteEvent and Events throw "the document is closed". Throws std::runtime_error, the same
    // each time, if something kept in memory still could not be stored.
    void Close();

private:
    struct State;
    explicit Store(std::unique_ptr<State> state);
    std::unique_ptr<State> m_state;
};

}  // namespace VxaCore
