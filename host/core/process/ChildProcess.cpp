// A shell command that runs beside the process, for a limited time.
#include "vxa_core/child_process.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <system_error>
#include <thread>

#include "process/Spawn.h"

namespace VxaCore::Host {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr auto kGrace = std::chrono::seconds(1);  // from SIGTERM to SIGKILL
constexpr auto kGroupCheck = std::chrono::milliseconds(20);
constexpr double kLongestS = 1e6;  // keeps the sum with the clock in range

pid_t StartShell(const std::string& command, std::string_view input)
{
    const FileDescriptor memory = MemoryFile(input);
    const char* const arguments[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    return Spawn(arguments, {memory.Get(), STDERR_FILENO, STDERR_FILENO}, ProcessGroup::kOwn);
}

// pidfd_open(2) has no wrapper in glibc 2.36.
FileDescriptor OpenProcess(pid_t pid)
{
    return FileDescriptor(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

// A thread started meanwhile takes no signals: they are for the threads that end on them.
class SignalBlocker {
public:
    SignalBlocker()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_previous);
    }
    ~SignalBlocker() { pthread_sigmask(SIG_SETMASK, &m_previous, nullptr); }
    SignalBlocker(const SignalBlocker&) = delete;
    SignalBlocker& operator=(const SignalBlocker&) = delete;

private:
    sigset_t m_previous;
};

}  // namespace

struct ChildProcess::State {
    State(const std::string& command, std::string_view input, double limit_s);

    void Watch();
    bool HasExited(Clock::time_point until, bool heeds_stop) const;
    void EndRest(Clock::time_point until) const;
    Result Reap(Ended ended) const;
    void Store(const Result& found);
    void Kill(int signal_number) const { (void)kill(-pid, signal_number); }

    const FileDescriptor stop;  // readable after Stop
    const Clock::time_point started;
    const pid_t pid;  // and number of the group
    const FileDescriptor process;
    const Clock::time_point limit;
    mutable std::mutex mutex;
    mutable std::condition_variable is_stored;
    std::optional<Result> result;  // guarded by the mutex
    std::thread thread;
};

ChildProcess::State::State(const std::string& command, std::string_view input, double limit_s)
    : stop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      started(Clock::now()),
      pid(StartShell(command, input)),
      process(OpenProcess(pid)),
      limit(started + std::chrono::duration_cast<Clock::duration>(
                          Seconds(std::clamp(limit_s, 0.0, kLongestS))))
{
    try {
        if (!stop || !process) ThrowErrno("cannot watch a command");
        const SignalBlocker blocker;
        thread = std::thread(&State::Watch, this);
    } catch (...) {
        Kill(SIGKILL);
        (void)waitpid(pid, nullptr, 0);
        throw;
    }
}

// Returns false at that time, or when it is to be stopped.
bool ChildProcess::State::HasExited(Clock::time_point until, bool heeds_stop) const
{
    constexpr std::int64_t kLongestPollMs = 60000;
    pollfd polled[] = {{process.Get(), POLLIN, 0}, {heeds_stop ? stop.Get() : -1, POLLIN, 0}};
    int ready = 0;
    std::int64_t left = 0;
    do {
        left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
        ready =
            poll(polled, 2, static_cast<int>(std::clamp<std::int64_t>(left, 0, kLongestPollMs)));
    } while (ready <= 0 && left > 0);
    return ready > 0 && polled[0].revents != 0;
}

ChildProcess::Result ChildProcess::State::Reap(Ended ended) const
{
    const Seconds seconds = Clock::now() - started;
    siginfo_t info = {};
    const bool is_answered = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG) == 0;
    Result found{-1, 0, seconds.count(), ended, !is_answered || info.si_pid != 0};
    if (info.si_pid != 0)
        (info.si_code == CLD_EXITED ? found.status : found.signal) = info.si_status;
    return found;
}

void ChildProcess::State::Store(const Result& found)
{
    {
        const std::lock_guard lock(mutex);
        result = found;
    }
    is_stored.notify_all();
}

// Commands that the shell started can outlive it. Their group keeps its number while it has
// members, so no other group gets the signal.
void ChildProcess::State::EndRest(Clock::time_point until) const
{
    while (kill(-pid, 0) == 0 && Clock::now() < until) std::this_thread::sleep_for(kGroupCheck);
    if (kill(-pid, 0) == 0) Kill(SIGKILL);
}

void ChildProcess::State::Watch()
{
    if (HasExited(limit, true)) return Store(Reap(Ended::kAlone));
    const Ended ended = Clock::now() >= limit ? Ended::kAtLimit : Ended::kStopped;
    Kill(SIGTERM);
    const auto until = Clock::now() + kGrace;
    if (!HasExited(until, false)) {
        Kill(SIGKILL);
        (void)HasExited(until + kGrace, false);
    }
    Store(Reap(ended));
    EndRest(until);
}

ChildProcess::ChildProcess(const std::string& command, std::string_view input, double limit_s)
    : m_state(std::make_unique<State>(command, input, limit_s))
{
}

ChildProcess::~ChildProcess()
{
    Stop();
    m_state->thread.join();
}

std::optional<ChildProcess::Result> ChildProcess::Wait(double seconds) const
{
    const State& state = *m_state;
    std::unique_lock lock(state.mutex);
    state.is_stored.wait_for(lock, Seconds(std::clamp(seconds, 0.0, kLongestS)),
                             [&] { return state.result.has_value(); });
    return state.result;
}

void ChildProcess::Stop()
{
    const std::uint64_t one = 1;
    (void)!write(m_state->stop.Get(), &one, sizeof one);
}

}  // namespace VxaCore::Host
