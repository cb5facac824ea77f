// Files that get their name when they are complete.
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

constexpr int kMostParts = 100;  // names in use by others that are tried
constexpr mode_t kMode = 0600;

bool IsSameFile(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Removes a file of ours that nothing has locked, which a killed process left; returns whether
// it did.
bool RemoveStale(int folder, const char* name)
{
    struct stat status;
    if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode) ||
        status.st_uid != geteuid() || status.st_nlink != 1)
        return false;
    constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const FileDescriptor file(openat(folder, name, kFlags));
    return file && flock(file.Get(), LOCK_EX | LOCK_NB) == 0 && unlinkat(folder, name, 0) == 0;
}

std::string NameIn(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

}  // namespace

struct PendingFile::State {
    explicit State(const std::string& file_path)
        : path(file_path), name(NameIn(path)), folder(OpenDirectoryOf(path))
    {
    }

    const std::string path;
    const std::string name;       // in the folder
    const FileDescriptor folder;  // for names only: it need not be readable
    FileDescriptor file;
    std::string part;  // the name until Publish; empty if there is none

    void Create();
    void Name(IfExists if_exists);
    void FlushContent() const;
    void RemovePart() const;
    bool Has(const std::string& some_name) const;

private:
    // These return false if the name is taken, and throw other failures.
    bool CreatePart(const std::string& part_name);
    bool Link(const std::string& new_name) const;
    bool RenamePart() const;
    bool ReplaceExisting();

    // Calls the function with the names for parts until it returns true.
    bool TakePart(bool (State::*take)(const std::string& part_name));
    bool Exists(const std::string& some_name) const;
    // The end of a name as long as the file system allows makes room for the suffix.
    std::string PartName(int number) const
    {
        const std::string suffix = ".part" + std::to_string(number);
        return name.substr(0, NAME_MAX - suffix.size()) + suffix;
    }
    bool LinkPart(const std::string& part_name) { return Link(part_name); }
    [[noreturn]] void ThrowCannotWrite() const { ThrowErrno("cannot write " + path); }
    [[noreturn]] void ThrowCannotName() const;
};

void PendingFile::State::ThrowCannotName() const
{
    const int cause = errno;
    const std::string part_path = path.substr(0, path.size() - name.size()) + part;
    const std::string failure = part.empty() ? "cannot name the finished file " + path
                                             : "cannot rename " + part_path + " to " + path;
    errno = cause;
    ThrowErrno(failure);
}

bool PendingFile::State::Exists(const std::string& some_name) const
{
    struct stat status;
    return fstatat(folder.Get(), some_name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

// Whether the name belongs to this file.
bool PendingFile::State::Has(const std::string& some_name) const
{
    struct stat named, opened;
    return fstatat(folder.Get(), some_name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           fstat(file.Get(), &opened) == 0 && IsSameFile(named, opened);
}

// Gives the file, which may have no name yet, one more.
bool PendingFile::State::Link(const std::string& new_name) const
{
    if (linkat(file.Get(), "", folder.Get(), new_name.c_str(), AT_EMPTY_PATH) == 0) return true;
    if (errno == EEXIST) return false;
    // AT_EMPTY_PATH needs CAP_DAC_READ_SEARCH; open(2), O_TMPFILE, describes this way.
    const std::string open_file = "/proc/self/fd/" + std::to_string(file.Get());
    if (linkat(AT_FDCWD, open_file.c_str(), folder.Get(), new_name.c_str(), AT_SYMLINK_FOLLOW) == 0)
        return true;
    if (errno != EEXIST) ThrowCannotName();
    return false;
}

// The lock shows other processes that the file is in use. Between creating and locking it, one
// of them can have removed it as stale.
bool PendingFile::State::CreatePart(const std::string& part_name)
{
    constexpr int kFlags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    file = FileDescriptor(openat(folder.Get(), part_name.c_str(), kFlags, kMode));
    if (!file && errno != EEXIST) ThrowCannotWrite();
    if (!file) return false;
    (void)flock(file.Get(), LOCK_EX | LOCK_NB);
    return Has(part_name);
}

bool PendingFile::State::TakePart(bool (State::*take)(const std::string& part_name))
{
    for (int number = 1; number <= kMostParts; ++number) {
        const std::string part_name = PartName(number);
        if ((this->*take)(part_name)) {
            part = part_name;
            return true;
        }
        if (RemoveStale(folder.Get(), part_name.c_str())) --number;
    }
    return false;
}

void PendingFile::State::Create()
{
    for (int number = 1; number <= kMostParts && Exists(PartName(number)); ++number)
        (void)RemoveStale(folder.Get(), PartName(number).c_str());
    file = FileDescriptor(openat(folder.Get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, kMode));
    if (file) {
        (void)flock(file.Get(), LOCK_EX | LOCK_NB);
    } else if (!TakePart(&State::CreatePart)) {
        errno = EEXIST;
        ThrowCannotWrite();
    }
    // The umask may have removed even the owner's access. Some file systems have no modes.
    (void)fchmod(file.Get(), kMode);
}

// Where the file system cannot rename without replacing, links instead.
bool PendingFile::State::RenamePart() const
{
    const char *const from = part.c_str(), *const to = name.c_str();
    if (renameat2(folder.Get(), from, folder.Get(), to, RENAME_NOREPLACE) == 0) return true;
    if ((errno == EINVAL || errno == ENOSYS) &&
        linkat(folder.Get(), from, folder.Get(), to, 0) == 0 &&
        unlinkat(folder.Get(), from, 0) == 0)
        return true;
    if (errno != EEXIST) ThrowCannotName();
    return false;
}

// A file without a name first gets one that is free, because linkat(2) does not replace.
bool PendingFile::State::ReplaceExisting()
{
    struct stat status;
    const bool exists = fstatat(folder.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && !S_ISREG(status.st_mode))
        throw std::runtime_error("cannot replace " + path + ": it is not a regular file");
    if (part.empty() && !TakePart(&State::LinkPart)) return false;
    if (renameat(folder.Get(), part.c_str(), folder.Get(), name.c_str()) != 0) ThrowCannotName();
    return true;
}

void PendingFile::State::FlushContent() const
{
    if (fsync(file.Get()) != 0) ThrowCannotName();
}

void PendingFile::State::Name(IfExists if_exists)
{
    if (part.empty() && Link(name)) return;
    const bool is_named =
        if_exists == IfExists::kReplace ? ReplaceExisting() : !part.empty() && RenamePart();
    if (is_named) return;
    errno = EEXIST;
    ThrowCannotName();
}

void PendingFile::State::RemovePart() const
{
    // Another user may have put something else in its place.
    if (!part.empty() && Has(part)) (void)unlinkat(folder.Get(), part.c_str(), 0);
}

PendingFile::PendingFile(const std::string& path) : m_state(std::make_unique<State>(path))
{
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
    return m_state->file.Get();
}

void PendingFile::Write(std::string_view bytes)
{
    WriteAll(Descriptor(), bytes, Path());
}

void PendingFile::Publish(IfExists if_exists, Flush flush)
{
    State& state = *m_state;
    const bool is_flushed = flush == Flush::kToDisk;
    const FileDescriptor readable(
        is_flushed ? openat(state.folder.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1);
    if (is_flushed) state.FlushContent();
    state.Name(if_exists);
    if (!state.Has(state.name))
        throw std::runtime_error(state.path +
                                 " was replaced by something else at the moment it was written");
    state.part.clear();
    // The file has its name now: to report a failure would be wrong.
    if (readable) (void)fsync(readable.Get());
}

void ReplaceFile(const std::string& path, std::string_view content, mode_t mode)
{
    PendingFile file(path);
    file.Write(content);
    (void)fchmod(file.Descriptor(), mode);  // some file systems have no modes
    file.Publish(IfExists::kReplace, Flush::kNot);
}

void RemoveFile(const std::string& path)
{
    const FileDescriptor folder = OpenDirectoryOf(path);
    const std::string name = NameIn(path);
    struct stat status;
    const bool exists = fstatat(folder.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && !S_ISREG(status.st_mode))
        throw std::runtime_error("cannot remove " + path + ": it is not a regular file");
    if (unlinkat(folder.Get(), name.c_str(), 0) != 0 && errno != ENOENT)
        ThrowErrno("cannot remove " + path);
}

}  // namespace VxaCore::Host
