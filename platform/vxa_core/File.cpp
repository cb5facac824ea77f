#include "File.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "vxa_core/files.h"

namespace VxaCore {

std::string ErrorText(int error_number)
{
    char buffer[128];
    return strerror_r(error_number, buffer, sizeof buffer);
}

bool WriteFully(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) return false;
        if (written > 0) bytes.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

bool ReadFully(int fd, std::string& bytes)
{
    char chunk[16384];
    bytes.clear();
    for (;;) {
        const ssize_t got = pread(fd, chunk, sizeof chunk, static_cast<off_t>(bytes.size()));
        if (got > 0)
            bytes.append(chunk, static_cast<size_t>(got));
        else if (got == 0)
            return true;
        else if (errno != EINTR)
            return false;
    }
}

bool FileDescriptor::Close()
{
    const int fd = std::exchange(m_fd, -1);
    return fd < 0 || close(fd) == 0;
}

namespace Host {

std::string MakeDirectories(const std::string& path)
{
    for (size_t end = 0; end != std::string::npos;) {
        end = path.find('/', end + 1);
        const std::string part = path.substr(0, end);
        struct stat status;
        // The system's own order of complaints hides the useful one: a read-only file
        // system says so even for a directory that exists.
        if (stat(part.c_str(), &status) == 0) {
            if (!S_ISDIR(status.st_mode)) return part + " is not a directory";
        } else if (mkdir(part.c_str(), 0777) != 0 && errno != EEXIST) {
            return "cannot make directory " + part + ": " + ErrorText(errno);
        }
    }
    return {};
}

std::string RenameDurably(const std::string& from, const std::string& to)
{
    const auto failure = [&] {
        return "cannot rename " + from + " to " + to + ": " + ErrorText(errno);
    };
    const FileDescriptor file(open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file || fsync(file.get()) != 0 || rename(from.c_str(), to.c_str()) != 0) return failure();
    const size_t slash = to.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : to.substr(0, slash + 1);
    const FileDescriptor directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory && fsync(directory.get()) == 0 ? "" : failure();
}

}  // namespace Host

}  // namespace VxaCore
