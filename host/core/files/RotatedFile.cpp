// Logs of bounded size: a file that grows, and a number of older ones.
#include "vxa_core/rotated_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "files/File.h"
#include "files/GzipCopy.h"
#include "vxa_core/append_file.h"

namespace VxaCore::Host {

namespace {

constexpr int kMostNumbers = 10000;  // of older files that are removed because fewer are kept now

const char* const kSuffixes[] = {"", ".gz"};

}  // namespace

struct RotatedFile::State {
    State(const std::string& file_path, std::string first_bytes, const RotationLimits& file_limits)
        : path(file_path),
          head(std::move(first_bytes)),
          limits(file_limits),
          directory(OpenDirectoryOf(path))
    {
        Open();
    }

    void Open();
    void OpenIfMoved();
    void Rotate();
    void MakeRoom() const;
    void Rename(const std::string& from, const std::string& to) const;
    bool Exists(int number) const;
    void Remove(int number) const;
    void RemoveNumbersAbove(int number) const;
    std::unique_ptr<GzipCopy> StartCompressing() const;
    void RemoveCompressed(const File& compressed) const;
    bool Compress();

    std::string Name() const { return path.substr(path.rfind('/') + 1); }
    static std::string Numbered(const std::string& base, int number)
    {
        return base + "." + std::to_string(number);
    }
    [[noreturn]] void ThrowCannotRotate() const { ThrowErrno("cannot rotate " + path); }

    const std::string path;
    const std::string head;
    const RotationLimits limits;
    const FileDescriptor directory;
    std::unique_ptr<AppendFile> file;  // null while it cannot be opened
    std::unique_ptr<GzipCopy> copy;    // of PATH.1, while it is being compressed
    bool has_uncompressed = true;      // perhaps, since the start or the latest rotation
};

void RotatedFile::State::Open()
{
    file.reset();
    auto opened = std::make_unique<AppendFile>(path);
    const std::string begin = opened->Head(head.size());
    if (begin != head.substr(0, begin.size()))
        throw std::runtime_error("cannot write " + path + ": it exists and does not begin with '" +
                                 head + "'");
    (void)opened->CutPartialLine();
    file = std::move(opened);
}

// Others may have renamed or deleted the file.
void RotatedFile::State::OpenIfMoved()
{
    if (!file || !file->HasName()) Open();
}

bool RotatedFile::State::Exists(int number) const
{
    const auto exists = [&](const char* suffix) {
        struct stat status;
        const std::string name = Numbered(Name(), number) + suffix;
        return fstatat(directory.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    };
    return std::any_of(std::begin(kSuffixes), std::end(kSuffixes), exists);
}

void RotatedFile::State::Remove(int number) const
{
    for (const char* suffix : kSuffixes) {
        const std::string name = Numbered(Name(), number) + suffix;
        if (unlinkat(directory.Get(), name.c_str(), 0) != 0 && errno != ENOENT)
            ThrowErrno("cannot remove " + Numbered(path, number) + suffix);
    }
}

void RotatedFile::State::RemoveNumbersAbove(int number) const
{
    for (int next = number + 1; next < kMostNumbers && Exists(next); ++next) Remove(next);
}

void RotatedFile::State::Rename(const std::string& from, const std::string& to) const
{
    if (renameat(directory.Get(), from.c_str(), directory.Get(), to.c_str()) != 0 &&
        errno != ENOENT)
        ThrowCannotRotate();
}

// Makes the number 1 free. A gap, which a killed process left, is filled, so that no file is
// renamed over another or removed too early.
void RotatedFile::State::MakeRoom() const
{
    int gap = 1;
    while (gap < limits.kept && Exists(gap)) ++gap;
    Remove(gap);
    for (; gap > 1; --gap)
        for (const char* suffix : kSuffixes)
            Rename(Numbered(Name(), gap - 1) + suffix, Numbered(Name(), gap) + suffix);
}

void RotatedFile::State::Rotate()
{
    try {
        while (Compress()) continue;
    } catch (const std::runtime_error&) {
        // It stays as it is: a full disk has room again only once the oldest file is removed.
    }
    RemoveNumbersAbove(limits.kept);
    if (limits.kept == 0) {
        if (unlinkat(directory.Get(), Name().c_str(), 0) != 0) ThrowCannotRotate();
    } else {
        MakeRoom();
        Rename(Name(), Numbered(Name(), 1));
    }
    has_uncompressed = true;
    Open();
}

// Returns null if there is nothing to compress. What has the name but is not a log of this kind
// stays as it is.
std::unique_ptr<GzipCopy> RotatedFile::State::StartCompressing() const
{
    const std::string old_path = Numbered(path, 1);
    std::optional<File> old = OpenRegularFile(directory, Numbered(Name(), 1), old_path, O_RDONLY);
    if (!old) return nullptr;
    old->RequireOwner();
    if (old->Read(0, head.size()) != head) return nullptr;
    return std::make_unique<GzipCopy>(std::move(*old), old_path + ".gz");
}

// Unless another file has its name by now.
void RotatedFile::State::RemoveCompressed(const File& compressed) const
{
    const std::string name = Numbered(Name(), 1);
    if (compressed.IsNamed(directory, name)) (void)unlinkat(directory.Get(), name.c_str(), 0);
}

bool RotatedFile::State::Compress()
{
    if (!limits.is_compressed || !has_uncompressed) return false;
    has_uncompressed = false;  // also after a failure, which would repeat itself
    std::unique_ptr<GzipCopy> working = copy ? std::move(copy) : StartCompressing();
    if (!working) return false;
    if (!working->Step()) {
        RemoveCompressed(working->Source());
        return false;
    }
    copy = std::move(working);
    return has_uncompressed = true;
}

RotatedFile::RotatedFile(const std::string& path, const std::string& head,
                         const RotationLimits& limits)
    : m_state(std::make_unique<State>(path, head, limits))
{
}

RotatedFile::~RotatedFile() = default;

std::string RotatedFile::Write(std::string_view record)
{
    State& state = *m_state;
    std::string failure;
    state.OpenIfMoved();
    const std::uint64_t size = state.file->Size(), most = state.limits.most_bytes;
    if (most > 0 && size > 0 && size + record.size() > most) {
        try {
            state.Rotate();
        } catch (const std::runtime_error& error) {
            failure = error.what();
        }
    }
    state.OpenIfMoved();
    state.file->Write(record);
    return failure;
}

void RotatedFile::Sync()
{
    if (m_state->file) m_state->file->Sync();
}

bool RotatedFile::Compress()
{
    return m_state->Compress();
}

}  // namespace VxaCore::Host
