// Runs another program, without a shell: vxa.run_program.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Values.h"

namespace vxa {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostArguments = 16;
constexpr std::size_t kMostErrorBytes = 1000;
constexpr int kWaitMs = 50;
constexpr auto kTimeLimit = std::chrono::seconds(120);

// The arguments of the program, of which the first is its name; ends with a null pointer.
using Arguments = std::array<char*, kMostArguments + 1>;

[[noreturn]] void ThrowSystem(int error_number, const char* what)
{
    throw std::system_error(error_number, std::generic_category(), what);
}

// A file without a name, in memory: unlike a pipe, it never makes its writer wait.
class MemoryFile {
public:
    MemoryFile() : m_fd(memfd_create("vxa", MFD_CLOEXEC))
    {
        if (m_fd < 0) ThrowSystem(errno, "cannot create a file in memory");
    }
    ~MemoryFile() { close(m_fd); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    int Descriptor() const { return m_fd; }

    void Fill(std::string_view bytes) const
    {
        for (std::size_t done = 0; done < bytes.size();) {
            const auto rest = bytes.substr(done);
            const ssize_t written =
                pwrite(m_fd, rest.data(), rest.size(), static_cast<off_t>(done));
            if (written < 0) ThrowSystem(errno, "cannot write a file in memory");
            done += static_cast<std::size_t>(written);
        }
    }

    std::string Head(std::size_t most_bytes) const
    {
        std::string bytes(most_bytes, '\0');
        const ssize_t got = pread(m_fd, bytes.data(), bytes.size(), 0);
        bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return bytes;
    }

private:
    int m_fd;
};

// How the program starts: with these standard streams, and no signal blocked or ignored.
class SpawnSettings {
public:
    SpawnSettings(int input, int output, int errors)
    {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        SetStream(STDIN_FILENO, input);
        SetStream(STDOUT_FILENO, output);
        SetStream(STDERR_FILENO, errors);
    }
    ~SpawnSettings()
    {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    int failure = 0;  // an errno value: out of memory

private:
    void SetStream(int stream, int descriptor)
    {
        const int status = posix_spawn_file_actions_adddup2(&actions, descriptor, stream);
        if (status != 0) failure = status;
    }
};

int Reap(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// Returns the program's wait status. Ends the program on a signal and after the time limit.
int WaitFor(pid_t child, const char* name)
{
    const auto deadline = Clock::now() + kTimeLimit;
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(child, &status, WNOHANG)) == 0) {
        const char* const signal_name = CaughtSignalName();
        if (signal_name || Clock::now() > deadline) {
            kill(child, SIGKILL);
            Reap(child);
            throw std::runtime_error(std::string(name) + " was ended: " +
                                     (signal_name ? signal_name : "it took too long"));
        }
        poll(nullptr, 0, kWaitMs);
    }
    return ended == child ? status : 0;
}

void Run(const Arguments& arguments, std::string_view input, int output)
{
    const char* const name = arguments[0];
    const MemoryFile input_file, errors;
    input_file.Fill(input);
    const SpawnSettings settings(input_file.Descriptor(), output, errors.Descriptor());
    if (settings.failure != 0) ThrowSystem(settings.failure, name);
    pid_t child = 0;
    const int failure = posix_spawnp(&child, name, &settings.actions, &settings.attributes,
                                     arguments.data(), environ);
    if (failure != 0) ThrowSystem(failure, name);
    const int status = WaitFor(child, name);
    if (status == 0) return;
    const std::string said = errors.Head(kMostErrorBytes);
    throw std::runtime_error(std::string(name) +
                             (WIFSIGNALED(status)
                                  ? " was ended by signal " + std::to_string(WTERMSIG(status))
                                  : " failed with status " + std::to_string(WEXITSTATUS(status))) +
                             (said.empty() ? "" : ": " + said));
}

Arguments CheckArguments(lua_State* L, int index)
{
    Arguments arguments{};
    luaL_checktype(L, index, LUA_TTABLE);
    const std::size_t count = lua_rawlen(L, index);
    luaL_argcheck(L, count > 0 && count <= kMostArguments, index, "1 to 16 strings expected");
    for (std::size_t i = 0; i < count; ++i) {
        lua_rawgeti(L, index, static_cast<int>(i) + 1);
        luaL_argcheck(L, lua_type(L, -1) == LUA_TSTRING, index, "1 to 16 strings expected");
        std::size_t length = 0;
        const char* const text = lua_tolstring(L, -1, &length);  // the table keeps it
        luaL_argcheck(L, std::strlen(text) == length, index, "string contains a NUL byte");
        arguments[i] = const_cast<char*>(text);
        lua_pop(L, 1);
    }
    return arguments;
}

// run_program(arguments, input, output): true; or nil, the message and whether the program is
// missing.
int RunProgram(lua_State* L)
{
    const Arguments arguments = CheckArguments(L, 1);
    const std::string_view input = CheckBytes(L, 2);
    const VxaCore::Host::PendingFile* const output = TestPendingFile(L, 3);
    luaL_argcheck(L, output, 3, "a file from vxa.temporary expected");
    bool is_missing = false;
    const auto run = [&] {
        try {
            Run(arguments, input, output->Descriptor());
        } catch (const std::system_error& error) {
            is_missing = error.code() == std::errc::no_such_file_or_directory;
            throw;
        }
    };
    if (!SucceedsOrPushError(L, run)) {
        lua_pushboolean(L, is_missing);
        return 3;
    }
    lua_pushboolean(L, 1);
    return 1;
}

constexpr luaL_Reg kFunctions[] = {
    {"run_program", RunProgram},
    {nullptr, nullptr},
};

}  // namespace

void OpenPrograms(lua_State* L)
{
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
