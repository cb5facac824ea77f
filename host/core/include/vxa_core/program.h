// Running another program to its end.
#pragma once

#include <functional>
#include <string_view>

#include "VxaCore/Export.h"
#include "vxa_core/pending_file.h"

namespace VxaCore::Host {

// Runs arguments[0], which is searched in PATH, without a shell; the array ends with a null
// pointer. The program reads `input` from its standard input. What it has written to its standard
// output is appended to `output` when it has ended: not every program notices that a disk is full.
//
// `reason_to_end` is called several times a second; if it returns a string, the program is killed.
// So it is after two minutes. Throws std::system_error if the program cannot be started, and
// std::runtime_error with its name and what happened, including the beginning of its standard
// error, if it was killed or has another exit status than 0, and as PendingFile::Write does.
VXA_CORE_API void RunProgram(const char* const* arguments, std::string_view input,
                             PendingFile& output,
                             const std::function<const char*()>& reason_to_end);

}  // namespace VxaCore::Host
