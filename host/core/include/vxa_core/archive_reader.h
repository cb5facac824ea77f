// Reading zip archives, which may come from anywhere: what a file declares about itself is
// checked before memory is spent on it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VxaCore/Export.h"
#include "vxa_core/pending_file.h"

namespace VxaCore::Host {

struct ArchiveEntry {
    std::string name;            // UTF-8 without NUL, otherwise whatever the archive contains
    std::uint64_t bytes;         // as declared; only reading the entry proves it
    std::uint64_t packed_bytes;  // in the archive
    bool text;                   // the text flag set by its writer
};

// Returns the archive's directory, in its order. At most 10000 entries. Throws
// std::runtime_error with the path and the reason.
VXA_CORE_API std::vector<ArchiveEntry> ListArchive(const std::string& path);

// The same for an archive that was written into the file and closed.
VXA_CORE_API std::vector<ArchiveEntry> ListArchive(const PendingFile& file);

// Returns the bytes of the first entry of that name, complete and with the right checksum;
// never more than `most_bytes`. Throws as above; also if no entry has that name.
VXA_CORE_API std::string ReadArchiveEntry(const std::string& path, const std::string& name,
                                          std::uint64_t most_bytes);

// Reads an archive once, entry by entry. For one thread at a time.
class VXA_CORE_API ArchiveReader {
public:
    // Throws as ListArchive does.
    explicit ArchiveReader(const std::string& path);
    ~ArchiveReader();
    ArchiveReader(const ArchiveReader&) = delete;
    ArchiveReader& operator=(const ArchiveReader&) = delete;

    // Moves to the next entry and returns it; nullopt after the last. Throws as above.
    std::optional<ArchiveEntry> Next();

    // Returns the SHA-256 of the bytes of the entry that Next returned last, as lower-case
    // hexadecimal digits; it is complete and has the right checksum. Call it once per entry.
    // Throws as above, and if the entry has more than `most_bytes`.
    std::string Sha256(std::uint64_t most_bytes);

    // Stores the next bytes of the entry that Next returned last in the buffer and returns how
    // many; 0 at its end, which is only reached if they are complete and have the right checksum.
    // Throws as Sha256 does.
    std::size_t Read(char* buffer, std::size_t size, std::uint64_t most_bytes);

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace VxaCore::Host
