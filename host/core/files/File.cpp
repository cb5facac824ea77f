// Open files, and reading files that may belong to other users.
#include "files/File.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <system_error>

namespace VxaCore {

namespace {

// A sparse file of any size costs its owner nothing, but reading it would take all our memory.
constexpr std::size_t kMostBytes = 64 << 20;
constexpr std::size_t kChunkBytes = 16384;

// Why a file is refused; null and 0 if it is not.
struct Refusal {
    const char* reason;
    int error_number;
};

// If others may write to the directory, a hard link would make any file of its file system one of
// this directory's.
Refusal ReasonToRefuse(const struct stat& status)
{
    if (S_ISLNK(status.st_mode)) return {"it is a symbolic link", ELOOP};
    if (!S_ISREG(status.st_mode)) return {"it is not a regular file", EINVAL};
    if (status.st_nlink > 1) return {"it has more than one hard link", EMLINK};
    return {nullptr, 0};
}

// The next process must be able to open what this one made, whatever the umask. Some file
// systems have no modes.
void AllowOwner(int file, const struct stat& status)
{
    constexpr mode_t kOwner = S_IRUSR | S_IWUSR;
    if (status.st_uid == geteuid() && (status.st_mode & kOwner) != kOwner)
        (void)fchmod(file, (status.st_mode & 07777) | kOwner);
}

}  // namespace

void ThrowErrno(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

std::string ErrorText(int error_number)
{
    char buffer[128];
    return strerror_r(error_number, buffer, sizeof buffer);
}

FileDescriptor::~FileDescriptor()
{
    if (m_fd >= 0) (void)close(m_fd);
}

File::File(FileDescriptor descriptor, std::string path)
    : m_descriptor(std::move(descriptor)), m_path(std::move(path))
{
}

void File::Throw(const char* operation) const
{
    const int cause = errno;
    throw std::system_error(cause, std::generic_category(),
                            "cannot " + std::string(operation) + " " + m_path);
}

void WriteAll(int fd, std::string_view bytes, const std::string& path)
{
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) ThrowErrno("cannot write " + path);
        if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

void File::Write(std::string_view bytes)
{
    WriteAll(Descriptor(), bytes, m_path);
}

// fdatasync(2): EINVAL and EROFS mean that the file does not support synchronisation.
void File::Sync()
{
    if (fdatasync(Descriptor()) != 0 && errno != EINVAL && errno != EROFS) Throw("write");
}

void File::Truncate(off_t size)
{
    if (ftruncate(Descriptor(), size) != 0) Throw("truncate");
}

off_t File::Size() const
{
    struct stat status;
    if (fstat(Descriptor(), &status) != 0) Throw("read");
    return status.st_size;
}

void File::Append(std::string_view record, Host::Flush flush)
{
    const off_t size = Size();
    try {
        Write(record);
        if (flush == Host::Flush::kToDisk) Sync();
    } catch (const std::system_error& error) {
        if (ftruncate(Descriptor(), size) == 0) throw;
        throw std::system_error(error.code(), std::string(error.what()) +
                                                  "; its last record is incomplete, because the "
                                                  "file cannot be truncated");
    }
}

void File::Close()
{
    if (close(m_descriptor.Release()) != 0) Throw("write");
}

std::string File::ReadAll() const
{
    std::string bytes;
    char chunk[kChunkBytes];
    for (;;) {
        const ssize_t got = pread(Descriptor(), chunk, sizeof chunk, off_t(bytes.size()));
        if (got == 0) return bytes;
        if (got > 0 && bytes.size() >= kMostBytes) {
            errno = EFBIG;
            Throw("read");
        }
        if (got < 0 && errno != EINTR) Throw("read");
        bytes.append(chunk, got > 0 ? static_cast<std::size_t>(got) : 0);
    }
}

std::string File::Read(std::uint64_t from, std::size_t most_bytes) const
{
    std::string bytes;
    char chunk[kChunkBytes];
    while (bytes.size() < most_bytes) {
        const std::size_t wanted = std::min(sizeof chunk, most_bytes - bytes.size());
        const ssize_t got =
            pread(Descriptor(), chunk, wanted, static_cast<off_t>(from + bytes.size()));
        if (got == 0) break;
        if (got < 0 && errno != EINTR) Throw("read");
        bytes.append(chunk, got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    return bytes;
}

bool File::IsNamed(const FileDescriptor& directory, const std::string& name) const
{
    struct stat named, opened;
    return fstatat(directory.Get(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           fstat(Descriptor(), &opened) == 0 && named.st_dev == opened.st_dev &&
           named.st_ino == opened.st_ino;
}

void File::RequireOwner() const
{
    struct stat status;
    if (fstat(Descriptor(), &status) != 0) Throw("read");
    if (status.st_uid != 0 && status.st_uid != geteuid())
        throw Host::FileError(EPERM, "cannot write " + m_path + ": another user (uid " +
                                         std::to_string(status.st_uid) + ") owns it");
}

FileDescriptor OpenDirectoryOf(const std::string& path)
try {
    const std::size_t slash = path.rfind('/');
    if (slash + 1 == path.size()) throw Host::FileError(EISDIR, ErrorText(EISDIR));
    return OpenDirectory(slash == path.npos ? "." : path.substr(0, slash + 1), IfMissing::kFail);
} catch (const std::runtime_error& error) {
    throw Host::FileError(Host::ErrorNumber(error), "cannot write " + path + ": " + error.what());
}

std::optional<File> OpenRegularFile(const FileDescriptor& directory, const std::string& name,
                                    const std::string& path, int flags, mode_t mode)
{
    const auto fail = [&](int error_number, const std::string& reason) {
        const bool is_read = (flags & O_ACCMODE) == O_RDONLY;
        throw Host::FileError(error_number,
                              (is_read ? "cannot read " : "cannot write ") + path + ": " + reason);
    };
    constexpr int kCareful = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    FileDescriptor file(openat(directory.Get(), name.c_str(), flags | kCareful, mode));
    const int cause = errno;
    // Where a link or directory is in the way, errno misleads or open(2) succeeds.
    struct stat status;
    const bool exists =
        file ? fstat(file.Get(), &status) == 0
             : fstatat(directory.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    const Refusal refusal = exists ? ReasonToRefuse(status) : Refusal{nullptr, 0};
    if (refusal.reason) fail(refusal.error_number, refusal.reason);
    if (!file && cause == ENOENT && !(flags & O_CREAT)) return std::nullopt;
    if (!file || !exists) fail(cause, ErrorText(cause));
    if (flags & O_CREAT) AllowOwner(file.Get(), status);
    return File(std::move(file), path);
}

FileDescriptor OpenInput(const std::string& path, struct stat& status)
{
    const auto fail = [&](int cause, const std::string& reason) {
        throw Host::FileError(cause, path + ": " + reason);
    };
    FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file || fstat(file.Get(), &status) != 0) fail(errno, ErrorText(errno));
    if (S_ISDIR(status.st_mode)) fail(EISDIR, ErrorText(EISDIR));
    if (!S_ISREG(status.st_mode)) fail(EINVAL, "not a regular file");
    return file;
}

namespace Host {

int ErrorNumber(const std::exception& error) noexcept
{
    if (const auto* file_error = dynamic_cast<const FileError*>(&error))
        return file_error->ErrorNumber();
    if (const auto* system_error = dynamic_cast<const std::system_error*>(&error))
        return system_error->code().value();
    return dynamic_cast<const std::bad_alloc*>(&error) ? ENOMEM : EINVAL;
}

const char* FileKind(const std::string& path)
{
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) return "none";
        throw FileError(errno, path + ": " + ErrorText(errno));
    }
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

FileStatus GetFileStatus(const std::string& path)
{
    const FileDescriptor file(open(path.c_str(), O_PATH | O_CLOEXEC));
    struct stat status;
    if (!file || fstat(file.Get(), &status) != 0)
        throw FileError(errno, path + ": " + ErrorText(errno));
    const char* kind = "device";
    if (S_ISREG(status.st_mode)) kind = "file";
    if (S_ISDIR(status.st_mode)) kind = "directory";
    if (S_ISFIFO(status.st_mode)) kind = "FIFO";
    if (S_ISSOCK(status.st_mode)) kind = "socket";
    return {kind, status.st_uid, status.st_mode & 07777U};
}

InputFile::InputFile(const std::string& path) : m_path(path)
{
    struct stat status;
    m_fd = OpenInput(path, status).Release();
    m_size = static_cast<std::uint64_t>(status.st_size);
}

InputFile::~InputFile()
{
    (void)close(m_fd);
}

void InputFile::Fail(int cause) const
{
    throw FileError(cause, m_path + ": " + ErrorText(cause));
}

std::size_t InputFile::Read(char* buffer, std::size_t size)
{
    ssize_t got = 0;
    do got = read(m_fd, buffer, size);
    while (got < 0 && errno == EINTR);
    if (got < 0) Fail(errno);
    return static_cast<std::size_t>(got);
}

std::string ReadFile(const std::string& path, std::size_t most_bytes)
{
    // Files in /proc report size 0, and a file can grow while it is read.
    InputFile file(path);
    std::string bytes;
    char chunk[kChunkBytes];
    while (bytes.size() <= most_bytes) {
        const std::size_t got = file.Read(chunk, sizeof chunk);
        if (got == 0) return bytes;
        bytes.append(chunk, got);
    }
    throw FileError(EFBIG, path + ": has more than " + std::to_string(most_bytes) + " bytes");
}

FileTail ReadTail(const std::string& path, std::size_t most_bytes)
{
    const std::size_t slash = path.rfind('/');
    const FileDescriptor directory =
        OpenDirectory(slash == path.npos ? "." : path.substr(0, slash + 1), IfMissing::kFail);
    const auto file = OpenRegularFile(directory, path.substr(slash + 1), path, O_RDONLY);
    if (!file) throw FileError(ENOENT, "cannot read " + path + ": " + ErrorText(ENOENT));
    const auto size = static_cast<std::uint64_t>(file->Size());
    FileTail tail;
    tail.skipped = size - std::min<std::uint64_t>(size, most_bytes);
    tail.bytes = file->Read(tail.skipped, most_bytes);
    return tail;
}

}  // namespace Host

}  // namespace VxaCore
