// Starting other programs.
#include "process/Spawn.h"

#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <system_error>

namespace VxaCore {

namespace {

// If the parent of this process ignores SIGCHLD, the kernel would drop the exit status.
void KeepChildren()
{
    struct sigaction action = {};
    if (sigaction(SIGCHLD, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
        action.sa_handler = SIG_DFL;
        (void)sigaction(SIGCHLD, &action, nullptr);
    }
}

class Attributes {
public:
    explicit Attributes(ProcessGroup group)
    {
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        short flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
        if (group == ProcessGroup::kOwn) flags |= POSIX_SPAWN_SETPGROUP;
        posix_spawnattr_init(&m_attributes);
        posix_spawnattr_setflags(&m_attributes, flags);
        posix_spawnattr_setsigdefault(&m_attributes, &all);
        posix_spawnattr_setsigmask(&m_attributes, &none);
    }
    ~Attributes() { posix_spawnattr_destroy(&m_attributes); }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    const posix_spawnattr_t* Get() const { return &m_attributes; }

private:
    posix_spawnattr_t m_attributes;
};

// What the child does with its descriptors.
class FileActions {
public:
    explicit FileActions(const StandardStreams& streams)
    {
        posix_spawn_file_actions_init(&m_actions);
        Duplicate(streams.input, STDIN_FILENO);
        Duplicate(streams.output, STDOUT_FILENO);
        Duplicate(streams.errors, STDERR_FILENO);
        Note(posix_spawn_file_actions_addclosefrom_np(&m_actions, STDERR_FILENO + 1));
    }
    ~FileActions() { posix_spawn_file_actions_destroy(&m_actions); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;

    const posix_spawn_file_actions_t* Get() const { return &m_actions; }
    int Failure() const { return m_failure; }  // an errno value, or 0

private:
    void Duplicate(int descriptor, int stream)
    {
        Note(posix_spawn_file_actions_adddup2(&m_actions, descriptor, stream));
    }
    void Note(int failure)
    {
        if (failure != 0) m_failure = failure;
    }

    posix_spawn_file_actions_t m_actions;
    int m_failure = 0;
};

}  // namespace

FileDescriptor MemoryFile(std::string_view bytes)
{
    FileDescriptor memory(memfd_create("vxa", MFD_CLOEXEC));
    if (!memory) ThrowErrno("cannot make a file in memory");
    WriteAll(memory.Get(), bytes, "a file in memory");
    (void)lseek(memory.Get(), 0, SEEK_SET);
    return memory;
}

pid_t Spawn(const char* const* arguments, const StandardStreams& streams, ProcessGroup group)
{
    KeepChildren();
    const Attributes attributes(group);
    const FileActions actions(streams);
    pid_t pid = 0;
    int failure = actions.Failure();
    if (failure == 0)  // posix_spawnp does not change the strings
        failure = posix_spawnp(&pid, arguments[0], actions.Get(), attributes.Get(),
                               const_cast<char* const*>(arguments), environ);
    if (failure != 0)
        throw std::system_error(failure, std::generic_category(),
                                "cannot start " + std::string(arguments[0]));
    return pid;
}

}  // namespace VxaCore
