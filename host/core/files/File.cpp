#include "files/File.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vxa_core/files.h"

namespace VxaCore {

std::string ErrorText(int error_number)
{
    char buffer[128];
    return strerror_r(error_number, buffer, sizeof buffer);
}

bool WriteFully(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) return false;
        if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

bool ReadFully(int fd, std::string& bytes)
{
    // A sparse file costs nobody anything, and its bytes would cost us the machine's memory.
    constexpr std::size_t kMostBytes = 64 << 20;
    char chunk[16384];
    bytes.clear();
    for (;;) {
        const ssize_t got = pread(fd, chunk, sizeof chunk, static_cast<off_t>(bytes.size()));
        if (got > 0 && bytes.size() >= kMostBytes) {
            errno = EFBIG;
            return false;
        }
        if (got > 0)
            bytes.append(chunk, static_cast<std::size_t>(got));
        else if (got == 0)
            return true;
        else if (errno != EINTR)
            return false;
    }
}

bool FileDescriptor::Close()
{
    const int fd = std::exchange(m_fd, -1);
    return fd < 0 || close(fd) == 0;
}

namespace {

// Of what a status without following links tells; null for a regular file.
const char* WrongKind(const struct stat& status)
{
    if (S_ISLNK(status.st_mode)) return "it is a symbolic link";
    return S_ISREG(status.st_mode) ? nullptr : "it is not a regular file";
}

}  // namespace

FileDescriptor OpenRegular(int directory, const char* name, int flags, std::string& reason)
{
    constexpr int kCareful = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    FileDescriptor file(openat(directory, name, flags | kCareful, 0644));
    int cause = errno;
    // The system's own words for a link or a directory in the way mislead or are missing.
    struct stat status;
    const bool known = file ? fstat(file.get(), &status) == 0
                            : fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
    const char* wrong = known ? WrongKind(status) : nullptr;
    if (file && known && !wrong) return file;
    if (wrong) cause = EINVAL;
    reason = wrong ? wrong : ErrorText(cause);
    (void)file.Close();
    errno = cause;
    return file;
}

namespace Host {

const char* FileKind(const std::string& path)
{
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) return nullptr;
    switch (status.st_mode & S_IFMT) {
        case S_IFREG:
            return "file";
        case S_IFDIR:
            return "directory";
        case S_IFLNK:
            return "link";
        default:
            return "other";
    }
}

std::string ReadFile(const std::string& path, std::size_t most_bytes, std::string& bytes)
{
    const auto fail = [&](int cause, const std::string& reason) {
        errno = cause;
        return path + ": " + reason;
    };
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0) return fail(errno, ErrorText(errno));
    if (S_ISDIR(status.st_mode)) return fail(EISDIR, ErrorText(EISDIR));
    if (!S_ISREG(status.st_mode)) return fail(EINVAL, "not a regular file");
    // Files of the kernel declare no size, and one may grow while it is read.
    bytes.clear();
    char chunk[16384];
    while (bytes.size() <= most_bytes) {
        const ssize_t got = read(file.get(), chunk, sizeof chunk);
        if (got < 0 && errno != EINTR) return fail(errno, ErrorText(errno));
        if (got == 0) return "";
        bytes.append(chunk, got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    return fail(EFBIG, "has more than " + std::to_string(most_bytes) + " bytes");
}

}  // namespace Host

}  // namespace VxaCore
