// Reads files of unknown size: the kernel generates them as they are read (proc(5)).
#include "engines/linux/proc/ProcFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <limits>

#include "api/Error.h"

namespace vxi {

namespace {

constexpr std::size_t kFileSizeMax = 16UL * 1024 * 1024;
constexpr std::size_t kChunkSize = 16UL * 1024;

class Descriptor {
public:
    explicit Descriptor(const std::string& path)
        : m_descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC))
    {
    }
    ~Descriptor()
    {
        if (IsOpen()) {
            close(m_descriptor);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    bool IsOpen() const { return m_descriptor >= 0; }

    // As read(2), also when signals interrupt it.
    ssize_t Read(char* buffer, std::size_t size) const
    {
        ssize_t got;
        do {
            got = read(m_descriptor, buffer, size);
        } while (got < 0 && errno == EINTR);
        return got;
    }

private:
    int m_descriptor;
};

}  // namespace

std::string ReadProcFile(const std::string& path)
{
    const Descriptor file(path);
    if (!file.IsOpen()) {
        throw Error(-errno);
    }
    std::string contents;
    ssize_t got = 0;
    do {
        const std::size_t used = contents.size();
        contents.resize(used + kChunkSize);
        got = file.Read(&contents[used], kChunkSize);
        if (got < 0) {
            throw Error(-errno);
        }
        contents.resize(used + static_cast<std::size_t>(got));
    } while (got > 0 && contents.size() < kFileSizeMax);
    return contents;
}

std::optional<std::int64_t> ReadProcNumber(const std::string& path)
{
    const Descriptor file(path);
    char line[128];
    const ssize_t size = file.IsOpen() ? file.Read(line, sizeof line) : 0;
    if (size <= 0) {
        return {};
    }
    const std::string_view contents(line, static_cast<std::size_t>(size));
    const auto words = SplitWords(contents.substr(0, contents.find('\n')));
    return words.empty() ? std::nullopt : ParseSigned(words.front());
}

std::vector<std::string_view> SplitWords(std::string_view line)
{
    constexpr std::string_view kBlanks = " \t\r";
    std::vector<std::string_view> words;
    std::size_t begin = line.find_first_not_of(kBlanks);
    while (begin != line.npos) {
        const std::size_t end = std::min(line.find_first_of(kBlanks, begin), line.size());
        words.push_back(line.substr(begin, end - begin));
        begin = line.find_first_not_of(kBlanks, end);
    }
    return words;
}

std::optional<std::int64_t> ParseSigned(std::string_view word)
{
    std::int64_t value = 0;
    const auto end = std::from_chars(word.data(), word.data() + word.size(), value);
    if (end.ec == std::errc::invalid_argument || end.ptr != word.data() + word.size()) {
        return {};
    }
    if (end.ec == std::errc::result_out_of_range) {
        return word.front() == '-' ? std::numeric_limits<std::int64_t>::min()
                                   : std::numeric_limits<std::int64_t>::max();
    }
    return value;
}

}  // namespace vxi
