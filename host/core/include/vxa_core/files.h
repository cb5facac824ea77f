// File operations of hosts that must survive a power failure or say what was wrong.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

// Makes a directory and those above it, of mode 0755 whatever the umask; one that exists
// already is left as it is. A symbolic link in the path is followed only if root or the caller
// owns it. Returns empty for success, else what was wrong.
VXA_CORE_API std::string MakeDirectories(const std::string& path);

// "file", "directory", "link" (not followed) or "other"; null with errno set.
VXA_CORE_API const char* FileKind(const std::string& path);

// Reads a regular file of at most `kMostBytes` bytes, following links. Does not wait for the
// other end of a FIFO and reads nothing from devices. Empty for success, else what was
// wrong, with errno set (EINVAL for a file of another kind, EFBIG for a larger one).
VXA_CORE_API std::string ReadFile(const std::string& path, std::size_t most_bytes,
                                  std::string& bytes);

// Whether a document can keep the text unchanged: UTF-8 without zero bytes.
VXA_CORE_API bool IsDocumentText(std::string_view bytes);

}  // namespace VxaCore::Host
