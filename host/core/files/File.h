// Open files. Operations that fail throw std::system_error with the file's path and the reason.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "vxa_core/files.h"

namespace VxaCore {

// Throws std::system_error with the reason in errno after `what` and a colon.
[[noreturn]] void ThrowErrno(const std::string& what);

// strerror without its shared buffer.
std::string ErrorText(int error_number);

// Writes all bytes to a file. After a failure it is unknown how many were written.
void WriteAll(int fd, std::string_view bytes, const std::string& path);

// Owns a descriptor.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : m_fd(fd) {}
    ~FileDescriptor();
    FileDescriptor(FileDescriptor&& other) noexcept : m_fd(other.Release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    int Get() const { return m_fd; }
    int Release() { return std::exchange(m_fd, -1); }
    explicit operator bool() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};

class File {
public:
    // Takes over an open descriptor; `path` is for messages only.
    File(FileDescriptor descriptor, std::string path);

    int Descriptor() const { return m_descriptor.Get(); }

    // Writes all of it. After a failure it is unknown how much was written.
    void Write(std::string_view bytes);
    // Flushes what was written to the disk; does nothing for a pipe or device.
    void Sync();
    void Truncate(off_t size);
    // Writes all of it at the end of a file opened with O_APPEND, or nothing.
    void Append(std::string_view record, Host::Flush flush);
    off_t Size() const;
    // Throws also for a write error that the system reports only now.
    void Close();

    // Returns the bytes from this offset to the end, at most `most_bytes`.
    std::string Read(std::uint64_t from, std::size_t most_bytes) const;
    // Returns the content from the start, of at most 64 MiB.
    std::string ReadAll() const;

    // Whether the file has this name in the directory.
    bool IsNamed(const FileDescriptor& directory, const std::string& name) const;
    // Throws unless root or the caller owns the file: in a directory that others can change, it
    // could be one that they read or change.
    void RequireOwner() const;

private:
    [[noreturn]] void Throw(const char* operation) const;

    FileDescriptor m_descriptor;
    std::string m_path;
};

enum class IfMissing { kMake, kFail };

// Opens a directory for looking up names only (O_PATH). Follows a symbolic link only if root or
// the caller owns it, anywhere in the path. Makes missing directories with mode 0755 whatever
// the umask. Throws std::runtime_error with the component and the reason.
FileDescriptor OpenDirectory(const std::string& path, IfMissing if_missing);

// Opens the directory of a file, which must exist, as OpenDirectory does. Throws
// std::runtime_error with the path and the reason.
FileDescriptor OpenDirectoryOf(const std::string& path);

// Opens a regular file for reading; links are followed, the writer of a FIFO is not waited for.
// Sets `status`. Throws Host::FileError with the path and the reason, with EINVAL for a file of
// another kind.
FileDescriptor OpenInput(const std::string& path, struct stat& status);

// Opens `path`, whose name in `directory` is `name`, if it is a regular file with one link; does
// not follow links, nor wait for the other end of a FIFO. With O_CREAT, `mode` is for a new file;
// the owner can always read and write it. Returns nullopt if it does not exist and is not to be
// created. Throws std::runtime_error with the path and the reason.
std::optional<File> OpenRegularFile(const FileDescriptor& directory, const std::string& name,
                                    const std::string& path, int flags, mode_t mode = 0);

}  // namespace VxaCore
