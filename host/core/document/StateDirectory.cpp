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
    if (!directory) throw Host::FileError(errno, ErrorText(errno));
    return directory;
} catch (const std::runtime_error& error) {
    throw Host::FileError(Host::ErrorNumber(error),
                          "state directory " + path + ": " + error.what());
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
    throw Host::FileError(EWOULDBLOCK,
                          "state directory " + m_path + " is in use by " + DescribeHolder(lock));
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
    if (complete == text.size()) return;
    m_events.Truncate(static_cast<off_t>(complete));
    wxLogWarning("%s/%s: removed an unfinished last record of %zu bytes", FromUtf8(m_path), kEvents,
                 text.size() - complete);
}

std::optional<File> StateDirectory::Open(const char* name, int flags) const
{
    return OpenRegularFile(m_directory, name, m_path + "/" + name, flags, 0644);
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
{
    m_events.Append(line, Host::Flush::kToDisk);
}

std::string StateDirectory::ReadEvents() const
{
    return m_events.ReadAll();
}

}  // namespace VxaCore
