#include "document/StateDirectory.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include <wx/log.h>

#include "files/Text.h"

namespace VxaCore {

namespace {

constexpr char kDocument[] = "document.json";
constexpr char kTemporary[] = "document.json.tmp";  // one is enough: only the lock's holder writes
constexpr char kEvents[] = "events.jsonl";
constexpr char kLock[] = "lock";

// Who holds the lock, as far as its file tells: the process may be in another
// namespace, or not have written its number yet.
std::string HolderName(int lock_fd)
{
    char number[24] = "";
    if (pread(lock_fd, number, sizeof number - 1, 0) < 0) return "another process";
    const long pid = std::strtol(number, nullptr, 10);
    if (pid == getpid()) return "this process";
    if (pid <= 0 || (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH))
        return "another process";
    std::string name;
    const FileDescriptor comm(
        open(("/proc/" + std::to_string(pid) + "/comm").c_str(), O_RDONLY | O_CLOEXEC));
    if (comm && ReadFully(comm.get(), name) && !name.empty())
        name = " (" + name.substr(0, name.find('\n')) + ")";
    return "process " + std::to_string(pid) + name;
}

// The next process must be able to open what this one made, whatever the umask. Some file
// systems have no modes.
void KeepForOwner(int file, const struct stat& status)
{
    constexpr mode_t kOwner = S_IRUSR | S_IWUSR;
    if (status.st_uid == geteuid() && (status.st_mode & kOwner) != kOwner)
        (void)fchmod(file, (status.st_mode & 07777) | kOwner);
}

}  // namespace

StateDirectory::StateDirectory(const std::string& path) : m_path(path)
{
    std::string problem;
    const FileDescriptor found = OpenDirectory(path, Missing::kMade, problem);
    if (!found) throw std::runtime_error("state directory " + path + ": " + problem);
    m_directory = FileDescriptor(openat(found.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!m_directory) throw std::runtime_error("state directory " + path + ": " + ErrorText(errno));
    Lock();
    m_events = OpenForWriting(kEvents, O_RDWR | O_APPEND | O_CREAT);
    (void)OpenDocument();  // refused now, before the first write
    WriteHolder();
    MendEvents();
}

StateDirectory::~StateDirectory()
{
    // A number left behind would name a process that no longer holds the directory.
    if (m_lock) (void)!ftruncate(m_lock.get(), 0);
}

void StateDirectory::Lock()
{
    FileDescriptor lock = OpenForWriting(kLock, O_RDWR | O_CREAT);
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) throw std::runtime_error(Failure("cannot lock", kLock));
        throw std::runtime_error("state directory " + m_path + " is in use by " +
                                 HolderName(lock.get()));
    }
    m_lock = std::move(lock);
}

void StateDirectory::WriteHolder()
{
    if (ftruncate(m_lock.get(), 0) != 0 ||
        !WriteFully(m_lock.get(), std::to_string(getpid()) + "\n"))
        throw std::runtime_error(Failure("cannot write", kLock));
}

// A record cut short by a kill or a power failure: its call never returned.
void StateDirectory::MendEvents()
{
    if (fsync(m_directory.get()) != 0) throw std::runtime_error(Failure("cannot write", kEvents));
    const std::string text = ReadEvents();
    const std::size_t complete = text.rfind('\n') + 1;  // 0 without any line feed
    m_eventsSize = static_cast<long long>(complete);
    if (complete == text.size()) return;
    if (ftruncate(m_events.get(), m_eventsSize) != 0)
        throw std::runtime_error(Failure("cannot mend", kEvents));
    wxLogWarning("%s/%s: removed an unfinished last record of %zu bytes",
                 wxString::FromUTF8(CleanUtf8(m_path.c_str()).c_str()), kEvents,
                 text.size() - complete);
}

std::string StateDirectory::Failure(const char* what, const char* name) const
{
    return Failure(what, name, ErrorText(errno));
}

std::string StateDirectory::Failure(const char* what, const char* name,
                                    const std::string& reason) const
{
    return std::string(what) + " " + m_path + "/" + name + ": " + reason;
}

// Where others may write to the directory, a hard link would make any file of its file
// system one of this directory's.
FileDescriptor StateDirectory::Open(const char* name, int flags, std::string& reason) const
{
    FileDescriptor file = OpenRegular(m_directory.get(), name, flags, reason);
    struct stat status;
    if (!file) return file;
    if (fstat(file.get(), &status) == 0 && status.st_nlink <= 1) {
        KeepForOwner(file.get(), status);
        return file;
    }
    reason = "it has more than one hard link";
    (void)file.Close();
    errno = EINVAL;
    return file;
}

FileDescriptor StateDirectory::OpenForWriting(const char* name, int flags) const
{
    std::string reason;
    FileDescriptor file = Open(name, flags, reason);
    if (!file) throw std::runtime_error(Failure("cannot write", name, reason));
    return file;
}

// Empty when there is none.
FileDescriptor StateDirectory::OpenDocument() const
{
    std::string reason;
    FileDescriptor file = Open(kDocument, O_RDONLY, reason);
    if (!file && errno != ENOENT)
        throw std::runtime_error(Failure("cannot read", kDocument, reason));
    return file;
}

std::string StateDirectory::ReadDocument() const
{
    std::string text;
    const FileDescriptor file = OpenDocument();
    if (!file) return text;
    if (!ReadFully(file.get(), text)) throw std::runtime_error(Failure("cannot read", kDocument));
    return text;
}

std::string StateDirectory::WriteTemporary(const std::string& text)
{
    // A kill leaves a part behind. Whatever else has the name makes opening fail, if it
    // stays.
    if (unlinkat(m_directory.get(), kTemporary, 0) != 0 && errno == EISDIR)
        (void)unlinkat(m_directory.get(), kTemporary, AT_REMOVEDIR);
    std::string reason;
    FileDescriptor file = Open(kTemporary, O_WRONLY | O_CREAT | O_EXCL, reason);
    if (!file) return Failure("cannot write", kTemporary, reason);
    if (!WriteFully(file.get(), text) || fsync(file.get()) != 0 || !file.Close())
        return Failure("cannot write", kTemporary);
    return {};
}

std::string StateDirectory::ReplaceDocument(const std::string& text)
{
    std::string problem = WriteTemporary(text);
    if (problem.empty() &&
        renameat(m_directory.get(), kTemporary, m_directory.get(), kDocument) != 0)
        problem = Failure("cannot replace", kDocument);
    if (!problem.empty()) {
        unlinkat(m_directory.get(), kTemporary, 0);
        return problem;
    }
    return fsync(m_directory.get()) == 0 ? "" : Failure("cannot replace", kDocument);
}

std::string StateDirectory::AppendEvent(const std::string& line)
{
    const auto line_size = static_cast<long long>(line.size());
    if (WriteFully(m_events.get(), line) && fdatasync(m_events.get()) == 0) {
        m_eventsSize += line_size;
        return {};
    }
    std::string problem = Failure("cannot write", kEvents);
    if (ftruncate(m_events.get(), m_eventsSize) != 0)
        problem += "; " + Failure("cannot mend", kEvents);
    return problem;
}

std::string StateDirectory::ReadEvents() const
{
    std::string text;
    if (!ReadFully(m_events.get(), text)) throw std::runtime_error(Failure("cannot read", kEvents));
    return text;
}

}  // namespace VxaCore
