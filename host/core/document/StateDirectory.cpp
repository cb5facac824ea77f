// The files of a state directory.
#include "document/StateDirectory.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <system_error>

#include <wx/log.h>

#include "text/Utf8.h"

namespace VxaCore {

namespace {

constexpr char kDocument[] = "document.json";
constexpr char kTemporary[] = "document.json.tmp";  // only the holder of the lock writes it
constexpr char kEvents[] = "events.jsonl";
constexpr char kLock[] = "lock";

// Returns the name of a process; empty if it cannot be read.
std::string ProcessName(long pid)
try {
    const std::string path = "/proc/" + std::to_string(pid) + "/comm";
    const std::string comm =
        File(FileDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC)), path).ReadAll();
    return comm.substr(0, comm.find('\n'));
} catch (const std::system_error&) {
    return {};
}

// Describes the holder of the lock. Its process may be in another PID namespace, or may not
// have written its number yet.
std::string DescribeHolder(const File& lock)
{
    const std::string content = lock.ReadAll();
    const long pid = std::strtol(content.c_str(), nullptr, 10);
    if (pid == getpid()) return "this process";
    if (pid <= 0 || (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH))
        return "another process";
    const std::string name = ProcessName(pid);
    return "process " + std::to_string(pid) + (name.empty() ? "" : " (" + name + ")");
}

FileDescriptor OpenStateDirectory(const std::string& path)
try {
    const FileDescriptor found = OpenDirectory(path, IfMissing::kMake);
    FileDescriptor directory(openat(found.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) throw std::runtime_error(ErrorText(errno));
    return directory;
} catch (const std::runtime_error& error) {
    throw std::runtime_error("state directory " + path + ": " + error.what());
}

// Why a file is refused, or null. If others may write to the directory, a hard link would make
// any file of its file system one of this directory's.
const char* ReasonToRefuse(const struct stat& status)
{
    if (S_ISLNK(status.st_mode)) return "it is a symbolic link";
    if (!S_ISREG(status.st_mode)) return "it is not a regular file";
    return status.st_nlink > 1 ? "it has more than one hard link" : nullptr;
}

// The next process must be able to open what this one made, whatever the umask. Some file
// systems have no modes.
void AllowOwner(int file, const struct stat& status)
{
    constexpr mode_t kOwner = S_IRUSR | S_IWUSR;
    if (status.st_uid == geteuid() && (status.st_mode & kOwner) != kOwner)
        (void)fchmod(file, (status.st_mode & 07777) | kOwner);
}

}  // namespace

StateDirectory::StateDirectory(const std::string& path)
    : m_path(path),
      m_directory(OpenStateDirectory(path)),
      m_lock(Lock()),
      m_events(Open(kEvents, O_RDWR | O_APPEND | O_CREAT).value())
{
    (void)Open(kDocument, O_RDONLY);  // refused now, before anything is written
    WriteProcessId();
    if (fsync(m_directory.Get()) != 0) ThrowErrno("cannot write " + m_path);
    RemoveUnfinishedEvent();
}

StateDirectory::~StateDirectory()
{
    // The number would name a process that no longer holds the directory.
    (void)!ftruncate(m_lock.Descriptor(), 0);
}

File StateDirectory::Lock() const
{
    File lock = Open(kLock, O_RDWR | O_CREAT).value();
    if (flock(lock.Descriptor(), LOCK_EX | LOCK_NB) == 0) return lock;
    if (errno != EWOULDBLOCK) ThrowErrno("cannot lock " + m_path + "/" + kLock);
    throw std::runtime_error("state directory " + m_path + " is in use by " + DescribeHolder(lock));
}

void StateDirectory::WriteProcessId()
{
    m_lock.Truncate(0);
    m_lock.Write(std::to_string(getpid()) + "\n");
}

// A record cut short when the process was killed or the power failed: its call never returned.
void StateDirectory::RemoveUnfinishedEvent()
{
    const std::string text = ReadEvents();
    const std::size_t complete = text.rfind('\n') + 1;  // 0 without any line feed
    m_eventsSize = static_cast<off_t>(complete);
    if (complete == text.size()) return;
    m_events.Truncate(m_eventsSize);
    wxLogWarning("%s/%s: removed an unfinished last record of %zu bytes", FromUtf8(m_path), kEvents,
                 text.size() - complete);
}

// Opens a regular file with one link, without following links or waiting for the other end of a
// FIFO. Returns nullopt if it does not exist and is not to be created.
std::optional<File> StateDirectory::Open(const char* name, int flags) const
{
    const std::string path = m_path + "/" + name;
    const auto fail = [&](const std::string& reason) {
        const bool is_read = (flags & O_ACCMODE) == O_RDONLY;
        throw std::runtime_error((is_read ? "cannot read " : "cannot write ") + path + ": " +
                                 reason);
    };
    constexpr int kCareful = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    FileDescriptor file(openat(m_directory.Get(), name, flags | kCareful, 0644));
    const int cause = errno;
    // Where a link or directory is in the way, errno misleads or open(2) succeeds.
    struct stat status;
    const bool exists = file ? fstat(file.Get(), &status) == 0
                             : fstatat(m_directory.Get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (const char* reason = exists ? ReasonToRefuse(status) : nullptr) fail(reason);
    if (!file && cause == ENOENT && !(flags & O_CREAT)) return std::nullopt;
    if (!file || !exists) fail(ErrorText(cause));
    AllowOwner(file.Get(), status);
    return File(std::move(file), path);
}

std::optional<std::string> StateDirectory::ReadDocument() const
{
    const std::optional<File> file = Open(kDocument, O_RDONLY);
    if (!file) return std::nullopt;
    return file->ReadAll();
}

// Whatever else has the name makes opening fail if it cannot be removed.
void StateDirectory::RemoveTemporary() const
{
    if (unlinkat(m_directory.Get(), kTemporary, 0) != 0 && errno == EISDIR)
        (void)unlinkat(m_directory.Get(), kTemporary, AT_REMOVEDIR);
}

void StateDirectory::ReplaceDocument(const std::string& text)
try {
    const std::string failure = "cannot replace " + m_path + "/" + kDocument;
    RemoveTemporary();  // left by a process that was killed
    File file = Open(kTemporary, O_WRONLY | O_CREAT | O_EXCL).value();
    file.Write(text);
    file.Sync();
    file.Close();
    if (renameat(m_directory.Get(), kTemporary, m_directory.Get(), kDocument) != 0)
        ThrowErrno(failure);
    if (fsync(m_directory.Get()) != 0) ThrowErrno(failure);
} catch (const std::runtime_error&) {
    RemoveTemporary();
    throw;
}

void StateDirectory::AppendEvent(const std::string& line)
try {
    m_events.Write(line);
    m_events.Sync();
    m_eventsSize += static_cast<off_t>(line.size());
} catch (const std::runtime_error& error) {
    try {
        m_events.Truncate(m_eventsSize);
    } catch (const std::runtime_error& second) {
        throw std::runtime_error(std::string(error.what()) + "; " + second.what());
    }
    throw;
}

std::string StateDirectory::ReadEvents() const
{
    return m_events.ReadAll();
}

}  // namespace VxaCore
