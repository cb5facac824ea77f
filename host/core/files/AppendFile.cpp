// Files that grow by whole records.
#include "vxa_core/append_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "files/File.h"

namespace VxaCore::Host {

namespace {

constexpr std::uint64_t kLongestRecord = 1 << 20;
constexpr int kMostLocks = 5;
constexpr int kMostOpens = 10;  // while others keep replacing the file

// IsAppendedTo holds the lock for a moment.
void Lock(const File& file, const std::string& path)
{
    for (int i = 0; i < kMostLocks; ++i) {
        if (flock(file.Descriptor(), LOCK_EX | LOCK_NB) == 0) return;
        if (errno != EWOULDBLOCK) ThrowErrno("cannot lock " + path);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    throw FileError(EWOULDBLOCK, "cannot write " + path + ": another process is writing it");
}

}  // namespace

struct AppendFile::State {
    explicit State(const std::string& file_path)
        : path(file_path),
          name(path.substr(path.rfind('/') + 1)),
          directory(OpenDirectoryOf(path)),
          file(Open())
    {
    }

    File Open() const;

    const std::string path;
    const std::string name;  // in the directory
    const FileDescriptor directory;
    File file;
};

// Until it was locked, another process can have renamed it.
File AppendFile::State::Open() const
{
    constexpr int kFlags = O_RDWR | O_APPEND | O_CREAT;
    for (int i = 0; i < kMostOpens; ++i) {
        File opened = OpenRegularFile(directory, name, path, kFlags, 0640).value();
        opened.RequireOwner();
        Lock(opened, path);
        if (opened.IsNamed(directory, name)) return opened;
    }
    throw FileError(EAGAIN, "cannot write " + path + ": it keeps being replaced");
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
    m_state->file.Append(record, Flush::kNot);
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
    return m_state->file.IsNamed(m_state->directory, m_state->name);
}

void AppendFile::Rename(const std::string& suffix)
{
    const int directory = m_state->directory.Get();
    const std::string new_name = m_state->name + suffix;
    if (renameat(directory, m_state->name.c_str(), directory, new_name.c_str()) != 0)
        ThrowErrno("cannot rename " + m_state->path + " to " + m_state->path + suffix);
}

bool IsAppendedTo(const std::string& path)
{
    const std::string name = path.substr(path.rfind('/') + 1);
    const auto file = OpenRegularFile(OpenDirectoryOf(path), name, path, O_RDONLY);
    return file && flock(file->Descriptor(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

}  // namespace VxaCore::Host
