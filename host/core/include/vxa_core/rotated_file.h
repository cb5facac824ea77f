// Logs of bounded size: a file that grows, and a number of older ones.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

struct RotationLimits {
    std::uint64_t most_bytes;  // of the current file; 0: it is never rotated
    int kept;                  // number of older files
    bool is_compressed;        // whether older files are
};

// An AppendFile that is renamed PATH.1 when a record would make it too large; older files are
// PATH.2 and so on, with .gz once they are compressed. At every moment at which the process can be
// killed, all records are in one of them, in order; the next object for the same path continues
// there. If the file was renamed or deleted by others, records go to a new one.
// For one thread at a time. Calls throw std::runtime_error with the path and the reason.
class VXA_CORE_API RotatedFile {
public:
    // A file that has content must begin with `head`, so that nothing is appended to a file of
    // another kind. Removes a partial last line.
    RotatedFile(const std::string& path, const std::string& head, const RotationLimits& limits);
    ~RotatedFile();
    RotatedFile(const RotatedFile&) = delete;
    RotatedFile& operator=(const RotatedFile&) = delete;

    // Appends the record, or nothing. Returns why the file could not be rotated before, or an empty
    // string: then it is larger than it should be.
    std::string Write(std::string_view record);
    // Returns when everything written is on the disk.
    void Sync();
    // Compresses the next few megabytes of PATH.1, which takes up to a tenth of a second. Returns
    // whether there are more. Without calls, rotation compresses all at once.
    bool Compress();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace VxaCore::Host
