// Files that get their name when they are complete.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>

#include "VxaCore/Export.h"
#include "vxa_core/files.h"

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

    // Appends the bytes. Throws std::system_error with the path and the reason.
    void Write(std::string_view bytes);

    // Flushes the content to the disk, names the file, and flushes the folder (if it can be
    // read). With Flush::kNot, only names it: a power failure can then bring back the replaced
    // file or, on some file systems, leave an empty one. With kFail, a file that has the name is
    // never replaced, even one that appeared a moment ago; with kReplace, only a regular file is.
    // Throws std::runtime_error with the path and the reason. Call it once.
    void Publish(IfExists if_exists, Flush flush = Flush::kToDisk);

private:
    struct State;
    std::unique_ptr<State> m_state;
};

// Makes `path` a regular file with this content and mode, in place of the one of that name if
// there is one: readers find either file, whole. For files that are replaced often: it is not
// flushed to the disk. Throws std::runtime_error with the path and the reason.
VXA_CORE_API void ReplaceFile(const std::string& path, std::string_view content, mode_t mode);

// Removes the regular file `path`, if there is one. On the way to it, a symbolic link is followed
// only if root or the caller owns it. Throws std::runtime_error with the path and the reason.
VXA_CORE_API void RemoveFile(const std::string& path);

}  // namespace VxaCore::Host
