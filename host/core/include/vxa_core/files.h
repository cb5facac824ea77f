// Files and directories that may belong to other users.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

// A file that cannot be used; the message begins with its path.
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

// Makes a directory and its parents with mode 0755 whatever the umask; leaves existing ones as
// they are. Follows a symbolic link in the path only if root or the caller owns it. Throws
// std::runtime_error with the component and the reason.
VXA_CORE_API void MakeDirectories(const std::string& path);

// Returns "file", "directory", "link" (which is not followed), "other" or "none". Throws
// FileError.
VXA_CORE_API const char* FileKind(const std::string& path);

// Returns the content of a regular file of at most `most_bytes` bytes, following links. Does
// not wait for the writer of a FIFO and reads nothing from devices. Throws FileError, with
// EINVAL if the file is not a regular file and EFBIG if it is too large.
VXA_CORE_API std::string ReadFile(const std::string& path, std::size_t most_bytes);

}  // namespace VxaCore::Host
