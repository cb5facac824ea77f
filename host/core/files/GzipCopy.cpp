// A compressed copy of a file, made in steps.
#include "files/GzipCopy.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <stdexcept>
#include <vector>

#include "vxa_core/pending_file.h"

namespace VxaCore {

namespace {

constexpr std::size_t kStepBytes = 4 << 20;
constexpr std::size_t kChunkBytes = 1 << 16;
constexpr int kGzipWindowBits = 15 + 16;  // the largest window, with gzip's header: zlib.h
constexpr int kMemoryLevel = 8;           // zlib's default

}  // namespace

struct GzipCopy::State {
    State(File source_file, const std::string& path)
        : source(std::move(source_file)), target(path), input(kChunkBytes), output(kChunkBytes)
    {
        if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindowBits, kMemoryLevel,
                         Z_DEFAULT_STRATEGY) != Z_OK)
            throw std::bad_alloc();
    }
    ~State() { (void)deflateEnd(&stream); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    std::size_t ReadChunk();
    void Deflate(int flush);
    void Finish();

    const File source;
    Host::PendingFile target;
    z_stream stream{};
    std::vector<unsigned char> input, output;
    off_t position = 0;  // in the source
};

// Returns 0 at the end of the file.
std::size_t GzipCopy::State::ReadChunk()
{
    ssize_t got;
    do got = pread(source.Descriptor(), input.data(), input.size(), position);
    while (got < 0 && errno == EINTR);
    if (got < 0) ThrowErrno("cannot compress " + target.Path() + ": reading failed");
    position += got;
    return static_cast<std::size_t>(got);
}

void GzipCopy::State::Deflate(int flush)
{
    do {
        stream.next_out = output.data();
        stream.avail_out = static_cast<uInt>(output.size());
        (void)deflate(&stream, flush);
        target.Write(
            {reinterpret_cast<const char*>(output.data()), output.size() - stream.avail_out});
    } while (stream.avail_out == 0);
}

void GzipCopy::State::Finish()
{
    Deflate(Z_FINISH);
    struct stat status;
    if (fstat(source.Descriptor(), &status) == 0) {
        // A user may have left the group: the copy's group is another one then.
        const bool has_group =
            fchown(target.Descriptor(), static_cast<uid_t>(-1), status.st_gid) == 0;
        // Some file systems have no modes.
        (void)fchmod(target.Descriptor(), status.st_mode & (has_group ? 0777 : 0700));
    }
    target.Publish(Host::IfExists::kReplace);
}

GzipCopy::GzipCopy(File source, const std::string& path)
    : m_state(std::make_unique<State>(std::move(source), path))
{
}

GzipCopy::~GzipCopy() = default;

bool GzipCopy::Step()
{
    for (std::size_t done = 0; done < kStepBytes;) {
        const std::size_t length = m_state->ReadChunk();
        if (length == 0) {
            m_state->Finish();
            return false;
        }
        m_state->stream.next_in = m_state->input.data();
        m_state->stream.avail_in = static_cast<uInt>(length);
        m_state->Deflate(Z_NO_FLUSH);
        done += length;
    }
    return true;
}

const File& GzipCopy::Source() const
{
    return m_state->source;
}

}  // namespace VxaCore
