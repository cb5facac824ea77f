// Redirects the fixed paths of the product into the directory that FAKE_MACHINE names, so that
// its tests need neither privilege nor a namespace. The functions below come before libc's in a
// program that links or preloads them. To it the user is root, and a mount that covers
// /proc/meminfo is only remembered.

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* kMeminfo = "/proc/meminfo";
constexpr const char* kFixed[] = {kMeminfo, "/etc/vx_filter.conf", "/usr/local/bin",
                                  "/var/opt/vx_agent"};

char s_mounted_meminfo[PATH_MAX];

bool IsBelow(const char* path, const char* top)
{
    const std::size_t length = std::strlen(top);
    return std::strncmp(path, top, length) == 0 && (path[length] == '\0' || path[length] == '/');
}

// The path to use in place of one that is absolute or relative to a directory.
class Path {
public:
    Path(int directory, const char* path) : m_path(path)
    {
        const int cause = errno;
        if (const char* const machine = std::getenv("FAKE_MACHINE")) Redirect(machine, directory);
        errno = cause;
    }
    operator const char*() const { return m_path; }

private:
    void Redirect(const char* machine, int directory)
    {
        char link[32], absolute[PATH_MAX];
        std::snprintf(link, sizeof link, "/proc/self/fd/%d", directory);
        const ssize_t known = m_path[0] == '/' ? 0 : readlink(link, absolute, sizeof absolute);
        const std::size_t length = known > 0 ? static_cast<std::size_t>(known) : 0;
        std::snprintf(absolute + length, sizeof absolute - length, "%s%s", length != 0 ? "/" : "",
                      m_path);
        for (const char* top : kFixed) {
            if (!IsBelow(absolute, top)) continue;
            std::snprintf(m_redirected, sizeof m_redirected, "%s%s", machine, absolute);
            const bool mounted = top == kMeminfo && s_mounted_meminfo[0] != '\0';
            m_path = mounted ? s_mounted_meminfo : m_redirected;
        }
    }

    const char* m_path;
    char m_redirected[2 * PATH_MAX];
};

// The argument after the flags, if there is one.
mode_t Mode(int flags, std::va_list rest)
{
    const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return creates ? va_arg(rest, mode_t) : 0;
}

}  // namespace

#define LIBC(function) reinterpret_cast<decltype(&(function))>(dlsym(RTLD_NEXT, #function))

#pragma GCC visibility push(default)
extern "C" {

int openat(int directory, const char* path, int flags, ...)
{
    std::va_list rest;
    va_start(rest, flags);
    const mode_t mode = Mode(flags, rest);
    va_end(rest);
    return LIBC(openat)(directory, Path(directory, path), flags, mode);
}

int openat64(int directory, const char* path, int flags, ...) __attribute__((alias("openat")));

int open(const char* path, int flags, ...)
{
    std::va_list rest;
    va_start(rest, flags);
    const mode_t mode = Mode(flags, rest);
    va_end(rest);
    return LIBC(open)(Path(AT_FDCWD, path), flags, mode);
}

int open64(const char* path, int flags, ...) __attribute__((alias("open")));

FILE* fopen(const char* path, const char* mode)
{
    return LIBC(fopen)(Path(AT_FDCWD, path), mode);
}

FILE* fopen64(const char* path, const char* mode) __attribute__((alias("fopen")));

int mkdirat(int directory, const char* path, mode_t mode) noexcept
{
    return LIBC(mkdirat)(directory, Path(directory, path), mode);
}

// What a shell needs to find a command in a directory of PATH.
int stat64(const char* path, struct stat64* status) noexcept
{
    return LIBC(stat64)(Path(AT_FDCWD, path), status);
}

int execve(const char* path, char* const* arguments, char* const* environment) noexcept
{
    return LIBC(execve)(Path(AT_FDCWD, path), arguments, environment);
}

// For tests that run thousands of commands: without a process, NAME prints NAME.out. In glibc
// pclose closes any stream.
FILE* popen(const char* command, const char* mode)
{
    const char* const outputs = std::getenv("FAKE_OUTPUTS");
    if (!outputs) return LIBC(popen)(command, mode);
    char path[PATH_MAX];
    std::snprintf(path, sizeof path, "%s/%s.out", outputs, command);
    return LIBC(fopen)(path, mode);
}

uid_t geteuid(void) noexcept
{
    return std::getenv("FAKE_MACHINE") ? 0 : LIBC(geteuid)();
}

int unshare(int flags) noexcept
{
    return std::getenv("FAKE_MACHINE") ? 0 : LIBC(unshare)(flags);
}

int mount(const char* source, const char* target, const char* type, unsigned long flags,
          const void* data) noexcept
{
    if (!std::getenv("FAKE_MACHINE")) return LIBC(mount)(source, target, type, flags, data);
    if (std::strcmp(target, kMeminfo) == 0)
        std::snprintf(s_mounted_meminfo, sizeof s_mounted_meminfo, "%s", source);
    return 0;
}

}  // extern "C"
