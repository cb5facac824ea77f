// Open files, and reading files that may belong to other users.
#include "files/File.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <system_error>

#include "vxa_core/files.h"

namespace VxaCore {

namespace {

// A sparse file of any size costs its owner nothing, but reading it would take all our memory.
constexpr std::size_t kMostBytes = 64 << 20;
constexpr std::size_t kChunkBytes = 16384;

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

void File::Write(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = write(Descriptor(), bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) Throw("write");
        if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
    }
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

namespace Host {

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

InputFile::InputFile(const std::string& path)
    : m_path(path), m_fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC))
{
    FileDescriptor closed_on_failure(m_fd);
    struct stat status;
    if (m_fd < 0 || fstat(m_fd, &status) != 0) Fail(errno);
    if (S_ISDIR(status.st_mode)) Fail(EISDIR);
    if (!S_ISREG(status.st_mode)) throw FileError(EINVAL, path + ": not a regular file");
    m_size = static_cast<std::uint64_t>(status.st_size);
    closed_on_failure.Release();
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

}  // namespace Host

}  // namespace VxaCore
