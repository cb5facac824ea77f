#include "File.h"

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
        if (written > 0) bytes.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

bool ReadFully(int fd, std::string& bytes)
{
    char chunk[16384];
    bytes.clear();
    for (;;) {
        const ssize_t got = pread(fd, chunk, sizeof chunk, static_cast<off_t>(bytes.size()));
        if (got > 0)
            bytes.append(chunk, static_cast<size_t>(got));
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
    constexpr int careful = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    FileDescriptor file(openat(directory, name, flags | careful, 0644));
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

namespace {

// Mode 0755 whatever the umask: tools of other users read in there, and only the owner writes.
bool MakeDirectory(const char* path)
{
    if (mkdir(path, 0755) != 0) return errno == EEXIST;
    struct stat status;
    const FileDescriptor made(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return made && fstat(made.get(), &status) == 0 &&
           ((status.st_mode & 0777) == 0755 || fchmod(made.get(), 0755) == 0);
}

}  // namespace

std::string MakeDirectories(const std::string& path)
{
    for (size_t end = 0; end != std::string::npos;) {
        end = path.find('/', end + 1);
        const std::string part = path.substr(0, end);
        struct stat status;
        // The system's own order of complaints hides the useful one: a read-only file
        // system says so even for a directory that exists.
        if (stat(part.c_str(), &status) == 0) {
            if (!S_ISDIR(status.st_mode)) return part + " is not a directory";
        } else if (!MakeDirectory(part.c_str())) {
            return "cannot make directory " + part + ": " + ErrorText(errno);
        }
    }
    return {};
}

namespace {

// Where a file system cannot rename without replacing, a second name must do.
bool RenameKeeping(const char* from, const char* to)
{
    if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return true;
    return (errno == EINVAL || errno == ENOSYS) && link(from, to) == 0 && unlink(from) == 0;
}

bool Rename(const char* from, const char* to, Existing existing)
{
    return existing == Existing::kKept ? RenameKeeping(from, to) : rename(from, to) == 0;
}

// The folder that holds a path; empty with errno set when it cannot be read.
FileDescriptor OpenFolder(const std::string& path)
{
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    return FileDescriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace

std::string RenameDurably(const std::string& from, const std::string& to, Existing existing)
{
    const auto failure = [&](const std::string& reason) {
        return "cannot rename " + from + " to " + to + ": " + reason;
    };
    std::string reason;
    const FileDescriptor file = OpenRegular(AT_FDCWD, from.c_str(), O_RDONLY, reason);
    if (!file) return failure(reason);
    // Opened first: once the name has changed, a lack of descriptors must not stop it.
    const FileDescriptor folder = OpenFolder(to);
    if (!folder && errno != EACCES) return failure(ErrorText(errno));
    if (fsync(file.get()) != 0 || !Rename(from.c_str(), to.c_str(), existing))
        return failure(ErrorText(errno));
    // The file has its new name now, and a failure would tell the opposite.
    if (folder) (void)fsync(folder.get());
    return {};
}

std::string MakeTemporary(const std::string& path, std::string& made)
{
    std::string name = path + ".XXXXXX";
    const FileDescriptor file(mkostemp(name.data(), O_CLOEXEC));
    if (!file) return "cannot write " + path + ": " + ErrorText(errno);
    made = std::move(name);
    return {};
}

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

}  // namespace Host

}  // namespace VxaCore
