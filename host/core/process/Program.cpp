// Running another program to its end.
#include "vxa_core/program.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>

#include "process/Spawn.h"

namespace VxaCore::Host {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostErrorBytes = 1000;
constexpr int kWaitMs = 50;
constexpr auto kTimeLimit = std::chrono::minutes(2);

int Reap(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// Returns the program's wait status.
int WaitFor(pid_t child, const std::string& name, const std::function<const char*()>& reason_to_end)
{
    const auto deadline = Clock::now() + kTimeLimit;
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(child, &status, WNOHANG)) == 0) {
        const char* const reason = reason_to_end();
        if (reason || Clock::now() > deadline) {
            kill(child, SIGKILL);
            Reap(child);
            throw FileError(reason ? EINTR : ETIMEDOUT,
                            name + " was ended: " + (reason ? reason : "it took too long"));
        }
        poll(nullptr, 0, kWaitMs);
    }
    if (ended != child) ThrowErrno("cannot wait for " + name);
    return status;
}

std::string Read(const FileDescriptor& file, off_t from, std::size_t most_bytes)
{
    std::string bytes(most_bytes, '\0');
    const ssize_t got = pread(file.Get(), bytes.data(), bytes.size(), from);
    if (got < 0) ThrowErrno("cannot read a file in memory");
    bytes.resize(static_cast<std::size_t>(got));
    return bytes;
}

void Copy(const FileDescriptor& from, PendingFile& to)
{
    constexpr std::size_t kPieceBytes = 65536;
    off_t at = 0;
    for (std::string piece; !(piece = Read(from, at, kPieceBytes)).empty();) {
        to.Write(piece);
        at += static_cast<off_t>(piece.size());
    }
}

}  // namespace

void RunProgram(const char* const* arguments, std::string_view input, PendingFile& output,
                const std::function<const char*()>& reason_to_end)
{
    const std::string name = arguments[0];
    const FileDescriptor input_file = MemoryFile(input), written = MemoryFile(""),
                         errors = MemoryFile("");
    const pid_t child =
        Spawn(arguments, {input_file.Get(), written.Get(), errors.Get()}, ProcessGroup::kOfParent);
    const int status = WaitFor(child, name, reason_to_end);
    if (status == 0) return Copy(written, output);
    const std::string what = WIFSIGNALED(status)
                                 ? " was ended by signal " + std::to_string(WTERMSIG(status))
                                 : " failed with status " + std::to_string(WEXITSTATUS(status));
    const std::string message = Read(errors, 0, kMostErrorBytes);
    throw std::runtime_error(name + what + (message.empty() ? "" : ": " + message));
}

}  // namespace VxaCore::Host
