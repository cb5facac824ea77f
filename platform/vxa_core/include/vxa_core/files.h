// File operations of hosts that must survive a power failure or say what was wrong.
#pragma once

#include <string>
#include <string_view>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

// Makes a directory and those above it; one that stands already is fine. Empty for
// success, else what was wrong.
VXA_CORE_API std::string MakeDirectories(const std::string& path);

// Renames a finished file over another name: its content is on the disk before the name
// changes, and the name when the call returns. Empty for success, else what was wrong.
VXA_CORE_API std::string RenameDurably(const std::string& from, const std::string& to);

// Whether a document can keep the text unchanged: UTF-8 without zero bytes.
VXA_CORE_API bool IsDocumentText(std::string_view bytes);

}  // namespace VxaCore::Host
