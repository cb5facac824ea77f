// The diagnostic archive writer.
#include "VxaCore/ZipOutputStream.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <vector>

#include <wx/zipstrm.h>

#include "files/File.h"
#include "log/LogSink.h"
#include "text/Utf8.h"
#include "vxa_core/archive.h"

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

    // The first failure with the path and the reason; empty if there was none.
    const std::string& Error() const { return m_error; }

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
        if (m_error.empty()) return size;
        m_lasterror = wxSTREAM_WRITE_ERROR;
        return 0;
    }

private:
    // No exception may pass through wxWidgets' frames. Does nothing after a failure.
    template <typename Function>
    void Try(Function function)
    {
        if (!m_error.empty()) return;
        try {
            function();
        } catch (const std::exception& error) {
            m_error = error.what();
        }
    }

    void Flush()
    {
        m_file.Write({m_buffer.data(), m_buffer.size()});
        m_buffer.clear();
    }

    File m_file;
    std::vector<char> m_buffer;
    std::string m_error;
};

// The open file and its compressor, with a quarter of a megabyte of buffers.
struct Writer {
    Writer(FileDescriptor descriptor, const std::string& path)
        : file(std::move(descriptor), path), zip(file, kCompressionLevel, utf8)
    {
    }

    // Copies the input to its end and counts the bytes; returns whether all was read and written.
    bool Copy(wxInputStream& in, std::uint64_t& bytes);

    BufferedFile file;
    wxMBConvUTF8 utf8;  // wxWidgets sets up the shared one on first use, without a lock
    wxZipOutputStream zip;
};

bool Writer::Copy(wxInputStream& in, std::uint64_t& bytes)
{
    std::vector<char> chunk(kChunkBytes);
    for (;;) {
        const std::size_t got = in.Read(chunk.data(), chunk.size()).LastRead();
        if (got > 0 && zip.Write(chunk.data(), got).LastWrite() != got) return false;
        bytes += got;
        // An input that returns neither bytes nor an end would be read forever.
        if (in.GetLastError() != wxSTREAM_NO_ERROR || got == 0)
            return in.GetLastError() == wxSTREAM_EOF;
    }
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
    void KeepError(const std::string& error)
    {
        if (first_error.empty()) first_error = error;
    }
    void KeepWriteError()
    {
        const std::string& reason = writer->file.Error();
        KeepError(reason.empty() ? "cannot write " + path + ": zip writer failed" : reason);
    }
    bool Write(wxInputStream& in, std::unique_ptr<wxZipEntry> entry, Host::AddedEntry& added);

    const std::string path;
    std::optional<Writer> writer;  // empty once closed
    std::string first_error;
    bool is_broken = false;  // the file cannot be written: no more entries
    std::vector<Host::AddedEntry> entries;
    std::chrono::steady_clock::time_point last_end = std::chrono::steady_clock::now();
};

bool CZipOutputStream::Archive::State::Write(wxInputStream& in, std::unique_ptr<wxZipEntry> entry,
                                             Host::AddedEntry& added)
{
    if (!writer) KeepError("the archive is closed");
    if (!writer || is_broken) return false;
    wxZipOutputStream& zip = writer->zip;
    const bool is_copied = zip.PutNextEntry(entry.release()) && writer->Copy(in, added.bytes);
    const bool is_ended = zip.CloseEntry() && zip.IsOk();
    is_broken = !is_ended || !writer->file.Error().empty();
    if (is_broken)
        KeepWriteError();
    else if (!is_copied)
        KeepError(path + ": entry " + added.name + " is incomplete: its input failed");
    return is_copied && !is_broken;
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
    Host::AddedEntry& added = m_state->entries.emplace_back();
    added.name = ToUtf8(name);
    auto entry = std::make_unique<wxZipEntry>(name);
    entry->SetIsText(text);
    entry->SetComment(comment);
    added.is_complete = m_state->Write(in, std::move(entry), added);
    added.seconds = SecondsSince(m_state->last_end);
    m_state->last_end = std::chrono::steady_clock::now();
    return added.is_complete;
}

const std::vector<Host::AddedEntry>& CZipOutputStream::Archive::Entries() const
{
    return m_state->entries;
}

void CZipOutputStream::Archive::Close()
{
    if (auto& writer = m_state->writer) {
        const bool is_complete = writer->zip.Close();
        writer->file.Finish();
        if (!is_complete || !writer->file.Error().empty()) m_state->KeepWriteError();
        writer.reset();
    }
    if (!m_state->first_error.empty()) throw std::runtime_error(m_state->first_error);
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
