// Small file operations shared by the stores: complete writes, error texts.
#pragma once

#include <string>
#include <string_view>
#include <utility>

namespace VxaCore {

// strerror without its shared buffer.
std::string ErrorText(int error_number);

// Writes all of it, or false with errno set; how much got out is unknown then.
bool WriteFully(int fd, std::string_view bytes);

// Reads from offset 0 to the end, or false with errno set; EFBIG where that is more than 64 MiB.
bool ReadFully(int fd, std::string& bytes);

// Owns a descriptor.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : m_fd(fd) {}
    ~FileDescriptor() { (void)Close(); }
    FileDescriptor(FileDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    // False with errno set when the system reports a late write error.
    bool Close();

private:
    int m_fd = -1;
};

// Opens a regular file: never what a symbolic link leads to, and without waiting for the
// other end of a FIFO. `name` may be relative to the open `directory` (or AT_FDCWD). When
// it fails the descriptor is empty, `reason` tells why, and errno is ENOENT for a file
// that is missing, EINVAL for one of another kind.
FileDescriptor OpenRegular(int directory, const char* name, int flags, std::string& reason);

enum class Missing { kMade, kRefused };

// Opens a directory for names only (O_PATH). Follows a symbolic link only if root or the caller
// owns it, anywhere in the path. Directories it makes get mode 0755 whatever the umask. When it
// fails the descriptor is empty, and `problem` names the component and the reason.
FileDescriptor OpenDirectory(const std::string& path, Missing missing, std::string& problem);

}  // namespace VxaCore
