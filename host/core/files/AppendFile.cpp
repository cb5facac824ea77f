// Files that grow by whole records.
#include "vxa_core/append_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "files/File.h"

namespace VxaCore::Host {

namespace {

constexpr std::uint64_t kLongestRecord = 1 << 20;
constexpr int kMostOpens = 10;  // while others keep replacing the file

// In a folder that others can change, another user's file could be one that they read or change.
void RequireOwner(const File& file, const std::string& path)
{
    struct stat status;
    if (fstat(file.Descriptor(), &status) != 0) ThrowErrno("cannot write " + path);
    if (status.st_uid != 0 && status.st_uid != geteuid())
        throw std::runtime_error("cannot write " + path + ": another user (uid " +
                                 std::to_string(status.st_uid) + ") owns it");
}

void Lock(const File& file, const std::string& path)
{
    if (flock(file.Descriptor(), LOCK_EX | LOCK_NB) == 0) return;
    if (errno != EWOULDBLOCK) ThrowErrno("cannot lock " + path);
    throw std::runtime_error("cannot write " + path + ": another process is writing it");
}

}  // namespace

struct AppendFile::State {
    explicit State(const std::string& file_path)
        : path(file_path), directory(OpenDirectoryOf(path)), file(Open())
    {
    }

    File Open() const;
    bool IsNamed(const File& opened) const;

    const std::string path;
    const FileDescriptor directory;
    File file;
};

bool AppendFile::State::IsNamed(const File& opened) const
{
    const std::string name = path.substr(path.rfind('/') + 1);
    struct stat named, status;
    return fstatat(directory.Get(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           fstat(opened.Descriptor(), &status) == 0 && named.st_dev == status.st_dev &&
           named.st_ino == status.st_ino;
}

// Until it was locked, another process can have renamed it.
File AppendFile::State::Open() const
{
    const std::string name = path.substr(path.rfind('/') + 1);
    constexpr int kFlags = O_RDWR | O_APPEND | O_CREAT;
    for (int i = 0; i < kMostOpens; ++i) {
        File opened = OpenRegularFile(directory, name, path, kFlags, 0640).value();
        RequireOwner(opened, path);
        Lock(opened, path);
        if (IsNamed(opened)) return opened;
    }
    throw std::runtime_error("cannot write " + path + ": it keeps being replaced");
}

AppendFile::AppendFile(const std::string& path) : m_state(std::make_unique<State>(path)) {}

AppendFile::~AppendFile() = default;

std::string AppendFile::Head(std::size_t most_bytes) const
{
    return m_state->file.Read(0, most_bytes);
}

std::uint64_t AppendFile::CutPartialLine()
{
    const std::uint64_t size = Size();
    const std::uint64_t from = size - std::min(size, kLongestRecord);
    const std::string tail = m_state->file.Read(from, static_cast<std::size_t>(size - from));
    const std::size_t complete = tail.rfind('\n') + 1;  // 0 without any line feed
    if (complete == 0 && from > 0)
        throw std::runtime_error("cannot write " + m_state->path +
                                 ": it does not consist of lines");
    if (complete < tail.size()) m_state->file.Truncate(static_cast<off_t>(from + complete));
    return tail.size() - complete;
}

void AppendFile::Write(std::string_view record)
{
    m_state->file.Append(record, Flush::kNo);
}

void AppendFile::Sync()
{
    m_state->file.Sync();
}

std::uint64_t AppendFile::Size() const
{
    return static_cast<std::uint64_t>(m_state->file.Size());
}

bool AppendFile::HasName() const
{
    return m_state->IsNamed(m_state->file);
}

}  // namespace VxaCore::Host
