// Signals, and a sleep that they end: vxa.sleep, catch_signals, interrupted, reload_on_hangup,
// reload_asked.
//
// The handler sets a flag and makes an event descriptor readable, which the sleep polls: so a
// signal ends the sleep even if it arrives just before it, or on another thread.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>

#include "Module.h"
#include "vxi/engine.h"

namespace vxa {

namespace {

constexpr struct {
    int number;
    const char* name;
} kCaught[] = {{SIGINT, "SIGINT"}, {SIGTERM, "SIGTERM"}, {SIGHUP, "SIGHUP"}, {SIGQUIT, "SIGQUIT"}};
constexpr double kLongestSleepS = 1e9;  // keeps the sum with the clock in range

std::atomic<int> s_caught_signal{0};
std::atomic<bool> s_hangup_reloads{false};  // SIGHUP requests a reload, not the end
std::atomic<bool> s_reload_asked{false};
std::atomic<int> s_wake_fd{-1};  // made once per process; readable after a signal
static_assert(std::atomic<int>::is_always_lock_free, "used in a signal handler");

void NoteSignal(int signal_number)
{
    const int saved_errno = errno;
    const std::uint64_t one = 1;
    if (signal_number == SIGHUP && s_hangup_reloads.load())
        s_reload_asked.store(true);
    else
        s_caught_signal.store(signal_number);
    (void)!write(s_wake_fd.load(), &one, sizeof one);
    errno = saved_errno;
}

int IsSignalCaught()
{
    return s_caught_signal.load() != 0;
}

// Returns false with errno set if it fails. Of two threads that both make one, one keeps it.
bool MakeWakeFd()
{
    if (s_wake_fd.load() >= 0) return true;
    const int made = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    int expected = -1;
    if (made >= 0 && !s_wake_fd.compare_exchange_strong(expected, made)) close(made);
    return made >= 0;
}

// nohup(1) ignores SIGHUP so that the process survives the end of the session.
bool StaysIgnored(int signal_number)
{
    struct sigaction now = {};
    return signal_number == SIGHUP && sigaction(SIGHUP, nullptr, &now) == 0 &&
           now.sa_handler == SIG_IGN;
}

void DoNothing(int) {}

// Without SA_RESTART: a read from a command or terminal ends, too. The signals may have been
// blocked when the process started, which would make it impossible to stop.
//
// With a handler for SIGXFSZ, a write beyond the file size limit fails with EFBIG instead of ending
// the process; with one for SIGPIPE, a write to a closed pipe fails with EPIPE. They are not
// ignored, because commands started later would inherit that (execve(2)).
bool InstallHandlers()
{
    struct sigaction action = {};
    action.sa_handler = NoteSignal;
    sigemptyset(&action.sa_mask);
    sigset_t unblocked;
    sigemptyset(&unblocked);
    for (const auto& caught : kCaught) {
        if (StaysIgnored(caught.number)) continue;
        if (sigaction(caught.number, &action, nullptr) != 0) return false;
        sigaddset(&unblocked, caught.number);
    }
    if (pthread_sigmask(SIG_UNBLOCK, &unblocked, nullptr) != 0) return false;
    action.sa_handler = DoNothing;
    return sigaction(SIGXFSZ, &action, nullptr) == 0 && sigaction(SIGPIPE, &action, nullptr) == 0;
}

int CatchSignals(lua_State* L)
{
    if (!MakeWakeFd() || !InstallHandlers())
        return luaL_error(L, "cannot catch signals: %s", std::strerror(errno));
    vxi_set_cancel_check(IsSignalCaught);
    return 0;
}

// With SA_RESTART: a reload does not interrupt what the process is doing, only a sleep.
int ReloadOnHangup(lua_State* L)
{
    if (StaysIgnored(SIGHUP)) return 0;
    struct sigaction action = {};
    action.sa_handler = NoteSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    s_hangup_reloads.store(true);
    if (!MakeWakeFd() || sigaction(SIGHUP, &action, nullptr) != 0)
        return luaL_error(L, "cannot catch SIGHUP: %s", std::strerror(errno));
    return 0;
}

// The descriptor is reset after the flag: a signal in between leaves its flag set, which is checked
// before the next poll.
int ReloadAsked(lua_State* L)
{
    std::uint64_t count = 0;
    lua_pushboolean(L, s_reload_asked.exchange(false));
    (void)!read(s_wake_fd.load(), &count, sizeof count);
    return 1;
}

int Interrupted(lua_State* L)
{
    if (const char* name = CaughtSignalName())
        lua_pushstring(L, name);
    else
        lua_pushboolean(L, 0);
    return 1;
}

timespec operator-(timespec a, timespec b)
{
    timespec left{a.tv_sec - b.tv_sec, a.tv_nsec - b.tv_nsec};
    if (left.tv_nsec < 0) {
        left.tv_nsec += 1000000000;
        --left.tv_sec;
    }
    return left;
}

timespec MonotonicNow()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

timespec After(double seconds)
{
    timespec then = MonotonicNow();
    const auto whole = static_cast<time_t>(seconds);
    then.tv_sec += whole;
    then.tv_nsec += static_cast<long>((seconds - static_cast<double>(whole)) * 1e9);
    if (then.tv_nsec >= 1000000000) {
        then.tv_nsec -= 1000000000;
        ++then.tv_sec;
    }
    return then;
}

// Blocks the signals except during ppoll(2), so that none arrives between checking the flags and
// polling.
class SignalBlocker {
public:
    SignalBlocker()
    {
        sigset_t blocked;
        sigemptyset(&blocked);
        for (const auto& caught : kCaught) sigaddset(&blocked, caught.number);
        pthread_sigmask(SIG_BLOCK, &blocked, &previous_mask);
    }
    ~SignalBlocker() { pthread_sigmask(SIG_SETMASK, &previous_mask, nullptr); }

    sigset_t previous_mask;
};

// Returns whether the time has passed. lua.c's handler of SIGINT sets a hook, which runs when the
// sleep has returned. No call here can raise.
bool SleepUntil(lua_State* main_state, timespec moment)
{
    const SignalBlocker blocker;
    const lua_Hook hook = lua_gethook(main_state);
    pollfd wake = {s_wake_fd.load(), POLLIN, 0};  // poll(2) ignores -1
    while (s_caught_signal.load() == 0 && !s_reload_asked.load() &&
           lua_gethook(main_state) == hook) {
        const timespec left = moment - MonotonicNow();
        if (left.tv_sec < 0 || (left.tv_sec == 0 && left.tv_nsec == 0)) return true;
        ppoll(&wake, 1, &left, &blocker.previous_mask);
    }
    return false;
}

int Sleep(lua_State* L)
{
    const double seconds = luaL_checknumber(L, 1);
    luaL_argcheck(L, seconds >= 0, 1, "a number of seconds, 0 or more, expected");
    // In a coroutine too: lua.c sets its hook in the main thread.
    lua_rawgeti(L, LUA_REGISTRYINDEX, LUA_RIDX_MAINTHREAD);
    const timespec moment = After(std::min(seconds, kLongestSleepS));
    lua_pushboolean(L, SleepUntil(lua_tothread(L, -1), moment));
    return 1;
}

constexpr luaL_Reg kFunctions[] = {
    {"sleep", Sleep},
    {"catch_signals", CatchSignals},
    {"interrupted", Interrupted},
    {"reload_on_hangup", ReloadOnHangup},
    {"reload_asked", ReloadAsked},
    {nullptr, nullptr},
};

}  // namespace

const char* CaughtSignalName()
{
    const int caught_number = s_caught_signal.load();
    for (const auto& caught : kCaught)
        if (caught.number == caught_number) return caught.name;
    return nullptr;
}

void OpenSignals(lua_State* L)
{
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
