#include "VxaCore/ZipOutputStream.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <vector>

#include <wx/log.h>
#include <wx/zipstrm.h>

#include "files/File.h"
#include "files/Text.h"
#include "log/LogSink.h"
#include "vxa_core/archive.h"

template struct SLB3::policy::NoDelete::Implementation<VxaCore::CZipOutputStream>;

namespace VxaCore {

namespace {

constexpr std::size_t kChunkBytes = 65536;
constexpr int kCompressionLevel = 6;

// The zip writer emits headers a few bytes at a time. wxWidgets' own file streams report
// failures through the log and forget their cause.
class FileSink : public wxOutputStream {
public:
    explicit FileSink(FileDescriptor file) : m_file(std::move(file))
    {
        m_buffer.reserve(kChunkBytes);
    }

    // All of it on the disk, where the file has one.
    bool Finish()
    {
        const bool flushed = Flush();
        if (flushed && fsync(m_file.get()) != 0 && errno != EINVAL && errno != EROFS)
            m_errno = errno;
        if (!m_file.Close() && m_errno == 0) m_errno = errno;
        return m_errno == 0;
    }

    int ErrorNumber() const { return m_errno; }

protected:
    std::size_t OnSysWrite(const void* bytes, std::size_t size) override
    {
        if (m_buffer.size() + size > kChunkBytes && !Flush()) return Refuse();
        const auto* first = static_cast<const char*>(bytes);
        if (size > kChunkBytes) return WriteFully(m_file.get(), {first, size}) ? size : Fail();
        m_buffer.insert(m_buffer.end(), first, first + size);
        return size;
    }

private:
    bool Flush()
    {
        if (m_errno == 0 && !WriteFully(m_file.get(), {m_buffer.data(), m_buffer.size()})) Fail();
        m_buffer.clear();
        return m_errno == 0;
    }

    std::size_t Fail()
    {
        m_errno = errno;
        return Refuse();
    }

    std::size_t Refuse()
    {
        m_lasterror = wxSTREAM_WRITE_ERROR;
        return 0;
    }

    FileDescriptor m_file;
    std::vector<char> m_buffer;
    int m_errno = 0;
};

// The open file and its compressor, a quarter of a megabyte of buffers.
struct Writer {
    explicit Writer(FileDescriptor file) : sink(std::move(file)), zip(sink, kCompressionLevel, utf8)
    {
    }

    // Copies to the input's end and counts what was written; false when either side fails.
    bool Copy(wxInputStream& in, std::uint64_t& bytes);

    FileSink sink;
    wxMBConvUTF8 utf8;  // the shared one is set up on first use, without a lock
    wxZipOutputStream zip;
};

bool Writer::Copy(wxInputStream& in, std::uint64_t& bytes)
{
    std::vector<char> chunk(kChunkBytes);
    for (;;) {
        const std::size_t got = in.Read(chunk.data(), chunk.size()).LastRead();
        if (got > 0 && zip.Write(chunk.data(), got).LastWrite() != got) return false;
        bytes += got;
        // Neither bytes nor an end: an input that is stuck must not hold us for ever.
        if (in.GetLastError() != wxSTREAM_NO_ERROR || got == 0)
            return in.GetLastError() == wxSTREAM_EOF;
    }
}

}  // namespace

struct CZipOutputStream::Archive::Content {
    // Throws the reason in errno for a file that could not be opened.
    Content(const std::string& archive_path, FileDescriptor file) : path(archive_path)
    {
        if (!file) throw std::runtime_error("cannot write " + path + ": " + ErrorText(errno));
        writer = std::make_unique<Writer>(std::move(file));
    }

    void Fail(const std::string& reason)
    {
        if (problem.empty()) problem = reason;
    }
    // With the file's reason, else the zip writer's.
    void FailToWrite(const FileSink& sink)
    {
        Fail("cannot write " + path + ": " +
             (sink.ErrorNumber() ? ErrorText(sink.ErrorNumber()) : "zip writer failed"));
    }

    // The time since the last call of this function, or since the archive was created.
    double TakeSeconds()
    {
        const auto now = std::chrono::steady_clock::now();
        const std::chrono::duration<double> elapsed = now - std::exchange(last_taken, now);
        return elapsed.count();
    }
    bool Write(wxInputStream& in, std::unique_ptr<wxZipEntry> entry, Host::AddedEntry& added);

    std::string path;
    std::vector<Host::AddedEntry> entries;
    std::chrono::steady_clock::time_point last_taken = std::chrono::steady_clock::now();
    std::unique_ptr<Writer> writer;  // null once closed
    std::string problem;             // the first
    bool broken = false;             // the file cannot be written: no further entries
};

CZipOutputStream::Archive::Archive(std::unique_ptr<Content> content) : m_content(std::move(content))
{
}

std::unique_ptr<CZipOutputStream::Archive> CZipOutputStream::Archive::Create(
    const std::string& path)
{
    // A FIFO without a reader fails instead of holding us up.
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    FileDescriptor file(open(path.c_str(), kFlags, 0600));
    if (file) fcntl(file.get(), F_SETFL, 0);
    return std::unique_ptr<Archive>(new Archive(std::make_unique<Content>(path, std::move(file))));
}

std::unique_ptr<CZipOutputStream::Archive> CZipOutputStream::Archive::Create(
    const Host::PendingFile& file)
{
    FileDescriptor own(fcntl(file.Descriptor(), F_DUPFD_CLOEXEC, 0));
    return std::unique_ptr<Archive>(
        new Archive(std::make_unique<Content>(file.Path(), std::move(own))));
}

CZipOutputStream::Archive::~Archive()
{
    try {
        std::string error;
        if (m_content->writer && !Close(error))
            wxLogError("archive: %s", wxString::FromUTF8(CleanUtf8(error.c_str()).c_str()));
    } catch (const std::exception& failure) {
        ReportLostRecord(failure.what());
    }
}

bool CZipOutputStream::Archive::Content::Write(wxInputStream& in, std::unique_ptr<wxZipEntry> entry,
                                               Host::AddedEntry& added)
{
    if (!writer) Fail("the archive is closed");
    if (!writer || broken) return false;
    wxZipOutputStream& zip = writer->zip;
    const bool copied = zip.PutNextEntry(entry.release()) && writer->Copy(in, added.bytes);
    const bool ended = zip.CloseEntry() && zip.IsOk();
    broken = !ended || writer->sink.ErrorNumber() != 0;
    if (broken)
        FailToWrite(writer->sink);
    else if (!copied)
        Fail(path + ": entry " + added.name + " is incomplete: its input failed");
    return copied && !broken;
}

bool CZipOutputStream::Archive::Add(wxInputStream& in, bool text, const wxString& name,
                                    const wxString& comment)
{
    Content& to = *m_content;
    Host::AddedEntry& added = to.entries.emplace_back();
    added.name = ToUtf8(name);
    auto entry = std::make_unique<wxZipEntry>(name);
    entry->SetIsText(text);
    entry->SetComment(comment);
    added.complete = to.Write(in, std::move(entry), added);
    added.seconds = to.TakeSeconds();
    return added.complete;
}

const std::vector<Host::AddedEntry>& CZipOutputStream::Archive::Entries() const
{
    return m_content->entries;
}

bool CZipOutputStream::Archive::Close(std::string& error)
{
    if (const auto writer = std::move(m_content->writer)) {
        const bool complete = writer->zip.Close();
        const bool stored = writer->sink.Finish();
        if (!complete || !stored) m_content->FailToWrite(writer->sink);
    }
    error = m_content->problem;
    return error.empty();
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
