// Opens directories one component at a time, so that no symbolic link is followed unseen.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>

#include <linux/magic.h>

#include "files/File.h"
#include "vxa_core/files.h"

namespace VxaCore {

namespace {

constexpr int kMostLinks = 40;  // as in the kernel's path lookup: path_resolution(7)

// Through the descriptor's name: fchmod(2) needs a descriptor open for reading or writing, which
// the present mode may deny even the owner.
bool SetMode(int fd, mode_t mode)
{
    return chmod(("/proc/self/fd/" + std::to_string(fd)).c_str(), mode) == 0;
}

class DirectoryWalk {
public:
    explicit DirectoryWalk(IfMissing if_missing) : m_ifMissing(if_missing) {}

    FileDescriptor Open(const std::string& path)
    {
        if (path.empty()) throw Host::FileError(ENOENT, ErrorText(ENOENT));
        if (path.size() >= PATH_MAX) throw Host::FileError(ENAMETOOLONG, ErrorText(ENAMETOOLONG));
        std::string rest = path;
        GoToStart(rest);
        while (!rest.empty()) EnterNext(rest);
        return std::move(m_directory);
    }

private:
    void GoToStart(const std::string& path);
    void EnterNext(std::string& rest);
    FileDescriptor OpenOrMake(const std::string& name);
    void Make(const std::string& name);
    void Follow(int link, const struct stat& status, const std::string& name, std::string& rest);
    void Enter(FileDescriptor next, const std::string& name);
    std::string PathOf(const std::string& name) const { return m_path + name; }

    IfMissing m_ifMissing;
    FileDescriptor m_directory;
    std::string m_path;  // of m_directory, ending in a slash; empty for the working directory
    int m_links = 0;
};

void DirectoryWalk::GoToStart(const std::string& path)
{
    const bool is_absolute = path[0] == '/';
    if (m_directory && !is_absolute) return;
    const char* start = is_absolute ? "/" : ".";
    m_path = is_absolute ? start : "";
    m_directory = FileDescriptor(open(start, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!m_directory) ThrowErrno(start);
}

// Takes the first component off `rest`; the target of a link goes in front of what is left.
void DirectoryWalk::EnterNext(std::string& rest)
{
    const std::size_t end = std::min(rest.find('/'), rest.size());
    const std::string name = rest.substr(0, end);
    rest.erase(0, end + 1);
    if (name.empty()) return;
    FileDescriptor next = OpenOrMake(name);
    struct stat status;
    if (!next || fstat(next.Get(), &status) != 0) ThrowErrno(PathOf(name));
    if (S_ISLNK(status.st_mode))
        Follow(next.Get(), status, name, rest);
    else if (S_ISDIR(status.st_mode))
        Enter(std::move(next), name);
    else
        throw Host::FileError(ENOTDIR, PathOf(name) + " is not a directory");
}

void DirectoryWalk::Enter(FileDescriptor next, const std::string& name)
{
    m_directory = std::move(next);
    m_path += name + "/";
}

FileDescriptor DirectoryWalk::OpenOrMake(const std::string& name)
{
    constexpr int kUnfollowed = O_PATH | O_NOFOLLOW | O_CLOEXEC;
    FileDescriptor next(openat(m_directory.Get(), name.c_str(), kUnfollowed));
    if (next || errno != ENOENT || m_ifMissing == IfMissing::kFail) return next;
    Make(name);
    return FileDescriptor(openat(m_directory.Get(), name.c_str(), kUnfollowed));
}

// Mode 0755 whatever the umask: other users' tools read in there, and only the owner writes.
void DirectoryWalk::Make(const std::string& name)
{
    const std::string failure = "cannot make directory " + PathOf(name);
    constexpr mode_t kMode = 0755;
    if (mkdirat(m_directory.Get(), name.c_str(), kMode) != 0) {
        if (errno == EEXIST) return;
        ThrowErrno(failure);
    }
    constexpr int kFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const FileDescriptor made(openat(m_directory.Get(), name.c_str(), kFlags));
    struct stat status;
    if (!made || fstat(made.Get(), &status) != 0) ThrowErrno(failure);
    const mode_t special = status.st_mode & 07000;
    if ((status.st_mode & 0777) != kMode && !SetMode(made.Get(), special | kMode))
        ThrowErrno(failure);
}

// In a directory that others can change, their link would lead the caller, who may be root,
// wherever they like. Owner and target are read from the link that was opened.
void DirectoryWalk::Follow(int link, const struct stat& status, const std::string& name,
                           std::string& rest)
{
    if (status.st_uid != 0 && status.st_uid != geteuid())
        throw Host::FileError(EACCES, PathOf(name) + " is a symbolic link that another user (uid " +
                                          std::to_string(status.st_uid) + ") made");
    if (++m_links > kMostLinks)
        throw Host::FileError(ELOOP, PathOf(name) + ": " + ErrorText(ELOOP));
    struct statfs system;
    if (fstatfs(link, &system) == 0 && system.f_type == PROC_SUPER_MAGIC) {
        // The target of a link such as /proc/PID/cwd need not have a path that leads there.
        constexpr int kFollowed = O_PATH | O_DIRECTORY | O_CLOEXEC;
        FileDescriptor target(openat(m_directory.Get(), name.c_str(), kFollowed));
        if (!target) ThrowErrno(PathOf(name));
        return Enter(std::move(target), name);
    }
    char target[PATH_MAX];
    const ssize_t length = readlinkat(link, "", target, sizeof target);
    if (length <= 0 || length == sizeof target) ThrowErrno(PathOf(name));
    rest = std::string(target, static_cast<std::size_t>(length)) + "/" + rest;
    GoToStart(rest);
}

}  // namespace

FileDescriptor OpenDirectory(const std::string& path, IfMissing if_missing)
{
    return DirectoryWalk(if_missing).Open(path);
}

void Host::MakeDirectories(const std::string& path)
{
    (void)OpenDirectory(path, IfMissing::kMake);
}

}  // namespace VxaCore
