// The diagnostic archive writer.
#include "VxaCore/ZipOutputStream.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <vector>

#include <wx/mstream.h>
#include <wx/zipstrm.h>
#include <wx/zstream.h>

#include "archive/Limits.h"
#include "files/File.h"
#include "log/LogSink.h"
#include "text/HexEscape.h"
#include "text/Utf8.h"
#include "vxa_core/archive.h"
#include "vxa_core/sha256.h"
#include "vxa_core/text.h"

template struct SLB3::policy::NoDelete::Implementation<VxaCore::CZipOutputStream>;

namespace VxaCore {

namespace {

constexpr std::size_t kChunkBytes = 65536;
constexpr int kCompressionLevel = 6;

// Collects the zip writer's headers, which come a few bytes at a time. wxWidgets' own file
// streams report failures through the log and lose the cause.
class BufferedFile : public wxOutputStream {
public:
    BufferedFile(FileDescriptor descriptor, const std::string& path)
        : m_file(std::move(descriptor), path)
    {
        m_buffer.reserve(kChunkBytes);
    }

    // Writes what is buffered to the disk and closes the file.
    void Finish()
    {
        Try([&] {
            Flush();
            m_file.Sync();
            m_file.Close();
        });
    }

    // The first failure with the path and the reason, if there was one.
    const std::optional<Host::FileError>& Error() const { return m_error; }

protected:
    std::size_t OnSysWrite(const void* bytes, std::size_t size) override
    {
        const auto* first = static_cast<const char*>(bytes);
        Try([&] {
            if (m_buffer.size() + size > kChunkBytes) Flush();
            if (size > kChunkBytes)
                m_file.Write({first, size});
            else
                m_buffer.insert(m_buffer.end(), first, first + size);
        });
        if (!m_error) return size;
        m_lasterror = wxSTREAM_WRITE_ERROR;
        return 0;
    }

private:
    // No exception may pass through wxWidgets' frames. Does nothing after a failure.
    template <typename Function>
    void Try(Function function)
    {
        if (m_error) return;
        try {
            function();
        } catch (const std::exception& error) {
            m_error.emplace(Host::ErrorNumber(error), error.what());
        }
    }

    void Flush()
    {
        m_file.Write({m_buffer.data(), m_buffer.size()});
        m_buffer.clear();
    }

    File m_file;
    std::vector<char> m_buffer;
    std::optional<Host::FileError> m_error;
};

// wxWidgets' zip writer, made fit for a lack of memory. By itself it crashes when its compressor
// could not be created or an exception has left it in the middle of an entry: at the next call, or
// while it is destroyed.
class ZipStream : public wxZipOutputStream {
public:
    using wxZipOutputStream::wxZipOutputStream;

    // In an error state wxWidgets' destructors write nothing: the directory would need memory, and
    // the compressor would flush into a stream that is gone.
    ~ZipStream() override
    {
        if (m_compressor) m_compressor->Reset(wxSTREAM_WRITE_ERROR);
        Reset(wxSTREAM_WRITE_ERROR);
    }

    // Creates the compressor, which all entries share.
    void CreateCompressor()
    {
        wxCountingOutputStream nowhere;
        wxZipEntry entry;
        entry.SetMethod(wxZIP_METHOD_DEFLATE);
        const Buffer no_data[] = {{nullptr, 0}};
        m_compressor = static_cast<wxZlibOutputStream*>(OpenCompressor(nowhere, entry, no_data));
        const bool is_created = m_compressor->IsOk();
        CloseCompressor(m_compressor);
        if (!is_created) throw std::bad_alloc();
    }

    // Frees the compressor's buffers first.
    bool Close() override
    {
        m_compressor->Reset(wxSTREAM_WRITE_ERROR);
        m_compressor->wxZlibOutputStream::Close();
        return wxZipOutputStream::Close();
    }

private:
    wxZlibOutputStream* m_compressor = nullptr;
};

// The open file and its compressor, with a quarter of a megabyte of buffers.
struct Writer {
    Writer(FileDescriptor descriptor, const std::string& path)
        : file(std::move(descriptor), path),
          zip(std::make_unique<ZipStream>(file, kCompressionLevel, utf8))
    {
        zip->CreateCompressor();
    }

    // Copies the input to its end, and sets size and digest of what was copied; returns whether
    // all was read and written.
    bool Copy(wxInputStream& in, Host::AddedEntry& added);

    // Writes the directory. Throws std::bad_alloc.
    bool CloseZip();

    BufferedFile file;
    wxMBConvUTF8 utf8;  // wxWidgets sets up the shared one on first use, without a lock
    std::unique_ptr<ZipStream> zip;
};

bool Writer::Copy(wxInputStream& in, Host::AddedEntry& added)
{
    std::vector<char> chunk(kChunkBytes);
    Host::Sha256 digest;
    for (;;) {
        const std::size_t got = in.Read(chunk.data(), chunk.size()).LastRead();
        if (got > 0 && zip->Write(chunk.data(), got).LastWrite() != got) return false;
        added.bytes += got;
        digest.Add({chunk.data(), got});
        // An input that returns neither bytes nor an end would be read forever.
        if (in.GetLastError() != wxSTREAM_NO_ERROR || got == 0) break;
    }
    added.sha256 = digest.Hex();
    return in.GetLastError() == wxSTREAM_EOF;
}

bool Writer::CloseZip()
{
    // Close deletes each entry once written. After an exception in between, the destructor would
    // delete them again: what is left then, a few kilobytes, is leaked.
    ZipStream* const closing = zip.release();
    const bool is_closed = closing->Close();
    zip.reset(closing);
    return is_closed;
}

// Why no entry can have this name, or null. Unpacked somewhere, an archive must not write outside
// that folder, and tools for other systems take a backslash for a separator.
const char* ReasonToRefuse(std::string_view name)
{
    if (name.empty() || name.size() > kLongestName) return "it must have 1 to 4096 bytes";
    if (!Host::IsPlainUtf8(name)) return "it is not UTF-8 without NUL";
    if (std::any_of(name.begin(), name.end(), IsControl)) return "it has a control character";
    if (name.find('\\') != name.npos) return "it has a backslash";
    for (std::size_t begin = 0; begin <= name.size();) {
        const std::size_t end = std::min(name.find('/', begin), name.size());
        const std::string_view part = name.substr(begin, end - begin);
        if (part.empty() && begin == 0) return "it is absolute";
        if (part.empty() || part == "." || part == "..") return "it has an empty part, . or ..";
        begin = end + 1;
    }
    return nullptr;
}

double SecondsSince(std::chrono::steady_clock::time_point moment)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - moment).count();
}

}  // namespace

struct CZipOutputStream::Archive::State {
    State(FileDescriptor descriptor, const std::string& archive_path)
        : path(archive_path), writer(std::in_place, CheckOpen(std::move(descriptor)), path)
    {
    }

    // Errno is that of opening it.
    FileDescriptor CheckOpen(FileDescriptor descriptor) const
    {
        if (!descriptor) ThrowErrno("cannot write " + path);
        return descriptor;
    }
    void KeepError(const Host::FileError& error)
    {
        if (!first_error) first_error = error;
        last_error = error;
    }
    void KeepWriteError()
    {
        const Host::FileError unknown(EIO, "cannot write " + path + ": zip writer failed");
        KeepError(writer->file.Error().value_or(unknown));
    }
    // After an exception the zip writer may be in the middle of an entry.
    template <typename Function>
    auto BreakIfThrown(Function function)
    {
        try {
            return function();
        } catch (const std::exception&) {
            is_broken = true;
            throw;
        }
    }
    void CheckNew(const std::string& name, std::size_t size) const;
    bool Add(wxInputStream& in, bool text, const wxString& name, const wxString& comment);
    bool Write(wxInputStream& in, std::unique_ptr<wxZipEntry> entry, Host::AddedEntry& added);
    void Close();

    const std::string path;
    std::optional<Writer> writer;  // empty once closed
    std::optional<Host::FileError> first_error, last_error;
    bool is_broken = false;  // no more entries: the file cannot be written, or memory ran out
    std::vector<Host::AddedEntry> entries;
    std::chrono::steady_clock::time_point last_end = std::chrono::steady_clock::now();
};

void CZipOutputStream::Archive::State::CheckNew(const std::string& name, std::size_t size) const
{
    const auto fail = [&](int error_number, const std::string& reason) {
        throw Host::FileError(error_number, path + ": entry '" +
                                                Host::Printable(name.substr(0, 256), false) +
                                                "' is not added: " + reason);
    };
    const auto has_name = [&](const Host::AddedEntry& entry) { return entry.name == name; };
    if (const char* reason = ReasonToRefuse(name)) fail(EINVAL, reason);
    if (std::any_of(entries.begin(), entries.end(), has_name))
        fail(EEXIST, "there is one of that name");
    if (size > kMostEntryBytes)
        fail(EFBIG, "it has more than " + std::to_string(kMostEntryBytes) + " bytes");
    if (entries.size() >= kMostEntries)
        fail(ENOSPC, "there are " + std::to_string(kMostEntries) + " entries");
}

bool CZipOutputStream::Archive::State::Add(wxInputStream& in, bool text, const wxString& name,
                                           const wxString& comment)
{
    Host::AddedEntry& added = entries.emplace_back();
    added.name = ToUtf8(name);
    auto entry = std::make_unique<wxZipEntry>(name);
    entry->SetIsText(text);
    entry->SetComment(comment);
    added.is_complete = Write(in, std::move(entry), added);
    added.seconds = SecondsSince(last_end);
    last_end = std::chrono::steady_clock::now();
    return added.is_complete;
}

bool CZipOutputStream::Archive::State::Write(wxInputStream& in, std::unique_ptr<wxZipEntry> entry,
                                             Host::AddedEntry& added)
{
    if (!writer) KeepError({EBADF, "the archive is closed"});
    if (!writer || is_broken) return false;
    wxZipOutputStream& zip = *writer->zip;
    const bool is_copied = zip.PutNextEntry(entry.release()) && writer->Copy(in, added);
    const bool is_ended = zip.CloseEntry() && zip.IsOk();
    is_broken = !is_ended || writer->file.Error();
    if (is_broken)
        KeepWriteError();
    else if (!is_copied)
        KeepError({EIO, path + ": entry " + added.name + " is incomplete: its input failed"});
    return is_copied && !is_broken;
}

void CZipOutputStream::Archive::State::Close()
{
    if (!writer) return;
    const bool is_complete = !is_broken && writer->CloseZip();
    writer->file.Finish();
    if (!is_complete || writer->file.Error()) KeepWriteError();
    writer.reset();
}

CZipOutputStream::Archive::Archive(std::unique_ptr<State> state) : m_state(std::move(state)) {}

std::unique_ptr<CZipOutputStream::Archive> CZipOutputStream::Archive::Create(
    const std::string& path)
{
    // O_NONBLOCK: opening a FIFO without a reader fails instead of waiting.
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    FileDescriptor file(open(path.c_str(), kFlags, 0600));
    if (file) fcntl(file.Get(), F_SETFL, 0);
    return std::unique_ptr<Archive>(new Archive(std::make_unique<State>(std::move(file), path)));
}

std::unique_ptr<CZipOutputStream::Archive> CZipOutputStream::Archive::Create(
    const Host::PendingFile& file)
{
    FileDescriptor copy(fcntl(file.Descriptor(), F_DUPFD_CLOEXEC, 0));
    return std::unique_ptr<Archive>(
        new Archive(std::make_unique<State>(std::move(copy), file.Path())));
}

CZipOutputStream::Archive::~Archive()
{
    if (m_state->writer) LogException("archive", [this] { Close(); });
}

bool CZipOutputStream::Archive::Add(wxInputStream& in, bool text, const wxString& name,
                                    const wxString& comment)
{
    return m_state->BreakIfThrown([&] { return m_state->Add(in, text, name, comment); });
}

void CZipOutputStream::Archive::AddBytes(const std::string& name, std::string_view bytes)
{
    m_state->CheckNew(name, bytes.size());
    wxMemoryInputStream in(bytes.data(), bytes.size());
    if (!Add(in, Host::IsPlainUtf8(bytes), FromUtf8(name), wxString()))
        throw Host::FileError(*m_state->last_error);
}

const std::vector<Host::AddedEntry>& CZipOutputStream::Archive::Entries() const
{
    return m_state->entries;
}

void CZipOutputStream::Archive::Close()
{
    m_state->BreakIfThrown([&] { m_state->Close(); });
    if (m_state->first_error) throw Host::FileError(*m_state->first_error);
}

CZipOutputStream::CZipOutputStream(std::unique_ptr<Archive> archive) : m_archive(std::move(archive))
{
}

CZipOutputStream::~CZipOutputStream() = default;

bool CZipOutputStream::AddFromStream(wxInputStream& in, bool text, const wxString& name,
                                     const wxString& comment)
{
    return m_archive->Add(in, text, name, comment);
}

}  // namespace VxaCore
