// Reads and writes map files.
#include "redaction/MapFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "vxa_core/files.h"
#include "vxa_core/pending_file.h"

namespace vxa::redaction {

namespace {

constexpr std::size_t kLargestMap = std::size_t{1} << 30;

[[noreturn]] void ThrowErrno(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

const char* ReasonToRefuse(const struct stat& status)
{
    if (!S_ISREG(status.st_mode)) return "is not a regular file";
    if (status.st_uid != geteuid()) return "belongs to another user";
    if (status.st_nlink != 1) return "has more than one link";
    if (status.st_size > static_cast<off_t>(kLargestMap)) return "is larger than 1 GiB";
    if (status.st_mode & (S_IRWXG | S_IRWXO)) return "can be accessed by other users (chmod 600)";
    return nullptr;
}

void WriteAll(const VxaCore::Host::PendingFile& file, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = write(file.Descriptor(), bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) ThrowErrno("cannot write " + file.Path());
        bytes.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
}

}  // namespace

std::optional<std::string> ReadMapFile(const std::string& path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT) return std::nullopt;
    if (fd < 0 && errno == ELOOP)
        throw VxaCore::Host::FileError(ELOOP, path + " is a symbolic link");
    if (fd < 0) ThrowErrno("cannot read " + path);
    struct stat status;
    const bool is_known = fstat(fd, &status) == 0;
    // Opened again by its descriptor: the name may have another file by now.
    const std::string same_file = "/proc/self/fd/" + std::to_string(fd);
    const char* const reason = is_known ? ReasonToRefuse(status) : "cannot be checked";
    std::optional<std::string> text;
    try {
        if (!reason) text = VxaCore::Host::ReadFile(same_file, kLargestMap);
    } catch (...) {
        close(fd);
        throw;
    }
    close(fd);
    if (reason) throw std::runtime_error(path + " " + reason);
    return text;
}

void WriteMapFile(const std::string& path, Pseudonyms& pseudonyms, bool replace)
{
    using VxaCore::Host::IfExists;
    VxaCore::Host::PendingFile file(path);
    std::size_t size = 0;
    pseudonyms.Write([&](std::string_view piece) {
        size += piece.size();
        if (size > kLargestMap) throw std::runtime_error(path + ": the map has more than 1 GiB");
        WriteAll(file, piece);
    });
    file.Publish(replace ? IfExists::kReplace : IfExists::kFail);
}

}  // namespace vxa::redaction
