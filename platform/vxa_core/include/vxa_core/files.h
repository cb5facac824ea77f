// File operations of hosts that must survive a power failure or say what was wrong.
#pragma once

#include <string>
#include <string_view>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

// Makes a directory and those above it, of mode 0755 whatever the umask; one that exists
// already is left as it is. Returns empty for success, else what was wrong.
VXA_CORE_API std::string MakeDirectories(const std::string& path);

// What stands at the new name when a file is renamed.
enum class Existing { kReplaced, kKept };

// Renames a finished regular file (no symbolic link): its content is on the disk before
// the name changes, and the name when the call returns. In a folder that may be written
// but not read, or that the disk cannot store, the name changes all the same and reaches
// the disk when the system gets to it. With kKept a name that stands already makes it
// fail, also when it came into being a moment ago. Empty for success, else what was
// wrong: the file then has its old name.
VXA_CORE_API std::string RenameDurably(const std::string& from, const std::string& to,
                                       Existing existing = Existing::kReplaced);

// Makes an empty file beside `path`, for its owner only, under a name that was free: the
// path and a suffix, in `made`. Empty for success, else what was wrong.
VXA_CORE_API std::string MakeTemporary(const std::string& path, std::string& made);

// "file", "directory", "link" (not followed) or "other"; null with errno set.
VXA_CORE_API const char* FileKind(const std::string& path);

// Whether a document can keep the text unchanged: UTF-8 without zero bytes.
VXA_CORE_API bool IsDocumentText(std::string_view bytes);

}  // namespace VxaCore::Host
