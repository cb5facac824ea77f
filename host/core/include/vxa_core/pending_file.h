// Files that get their name when they are complete.
#pragma once

#include <memory>
#include <string>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

// What Publish does if a file has the name already.
enum class IfExists { kReplace, kFail };

// A new file in the folder of `path`, readable by its owner only. Write it through its
// descriptor, then name it `path` with Publish.
//
// The folder may belong to another user, who can rename, replace and link there at will: folder
// and file are opened once and never again by name, so nothing outside the folder is touched
// and the content is what was written here. On the way to the folder, a symbolic link is
// followed only if root or the caller owns it. Where the file system supports O_TMPFILE, the
// file has no name until Publish, so nothing is left if the process is killed. Elsewhere it is
// PATH.part1 (or the next free number) until then, and the next PendingFile for the same path
// removes those that killed processes left.
// For one thread at a time. Any call may throw std::bad_alloc.
class VXA_CORE_API PendingFile {
public:
    // Throws std::runtime_error with the path and the reason.
    explicit PendingFile(const std::string& path);
    // Removes the file if it was not published.
    ~PendingFile();
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    const std::string& Path() const;
    // Open for reading and writing during the lifetime of this object.
    int Descriptor() const;

    // Flushes the content to the disk, names the file, and flushes the folder (if it can be
    // read). With kFail, a file that has the name is never replaced, even one that appeared a
    // moment ago; with kReplace, only a regular file is. Throws std::runtime_error with the path
    // and the reason. Call it once.
    void Publish(IfExists if_exists);

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace VxaCore::Host
