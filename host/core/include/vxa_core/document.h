// What keeps a host document: memory alone, or a state directory.
//
// A state directory holds
//   document.json   the keys, one JSON object; only ever replaced as a whole
//   events.jsonl    one line an event: {"time":T,"id":N,"text":"..."}
//   lock            locked (flock(2)) by the process that has the directory open
// The process may be killed at any moment: document.json is the old or the new one,
// never a part, and an event whose call has returned is there. An unfinished last line
// of events.jsonl is cut off when the directory is next opened. The owner can read and write
// the files whatever the umask.
//
// All calls are safe from any thread. std::bad_alloc may leave any of them.
#pragma once

#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "VxaCore/Dom.h"

namespace VxaCore {

namespace Host {

// An array or object written into document.json by someone else: kept, not read.
struct NestedValue {};

// A key's value; monostate where the key is absent or null. Texts are UTF-8 without NUL.
using DocumentValue = std::variant<std::monostate, bool, double, std::string, NestedValue>;

struct Event {
    double time_s = 0;  // since the epoch
    int id = 0;
    std::string text;  // UTF-8
};

}  // namespace Host

class VXA_CORE_API CDom::Store {
public:
    // Lives as long as the store.
    static std::unique_ptr<Store> InMemory();

    // Opens a state directory, made when missing (parents too). Throws
    // std::runtime_error with the reason: it cannot be made, read or written, another
    // opener holds it (the text names the process), a symbolic link in the path belongs
    // to another user than root and the caller, one of its files is a symbolic link,
    // has more than one hard link or is not a regular file (nothing is written then), or
    // document.json is not a JSON object (the message has line and column, nothing of the
    // content; the file is left alone).
    static std::unique_ptr<Store> InDirectory(const std::string& path);

    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    Host::DocumentValue Get(const std::string& key) const;

    // Sets a key, or removes it (monostate). Writes only what changed, or what an
    // earlier failure left unwritten. False and the reason in `error` when it could not
    // be stored: the value is then kept in memory, except in a closed store, and except
    // for values no document can hold (a NestedValue, a number that is not finite, a
    // text or key that is not UTF-8 or holds a NUL).
    bool Set(const std::string& key, const Host::DocumentValue& value, std::string& error);

    // Stores an event. False and the reason in `error` when it could not be stored: it
    // is then kept in memory (except in a closed store) and tried again with the next.
    bool WriteEvent(int id, const std::string& utf8, std::string& error);

    // All events, oldest first, those from before this process included. Throws
    // std::runtime_error when they cannot be read. `unreadable` is the number of lines
    // that are no events.
    std::vector<Host::Event> Events(std::size_t& unreadable) const;

    // Releases the directory. Afterwards Get still returns what the document held, Set,
    // WriteEvent and Events fail with "the document is closed", and Close returns the
    // same again. False and the reason in `error` when something kept in memory still
    // could not be stored.
    bool Close(std::string& error);

private:
    struct Content;
    explicit Store(std::unique_ptr<Content> content);
    // With the lock held; the reason of a failure, else empty.
    std::string StoreDocument();
    std::string StoreEvents();
    std::unique_ptr<Content> m_content;
};

}  // namespace VxaCore
