// Files and directories that may belong to other users.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

// Whether a write waits until the disk has what was written.
enum class Flush { kToDisk, kNot };

// A failure with the errno value that fits it: that of the system call, or, where this library
// refuses what the system would accept, the value that a system call would return for it.
class VXA_CORE_API FileError : public std::runtime_error {
public:
    FileError(int error_number, const std::string& message)
        : std::runtime_error(message), m_errorNumber(error_number)
    {
    }

    int ErrorNumber() const noexcept { return m_errorNumber; }

private:
    int m_errorNumber;
};

// Returns the errno value of a FileError or std::system_error, ENOMEM for std::bad_alloc, and
// EINVAL for other failures: most of those are about a content that is not as it should be.
VXA_CORE_API int ErrorNumber(const std::exception& error) noexcept;

// Makes a directory and its parents with mode 0755 whatever the umask; leaves existing ones as
// they are. Follows a symbolic link in the path only if root or the caller owns it. Throws
// std::runtime_error with the component and the reason.
VXA_CORE_API void MakeDirectories(const std::string& path);

// Returns "file", "directory", "link" (which is not followed), "other" or "none". Throws
// FileError.
VXA_CORE_API const char* FileKind(const std::string& path);

struct FileStatus {
    const char* kind;  // "file", "directory", "FIFO", "socket" or "device"
    unsigned owner;    // user ID
    unsigned mode;     // permission bits
};

// Follows links. Throws FileError.
VXA_CORE_API FileStatus GetFileStatus(const std::string& path);

// A regular file, read from its start; links are followed. Does not wait for the writer of a FIFO
// and reads nothing from devices.
class VXA_CORE_API InputFile {
public:
    // Throws FileError, with EINVAL if the file is not a regular file.
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // Returns how many bytes it stored in the buffer, 0 at the end of the file. Throws FileError.
    std::size_t Read(char* buffer, std::size_t size);

    // In bytes, when the file was opened; 0 in /proc.
    std::uint64_t Size() const { return m_size; }
    const std::string& Path() const { return m_path; }

private:
    [[noreturn]] void Fail(int cause) const;

    std::string m_path;
    int m_fd;
    std::uint64_t m_size = 0;
};

// Returns the content of a regular file of at most `most_bytes` bytes, as InputFile reads it.
// Throws FileError, with EFBIG if it is too large.
VXA_CORE_API std::string ReadFile(const std::string& path, std::size_t most_bytes);

struct FileTail {
    std::string bytes;          // the last ones of the file
    std::uint64_t skipped = 0;  // bytes in front of them
};

// Returns at most the last `most_bytes` bytes of a regular file that has one link; a link is not
// followed, and on the way to the file only if root or the caller owns it. Then a directory of
// another user cannot pass off a file that only the caller may read as one of its own. Throws
// FileError with ENOENT if there is no such file, otherwise std::runtime_error with the path and
// the reason.
VXA_CORE_API FileTail ReadTail(const std::string& path, std::size_t most_bytes);

}  // namespace VxaCore::Host
