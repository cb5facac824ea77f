// A file that gets its name when it is complete.
#pragma once

#include <memory>
#include <string>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

// What happens to a file that already has the name.
enum class Existing { kReplaced, kKept };

// A new file in the folder of `path`, readable by its owner only, to be written through
// its descriptor and then named `path`.
//
// The folder may belong to somebody else, who renames, replaces and links there at will:
// folder and file are opened once and never again by name, so nothing outside the folder
// is touched and the content is what was written here. On the way to the folder, a symbolic
// link is followed only if root or the caller owns it. Where the file system can do it,
// the file has no name until Publish, so nothing is left behind if the process is killed.
// Elsewhere it is PATH.part1 (or the next free number) until then, and the next
// PendingFile for the same path removes those that killed processes left behind.
// For one thread at a time; std::bad_alloc may leave any call.
class VXA_CORE_API PendingFile {
public:
    // Throws std::runtime_error with the reason.
    explicit PendingFile(const std::string& path);
    // Without Publish the file is gone.
    ~PendingFile();
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    const std::string& Path() const;
    // Open for reading and writing as long as this lives.
    int Descriptor() const;

    // Names the file: its content is on the disk before, and the name when the call returns
    // (in a folder that cannot be read, when the system gets to it). With kKept, fails when
    // something has the name already, even if that appeared a moment ago; with kReplaced, only
    // a regular file is replaced. Empty for success, else what was wrong. Call it once.
    std::string Publish(Existing existing);

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace VxaCore::Host
