// The file behind an archive writer.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "VxaCore/ZipOutputStream.h"
#include "vxa_core/pending_file.h"

namespace VxaCore {

namespace Host {

// What became of one entry that was added to an archive.
struct AddedEntry {
    std::string name;         // UTF-8
    std::uint64_t bytes = 0;  // read from its input and written to the archive, uncompressed
    double seconds = 0;       // since the entry before was added or the archive was created
    bool complete = false;
};

}  // namespace Host

// A zip file written from front to back: never seeks, so a pipe or device will do.
// For one thread at a time. std::bad_alloc may leave any call.
class VXA_CORE_API CZipOutputStream::Archive {
public:
    // Creates or truncates the file, readable by its owner only: it tells what the
    // machine talks to. Throws std::runtime_error with the reason.
    static std::unique_ptr<Archive> Create(const std::string& path);

    // Writes into a new file that gets its name later. Throws as above.
    static std::unique_ptr<Archive> Create(const Host::PendingFile& file);

    // Finishes the archive when Close has not; a failure then goes to the error log.
    ~Archive();
    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;

    // See CZipOutputStream::AddFromStream. An input that fails leaves an entry with
    // what could be read; the archive takes further entries, Close reports it. An entry
    // for a closed archive is lost, and the next Close says so.
    bool Add(wxInputStream& in, bool text, const wxString& name, const wxString& comment);

    // Every entry that was given to Add, in order, those that failed included.
    const std::vector<Host::AddedEntry>& Entries() const;

    // Writes the archive's directory, flushes it to the disk, closes the file and frees
    // the buffers. False and the first reason in `error` when anything failed since
    // Create, also when called again.
    bool Close(std::string& error);

private:
    struct Content;
    explicit Archive(std::unique_ptr<Content> content);
    std::unique_ptr<Content> m_content;
};

}  // namespace VxaCore
