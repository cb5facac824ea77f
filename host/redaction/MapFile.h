// The file in which the owner of a package keeps what was masked.
#pragma once

#include <optional>
#include <string>

#include "redaction/Pseudonyms.h"

namespace vxa::redaction {

// Returns the content of the file, nullopt if there is none. Anyone who can write a map decides
// about the masking, and anyone who can read it can undo that. So it must be a regular file that
// the caller owns, with one link, not a symbolic link, and no other user may have access. Throws
// std::runtime_error with the path and the reason.
std::optional<std::string> ReadMapFile(const std::string& path);

// Writes the map to the file with mode 0600, whole or not at all. With `replace` it replaces a
// regular file; otherwise it fails if something has that name. Throws std::runtime_error as above,
// also if the map has become too large to be read again.
void WriteMapFile(const std::string& path, Pseudonyms& pseudonyms, bool replace);

}  // namespace vxa::redaction
