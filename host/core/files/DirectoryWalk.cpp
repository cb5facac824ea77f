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

constexpr int kMostLinks = 40;  // the kernel's own bound

// Through the descriptor's name: a mode may deny its owner the opening that fchmod takes.
bool SetMode(int fd, mode_t mode)
{
    return chmod(("/proc/self/fd/" + std::to_string(fd)).c_str(), mode) == 0;
}

class DirectoryWalk {
public:
    explicit DirectoryWalk(Missing missing) : m_missing(missing) {}

    // Empty on failure.
    FileDescriptor Open(const std::string& path)
    {
        const bool unfit = path.empty() || path.size() >= PATH_MAX;
        if (unfit) m_problem = ErrorText(path.empty() ? ENOENT : ENAMETOOLONG);
        return !unfit && Enter(path) ? std::move(m_at) : FileDescriptor();
    }

    // What kept it from being opened.
    const std::string& Problem() const { return m_problem; }

private:
    bool Enter(const std::string& path);
    bool Start(const std::string& path);
    bool TakeComponent(std::string& rest);
    bool Step(const std::string& name, std::string& rest);
    bool Make(const std::string& name);
    bool Follow(int link, const struct stat& status, const std::string& name, std::string& rest);
    bool FollowOfKernel(const std::string& name);
    std::string PathOf(const std::string& name) const { return m_where + name; }
    bool Fail(int cause, const std::string& problem)
    {
        m_problem = problem;
        errno = cause;
        return false;
    }
    bool Fail(const std::string& name)
    {
        return Fail(errno, PathOf(name) + ": " + ErrorText(errno));
    }

    Missing m_missing;
    FileDescriptor m_at;
    std::string m_where;  // the path of m_at as far as walked, with a slash; empty at the start
    std::string m_problem;
    int m_links = 0;
};

bool DirectoryWalk::Start(const std::string& path)
{
    m_where = path[0] == '/' ? "/" : m_where;
    const char* start = path[0] == '/' ? "/" : ".";
    if (!m_at || path[0] == '/')
        m_at = FileDescriptor(open(start, O_PATH | O_DIRECTORY | O_CLOEXEC));
    return m_at || Fail(errno, std::string(start) + ": " + ErrorText(errno));
}

bool DirectoryWalk::Enter(const std::string& path)
{
    std::string rest = path;
    if (!Start(path)) return false;
    while (!rest.empty())
        if (!TakeComponent(rest)) return false;
    return true;
}

bool DirectoryWalk::TakeComponent(std::string& rest)
{
    const std::size_t end = std::min(rest.find('/'), rest.size());
    const std::string name = rest.substr(0, end);
    rest.erase(0, end + 1);
    return name.empty() || Step(name, rest);
}

bool DirectoryWalk::Step(const std::string& name, std::string& rest)
{
    constexpr int kUnfollowed = O_PATH | O_NOFOLLOW | O_CLOEXEC;
    FileDescriptor next(openat(m_at.get(), name.c_str(), kUnfollowed));
    if (!next && errno == ENOENT && m_missing == Missing::kMade) {
        if (!Make(name)) return false;
        next = FileDescriptor(openat(m_at.get(), name.c_str(), kUnfollowed));
    }
    struct stat status;
    if (!next || fstat(next.get(), &status) != 0) return Fail(name);
    if (S_ISLNK(status.st_mode)) return Follow(next.get(), status, name, rest);
    if (!S_ISDIR(status.st_mode)) return Fail(ENOTDIR, PathOf(name) + " is not a directory");
    m_at = std::move(next);
    m_where += name + "/";
    return true;
}

// Mode 0755 whatever the umask: tools of other users read in there, and only the owner writes.
bool DirectoryWalk::Make(const std::string& name)
{
    const auto fail = [&] {
        return Fail(errno, "cannot make directory " + PathOf(name) + ": " + ErrorText(errno));
    };
    constexpr mode_t kMode = 0755;
    if (mkdirat(m_at.get(), name.c_str(), kMode) != 0) return errno == EEXIST || fail();
    constexpr int kFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const FileDescriptor made(openat(m_at.get(), name.c_str(), kFlags));
    struct stat status;
    if (!made || fstat(made.get(), &status) != 0) return fail();
    const mode_t special = status.st_mode & 07000;
    return (status.st_mode & 0777) == kMode || SetMode(made.get(), special | kMode) || fail();
}

// In a folder that others can change, a link of theirs would lead the caller, who may be root,
// wherever they like. Owner and target are read from the link that was opened.
bool DirectoryWalk::Follow(int link, const struct stat& status, const std::string& name,
                           std::string& rest)
{
    if (status.st_uid != 0 && status.st_uid != geteuid())
        return Fail(EPERM, PathOf(name) + " is a symbolic link that another user (uid " +
                               std::to_string(status.st_uid) + ") made");
    if (++m_links > kMostLinks) {
        errno = ELOOP;
        return Fail(name);
    }
    struct statfs system;
    if (fstatfs(link, &system) == 0 && system.f_type == PROC_SUPER_MAGIC)
        return FollowOfKernel(name);
    char target[PATH_MAX];
    const ssize_t length = readlinkat(link, "", target, sizeof target);
    if (length <= 0 || length == sizeof target) return Fail(name);
    rest = std::string(target, static_cast<std::size_t>(length)) + "/" + rest;
    return Start(rest);
}

// What these links lead to need not have a name that leads there as well.
bool DirectoryWalk::FollowOfKernel(const std::string& name)
{
    FileDescriptor next(openat(m_at.get(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!next) return Fail(name);
    m_at = std::move(next);
    m_where += name + "/";
    return true;
}

}  // namespace

FileDescriptor OpenDirectory(const std::string& path, Missing missing, std::string& problem)
{
    DirectoryWalk walk(missing);
    FileDescriptor directory = walk.Open(path);
    problem = walk.Problem();
    return directory;
}

namespace Host {

std::string MakeDirectories(const std::string& path)
{
    std::string problem;
    (void)OpenDirectory(path, Missing::kMade, problem);
    return problem;
}

}  // namespace Host

}  // namespace VxaCore
