// Reading zip archives.
#include "vxa_core/archive_reader.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

#include <wx/log.h>
#include <wx/wfstream.h>
#include <wx/zipstrm.h>

#include "archive/Limits.h"
#include "files/File.h"
#include "text/Utf8.h"
#include "vxa_core/sha256.h"

namespace VxaCore::Host {

namespace {

constexpr std::size_t kChunkBytes = 65536;
constexpr off_t kSmallestArchive = 22;  // end of central directory record, APPNOTE 4.3.16

constexpr const char* kNotAnArchive = "not a zip archive, or only part of one";

// The exceptions below carry the reasons; wxWidgets would log its own too.
using Quiet = wxLogNull;

class Reader {
public:
    explicit Reader(const std::string& path) : Reader(path, Open(path)) {}

    // Reads from the file's current position.
    Reader(const std::string& path, FileDescriptor file)
        : m_path(path), m_file(std::move(file)), m_stream(m_file.Get()), m_zip(m_stream, m_utf8)
    {
        // Finds and reads the end of central directory record, which only archives have.
        m_count = m_zip.GetTotalEntries();
        if (m_zip.GetLastError() != wxSTREAM_NO_ERROR) Fail(kNotAnArchive);
        if (m_count < 0 || static_cast<std::size_t>(m_count) > kMostEntries)
            Fail("has more than " + std::to_string(kMostEntries) + " entries", EFBIG);
    }

    // Returns null after the last entry.
    std::unique_ptr<wxZipEntry> Next()
    {
        if (m_listed == m_count) return nullptr;
        std::unique_ptr<wxZipEntry> entry(m_zip.GetNextEntry());
        if (!entry)
            Fail("damaged: only " + std::to_string(m_listed) + " of " + std::to_string(m_count) +
                 " entries can be listed");
        ++m_listed;
        return entry;
    }

    // Passes the entry's bytes to the function in pieces.
    template <typename Consume>
    void Read(const wxZipEntry& entry, std::uint64_t most_bytes, Consume consume);

    // Returns the size of the next piece, 0 at the end of the entry. `bytes` counts them all.
    std::size_t ReadPiece(const wxZipEntry& entry, std::uint64_t most_bytes, std::uint64_t& bytes,
                          char* buffer, std::size_t size);

    [[noreturn]] void Fail(const std::string& reason, int error_number = EINVAL) const
    {
        throw FileError(error_number, m_path + ": " + reason);
    }

private:
    static FileDescriptor Open(const std::string& path)
    {
        struct stat status;
        FileDescriptor file = OpenInput(path, status);
        // wxWidgets reads a file that is too short for any record as an empty archive.
        if (status.st_size < kSmallestArchive)
            throw std::runtime_error(path + ": " + kNotAnArchive);
        return file;
    }

    void CheckReadable(const wxZipEntry& entry, const std::string& what,
                       std::uint64_t most_bytes) const;

    std::string m_path;
    FileDescriptor m_file;
    wxFileInputStream m_stream;
    wxMBConvUTF8 m_utf8;
    wxZipInputStream m_zip;
    int m_count = 0;
    int m_listed = 0;
};

std::string EntryName(const wxZipEntry& entry)
{
    return ToUtf8(entry.GetName(wxPATH_UNIX));
}

void Reader::CheckReadable(const wxZipEntry& entry, const std::string& what,
                           std::uint64_t most_bytes) const
{
    if (entry.GetFlags() & wxZIP_ENCRYPTED) Fail(what + " is encrypted");
    if (entry.GetMethod() != wxZIP_METHOD_STORE && entry.GetMethod() != wxZIP_METHOD_DEFLATE)
        Fail(what + " uses an unknown compression method (" + std::to_string(entry.GetMethod()) +
             ")");
    if (entry.GetSize() < 0 || static_cast<std::uint64_t>(entry.GetSize()) > most_bytes)
        Fail(what + " has more than " + std::to_string(most_bytes) + " bytes", EFBIG);
}

std::size_t Reader::ReadPiece(const wxZipEntry& entry, std::uint64_t most_bytes,
                              std::uint64_t& bytes, char* buffer, std::size_t size)
{
    const std::string what = "entry " + EntryName(entry);
    if (bytes == 0) CheckReadable(entry, what, most_bytes);
    const auto declared = static_cast<std::uint64_t>(entry.GetSize());
    const std::size_t got = m_zip.Read(buffer, size).LastRead();
    bytes += got;
    if (bytes > declared) Fail(what + " is damaged: longer than declared");
    // wxWidgets compares size and checksum at the end of the entry.
    if (got == 0 && (m_zip.GetLastError() != wxSTREAM_EOF || bytes != declared))
        Fail(what + " is damaged");
    return got;
}

// Memory grows with what is read: the declared size of a damaged entry costs nothing.
template <typename Consume>
void Reader::Read(const wxZipEntry& entry, std::uint64_t most_bytes, Consume consume)
{
    std::vector<char> chunk(kChunkBytes);
    std::uint64_t bytes = 0;
    while (const std::size_t got = ReadPiece(entry, most_bytes, bytes, chunk.data(), chunk.size()))
        consume(std::string_view(chunk.data(), got));
}

std::uint64_t ToUnsigned(wxFileOffset size)
{
    return static_cast<std::uint64_t>(std::max<wxFileOffset>(size, 0));
}

ArchiveEntry Describe(const wxZipEntry& entry, const Reader& reader)
{
    std::string name = EntryName(entry);
    if (name.size() > kLongestName) reader.Fail("damaged: the name of an entry does not end");
    return {std::move(name), ToUnsigned(entry.GetSize()), ToUnsigned(entry.GetCompressedSize()),
            entry.IsText()};
}

std::vector<ArchiveEntry> List(Reader& reader)
{
    std::vector<ArchiveEntry> entries;
    while (const auto entry = reader.Next()) entries.push_back(Describe(*entry, reader));
    return entries;
}

}  // namespace

std::vector<ArchiveEntry> ListArchive(const std::string& path)
{
    const Quiet quiet;
    Reader reader(path);
    return List(reader);
}

std::vector<ArchiveEntry> ListArchive(const PendingFile& file)
{
    FileDescriptor copy(fcntl(file.Descriptor(), F_DUPFD_CLOEXEC, 0));
    if (!copy || lseek(copy.Get(), 0, SEEK_SET) != 0) ThrowErrno("cannot read " + file.Path());
    const Quiet quiet;
    Reader reader(file.Path(), std::move(copy));
    return List(reader);
}

std::string ReadArchiveEntry(const std::string& path, const std::string& name,
                             std::uint64_t most_bytes)
{
    const Quiet quiet;
    Reader reader(path);
    while (const auto entry = reader.Next()) {
        if (EntryName(*entry) != name) continue;
        std::string bytes;
        reader.Read(*entry, most_bytes, [&](std::string_view piece) { bytes += piece; });
        return bytes;
    }
    reader.Fail("has no entry " + name, ENOENT);
}

struct ArchiveReader::State {
    Reader reader;
    std::unique_ptr<wxZipEntry> entry;  // null before the first, after the last, and once read
    std::uint64_t bytes = 0;            // of the entry that were read in pieces
};

ArchiveReader::ArchiveReader(const std::string& path)
{
    const Quiet quiet;
    m_state.reset(new State{Reader(path), nullptr, 0});
}

ArchiveReader::~ArchiveReader() = default;

std::optional<ArchiveEntry> ArchiveReader::Next()
{
    const Quiet quiet;
    m_state->entry = m_state->reader.Next();
    m_state->bytes = 0;
    if (!m_state->entry) return std::nullopt;
    return Describe(*m_state->entry, m_state->reader);
}

std::string ArchiveReader::Sha256(std::uint64_t most_bytes)
{
    const Quiet quiet;
    const auto entry = std::move(m_state->entry);
    if (!entry) m_state->reader.Fail("no entry to read");
    Host::Sha256 digest;
    m_state->reader.Read(*entry, most_bytes, [&](std::string_view piece) { digest.Add(piece); });
    return digest.Hex();
}

std::size_t ArchiveReader::Read(char* buffer, std::size_t size, std::uint64_t most_bytes)
{
    const Quiet quiet;
    if (!m_state->entry) m_state->reader.Fail("no entry to read");
    return m_state->reader.ReadPiece(*m_state->entry, most_bytes, m_state->bytes, buffer, size);
}

}  // namespace VxaCore::Host
