// The zip file that an archive writer writes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "VxaCore/ZipOutputStream.h"
#include "vxa_core/pending_file.h"

namespace VxaCore {

namespace Host {

// What became of one entry that was added to an archive.
struct AddedEntry {
    std::string name;         // UTF-8
    std::uint64_t bytes = 0;  // written to the archive, before compression
    std::string sha256;       // of these bytes, as lower-case hexadecimal digits
    double seconds = 0;       // since the previous entry ended or the archive was created
    bool is_complete = false;
};

}  // namespace Host

// A zip file written from front to back: never seeks, so a pipe or device will do. For one
// thread at a time. Any call may throw std::bad_alloc.
class VXA_CORE_API CZipOutputStream::Archive {
public:
    // Creates or truncates the file, readable by its owner only: the archive shows which hosts
    // the machine communicates with. Throws std::runtime_error with the path and the reason.
    static std::unique_ptr<Archive> Create(const std::string& path);

    // Writes into a file that is named later. Throws as above.
    static std::unique_ptr<Archive> Create(const Host::PendingFile& file);

    // Closes the archive; a failure goes to the error log.
    ~Archive();
    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;

    // See CZipOutputStream::AddFromStream. If the input fails, the entry has what could be read
    // and the archive accepts more entries. An entry for a closed archive is lost; the next
    // Close reports it.
    bool Add(wxInputStream& in, bool text, const wxString& name, const wxString& comment);

    // Adds an entry with these bytes. It is marked as text if they are UTF-8 without NUL. Throws
    // std::runtime_error with the reason, and adds nothing, if
    // - the name is not a relative path of 1 to 4096 bytes: UTF-8, without control characters
    //   and backslashes, its parts separated by "/" and none of them empty, "." or ".."
    // - an entry of that name was added before, even if it failed
    // - ArchiveReader would not read it: the bytes are more than 256 MiB, or the archive has
    //   10000 entries.
    // Throws also if it cannot be written, which Close then reports again.
    void AddBytes(const std::string& name, std::string_view bytes);

    // Every entry that was given to Add or AddBytes, in order, those that failed included.
    const std::vector<Host::AddedEntry>& Entries() const;

    // Writes the archive's directory, flushes it to the disk, closes the file and frees the
    // buffers. Throws std::runtime_error, each time it is called, with the first reason if
    // anything has failed since Create.
    void Close();

private:
    struct State;
    explicit Archive(std::unique_ptr<State> state);
    std::unique_ptr<State> m_state;
};

}  // namespace VxaCore
