// A shell command that runs beside the process, for a limited time.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

// Runs `sh -c COMMAND` in its own process group, with `input` as its standard input (a file in
// memory, so it need not be read), and with this process's standard error as its output. Signals
// have their default actions and are not blocked; no other descriptor is inherited.
//
// A thread waits for it, so that the limit holds whatever this process does: then the group gets
// SIGTERM and, a second later, SIGKILL. For one thread at a time.
class VXA_CORE_API ChildProcess {
public:
    enum class Ended { kAlone, kAtLimit, kStopped };
    struct Result {
        int status;      // exit status; -1 if a signal ended it, or if that is unknown
        int signal;      // that ended it, or 0
        double seconds;  // how long it ran
        Ended ended;     // whether it was ended here: the status can be any then
        bool is_gone;    // false if even SIGKILL did not end it, as in a hung file system
    };

    // Throws std::system_error.
    ChildProcess(const std::string& command, std::string_view input, double limit_s);
    // Ends it as Stop does, and waits until it is gone: up to three seconds.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Returns nullopt if it still runs after `seconds`.
    std::optional<Result> Wait(double seconds) const;
    // Begins to end it, as at its limit.
    void Stop();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace VxaCore::Host
