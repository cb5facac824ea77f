// Starting other programs.
#pragma once

#include <sys/types.h>

#include <string_view>

#include "files/File.h"

namespace VxaCore {

// Returns a file in memory with these bytes, positioned at its start: unlike a pipe, it never makes
// its writer wait. Throws std::system_error.
FileDescriptor MemoryFile(std::string_view bytes);

struct StandardStreams {
    int input, output, errors;  // descriptors
};

enum class ProcessGroup { kOwn, kOfParent };

// Starts arguments[0], which is searched in PATH; the array ends with a null pointer. Signals have
// their default actions and are not blocked; no other descriptor is inherited. The exit status is
// kept for waitpid(2) even if the parent of this process ignores SIGCHLD. Throws std::system_error
// with the name of the program.
pid_t Spawn(const char* const* arguments, const StandardStreams& streams, ProcessGroup group);

}  // namespace VxaCore
