// Files that grow by whole records.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

// A file to which records are appended, by one process at a time: it is locked (flock(2)) while
// this object lives. A new file has mode 0640 less the umask, but its owner can always read and
// write it.
//
// The folder may belong to another user. On the way to it, a symbolic link is followed only if
// root or the caller owns it. The file itself must be a regular file with one link that root or
// the caller owns.
// For one thread at a time. Calls throw std::runtime_error with the path and the reason.
class VXA_CORE_API AppendFile {
public:
    explicit AppendFile(const std::string& path);
    ~AppendFile();
    AppendFile(const AppendFile&) = delete;
    AppendFile& operator=(const AppendFile&) = delete;

    // Returns the first bytes, fewer than `most_bytes` if the file is shorter.
    std::string Head(std::size_t most_bytes) const;
    // Removes what follows the last line feed: a record that a killed process or a power failure
    // cut short. Returns the number of bytes removed. Fails if that is more than 1 MiB: then it is
    // not a file of lines.
    std::uint64_t CutPartialLine();
    // Appends the record, or nothing: a part of it is removed again.
    void Write(std::string_view record);
    // Returns when everything written is on the disk.
    void Sync();
    std::uint64_t Size() const;
    // Whether the path still leads to this file: it may have been renamed or deleted.
    bool HasName() const;
    // Renames PATH to PATH plus the suffix, in place of a file of that name.
    void Rename(const std::string& suffix);

private:
    struct State;
    std::unique_ptr<State> m_state;
};

// Whether a process has the file as an AppendFile; false if there is no such file. Throws
// std::runtime_error with the path and the reason.
VXA_CORE_API bool IsAppendedTo(const std::string& path);

}  // namespace VxaCore::Host
