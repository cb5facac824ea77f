#include "vxa_core/pending_file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

#include "files/File.h"

namespace VxaCore::Host {

namespace {

constexpr int kMostParts = 100;  // names that others may have taken before we give up
constexpr mode_t kMode = 0600;

bool IsSameFile(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Gives the open file, which may have no name yet, one more name.
bool Link(int file, int folder, const char* name)
{
    if (linkat(file, "", folder, name, AT_EMPTY_PATH) == 0) return true;
    if (errno == EEXIST) return false;
    // The call above is for root only.
    const std::string open_file = "/proc/self/fd/" + std::to_string(file);
    return linkat(AT_FDCWD, open_file.c_str(), folder, name, AT_SYMLINK_FOLLOW) == 0;
}

// Where a file system cannot rename without replacing, a second name must do.
bool RenameKeeping(int folder, const char* from, const char* to)
{
    if (renameat2(folder, from, folder, to, RENAME_NOREPLACE) == 0) return true;
    return (errno == EINVAL || errno == ENOSYS) && linkat(folder, from, folder, to, 0) == 0 &&
           unlinkat(folder, from, 0) == 0;
}

// Removes what a killed process left behind: a file of ours that nobody has locked. Anything
// else stays.
bool RemoveStale(int folder, const char* name)
{
    struct stat status;
    if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode) ||
        status.st_uid != geteuid() || status.st_nlink != 1)
        return false;
    std::string reason;
    const FileDescriptor file = OpenRegular(folder, name, O_RDWR, reason);
    return file && flock(file.get(), LOCK_EX | LOCK_NB) == 0 && unlinkat(folder, name, 0) == 0;
}

}  // namespace

struct PendingFile::State {
    std::string path;
    std::string name;       // in the folder
    FileDescriptor folder;  // for names only: it need not be readable
    FileDescriptor file;
    std::string part;  // the name until Publish; empty where there is none

    void OpenFolder();
    void Create();
    bool CreatePart(int number);
    bool LinkPart(int number);
    // Tries the call with the parts' names until one is free.
    bool TakePart(bool (State::*take)(int number));
    bool Exists(const std::string& some_name) const;
    // Whether the name is that of this file.
    bool Has(const std::string& some_name) const;
    bool Name(Existing existing);
    bool Replace();
    // A name that fills the file system's limit loses its end.
    std::string PartName(int number) const
    {
        const std::string suffix = ".part" + std::to_string(number);
        return name.substr(0, NAME_MAX - suffix.size()) + suffix;
    }
    std::string Failure() const;
    void RemovePart();
};

void PendingFile::State::OpenFolder()
{
    const std::size_t slash = path.rfind('/');
    name = path.substr(slash + 1);  // all of it without a slash
    const std::string where = slash == path.npos ? "." : path.substr(0, slash + 1);
    std::string problem = ErrorText(EISDIR);
    if (!name.empty()) folder = OpenDirectory(where, Missing::kRefused, problem);
    if (!folder) throw std::runtime_error("cannot write " + path + ": " + problem);
}

bool PendingFile::State::Exists(const std::string& some_name) const
{
    struct stat status;
    return fstatat(folder.get(), some_name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool PendingFile::State::Has(const std::string& some_name) const
{
    struct stat named, opened;
    return fstatat(folder.get(), some_name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           fstat(file.get(), &opened) == 0 && IsSameFile(named, opened);
}

// The lock shows others that the file is in use. Between making and locking it, one of them
// can have taken it for stale.
bool PendingFile::State::CreatePart(int number)
{
    const std::string part_name = PartName(number);
    constexpr int kFlags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    file = FileDescriptor(openat(folder.get(), part_name.c_str(), kFlags, kMode));
    if (!file) return false;
    (void)flock(file.get(), LOCK_EX | LOCK_NB);
    if (Has(part_name)) return true;
    errno = EEXIST;
    return false;
}

bool PendingFile::State::LinkPart(int number)
{
    return Link(file.get(), folder.get(), PartName(number).c_str());
}

bool PendingFile::State::TakePart(bool (State::*take)(int number))
{
    for (int number = 1; number <= kMostParts; ++number) {
        if ((this->*take)(number)) {
            part = PartName(number);
            return true;
        }
        if (errno != EEXIST) return false;
        if (RemoveStale(folder.get(), PartName(number).c_str())) --number;
    }
    errno = EEXIST;
    return false;
}

void PendingFile::State::Create()
{
    for (int number = 1; number <= kMostParts && Exists(PartName(number)); ++number)
        (void)RemoveStale(folder.get(), PartName(number).c_str());
    file = FileDescriptor(openat(folder.get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, kMode));
    if (file)
        (void)flock(file.get(), LOCK_EX | LOCK_NB);
    else if (!TakePart(&State::CreatePart))
        throw std::runtime_error("cannot write " + path + ": " + ErrorText(errno));
    // The umask may have taken even the owner's access. Some file systems have no modes.
    (void)fchmod(file.get(), kMode);
}

std::string PendingFile::State::Failure() const
{
    const std::string reason = ErrorText(errno);
    if (part.empty()) return "cannot name the finished file " + path + ": " + reason;
    return "cannot rename " + path.substr(0, path.size() - name.size()) + part + " to " + path +
           ": " + reason;
}

// Over a name that is taken, a file without one must go through a name that is free.
bool PendingFile::State::Replace()
{
    struct stat status;
    if (fstatat(folder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        !S_ISREG(status.st_mode)) {
        errno = EEXIST;
        return false;
    }
    if (part.empty() && !TakePart(&State::LinkPart)) return false;
    return renameat(folder.get(), part.c_str(), folder.get(), name.c_str()) == 0;
}

bool PendingFile::State::Name(Existing existing)
{
    if (part.empty() && Link(file.get(), folder.get(), name.c_str())) return true;
    if (existing == Existing::kReplaced && (errno == EEXIST || !part.empty())) return Replace();
    return !part.empty() && RenameKeeping(folder.get(), part.c_str(), name.c_str());
}

void PendingFile::State::RemovePart()
{
    // What somebody has put in its place is theirs.
    if (!part.empty() && Has(part)) (void)unlinkat(folder.get(), part.c_str(), 0);
}

PendingFile::PendingFile(const std::string& path) : m_state(std::make_unique<State>())
{
    m_state->path = path;
    m_state->OpenFolder();
    m_state->Create();
}

PendingFile::~PendingFile()
{
    m_state->RemovePart();
}

const std::string& PendingFile::Path() const
{
    return m_state->path;
}

int PendingFile::Descriptor() const
{
    return m_state->file.get();
}

std::string PendingFile::Publish(Existing existing)
{
    State& state = *m_state;
    const FileDescriptor readable(
        openat(state.folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fsync(state.file.get()) != 0 || !state.Name(existing)) return state.Failure();
    if (!state.Has(state.name))
        return state.path + " was replaced by something else at the moment it was written";
    state.part.clear();
    // The file has its name now, and a failure would tell the opposite.
    if (readable) (void)fsync(readable.get());
    return {};
}

}  // namespace VxaCore::Host
