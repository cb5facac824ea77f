#include "engines/linux/proc/ProcText.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <limits>
#include <utility>

namespace vxi {

namespace {

constexpr std::size_t kFileSizeMax = 16 * 1024 * 1024;
constexpr std::string_view kBlanks = " \t\r";

// Takes what stands before the separator, or all of the text, off its front.
std::string_view Take(std::string_view& text, char separator)
{
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::string_view front = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return front;
}

std::vector<std::string_view> WordsOf(std::string_view line)
{
    std::vector<std::string_view> words;
    std::size_t begin = line.find_first_not_of(kBlanks);
    while (begin != line.npos) {
        const std::size_t end = std::min(line.find_first_of(kBlanks, begin), line.size());
        words.push_back(line.substr(begin, end - begin));
        begin = line.find_first_not_of(kBlanks, end);
    }
    return words;
}

std::optional<std::uint64_t> UnsignedNumber(std::string_view word, int base)
{
    std::uint64_t value = 0;
    const auto end = std::from_chars(word.data(), word.data() + word.size(), value, base);
    if (end.ec == std::errc::invalid_argument || end.ptr != word.data() + word.size()) {
        return {};
    }
    return end.ec == std::errc::result_out_of_range ? std::numeric_limits<std::uint64_t>::max()
                                                    : value;
}

// A counter: the kernel prints them unsigned, but a few settings among them signed.
std::optional<std::uint64_t> Figure(std::string_view word)
{
    if (!word.empty() && word.front() == '-') {
        const auto value = SignedNumber(word);
        return value ? std::optional(static_cast<std::uint64_t>(*value)) : std::nullopt;
    }
    return UnsignedNumber(word, 10);
}

void Add(ProcItems& items, std::string name, std::optional<std::uint64_t> value)
{
    if (value) {
        items.items.push_back({std::move(name), *value});
    } else {
        ++items.unreadable;
    }
}

std::string Joined(std::string_view group, char between, std::string_view name)
{
    std::string text(group);
    text += between;
    return text.append(name);
}

// "GROUP: WORD..": the words; empty when there is no group.
std::vector<std::string_view> GroupOf(std::string_view line, std::string_view& group)
{
    const std::size_t colon = line.find(':');
    if (colon == line.npos) {
        return {};
    }
    group = line.substr(0, colon);
    return WordsOf(line.substr(colon + 1));
}

// Icmp6InType128 and the like.
bool ByType(std::string_view name)
{
    const std::size_t digits = name.find_last_not_of("0123456789") + 1;
    const std::string_view stem = name.substr(0, digits);
    constexpr std::string_view kType = "Type";
    return digits < name.size() && stem.size() > kType.size() &&
           stem.substr(stem.size() - kType.size()) == kType;
}

void AddColumns(std::string_view line, std::vector<std::optional<std::uint64_t>>& sums)
{
    const auto words = WordsOf(line);
    for (std::size_t i = 0; i < sums.size(); ++i) {
        const auto value = i < words.size() ? UnsignedNumber(words[i], 16) : std::nullopt;
        // One processor without a figure would make a sum that means something else.
        sums[i] = value && sums[i] ? std::optional(*sums[i] + *value) : std::nullopt;
    }
}

std::vector<std::optional<std::uint64_t>> SumColumns(std::string_view text, std::size_t columns)
{
    std::vector<std::optional<std::uint64_t>> sums(columns, 0);
    while (!text.empty()) {
        const std::string_view line = Take(text, '\n');
        if (line.find_first_not_of(kBlanks) != line.npos) {
            AddColumns(line, sums);
        }
    }
    return sums;
}

}  // namespace

int read_proc(const std::string& path, std::string& text)
{
    text.clear();
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        return -errno;
    }
    constexpr std::size_t kChunk = 16 * 1024;
    ssize_t got = 0;
    do {
        const std::size_t used = text.size();
        text.resize(used + kChunk);
        got = read(descriptor, &text[used], kChunk);
        text.resize(used + (got > 0 ? static_cast<std::size_t>(got) : 0));
    } while ((got > 0 || (got < 0 && errno == EINTR)) && text.size() < kFileSizeMax);
    const int status = got < 0 ? -errno : 0;
    close(descriptor);
    return status;
}

std::optional<std::int64_t> read_proc_number(const std::string& path)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        return {};
    }
    char text[128];
    const ssize_t got = read(descriptor, text, sizeof text);
    close(descriptor);
    if (got <= 0) {
        return {};
    }
    std::string_view rest(text, static_cast<std::size_t>(got));
    const auto words = WordsOf(Take(rest, '\n'));
    return words.empty() ? std::nullopt : SignedNumber(words.front());
}

std::optional<std::int64_t> SignedNumber(std::string_view word)
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

ProcItems PairedLines(std::string_view text, const char* skip)
{
    ProcItems found;
    std::string_view names_group;
    std::vector<std::string_view> names;
    while (!text.empty()) {
        std::string_view group;
        const auto words = GroupOf(Take(text, '\n'), group);
        if (names.empty() || group != names_group) {
            names = words;
            names_group = group;
            continue;
        }
        for (std::size_t i = 0; i < names.size() && !(skip && group == skip); ++i) {
            Add(found, Joined(group, '.', names[i]),
                i < words.size() ? Figure(words[i]) : std::nullopt);
        }
        names.clear();
    }
    return found;
}

ProcItems SingleLines(std::string_view text)
{
    ProcItems found;
    while (!text.empty()) {
        const auto words = WordsOf(Take(text, '\n'));
        if (!words.empty() && !ByType(words[0])) {
            Add(found, std::string(words[0]), words.size() == 2 ? Figure(words[1]) : std::nullopt);
        }
    }
    return found;
}

ProcItems GroupedLines(std::string_view text)
{
    ProcItems found;
    while (!text.empty()) {
        std::string_view group;
        const auto words = GroupOf(Take(text, '\n'), group);
        for (std::size_t i = 0; i < words.size(); i += 2) {
            Add(found, Joined(group, '.', words[i]),
                i + 1 < words.size() ? Figure(words[i + 1]) : std::nullopt);
        }
    }
    return found;
}

ProcItems ColumnSums(std::string_view text, const std::string& prefix, std::string_view skip)
{
    ProcItems found;
    const auto names = WordsOf(Take(text, '\n'));
    const auto sums = SumColumns(text, names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (names[i] != skip) {
            Add(found, Joined(prefix, '.', names[i]), sums[i]);
        }
    }
    return found;
}

ProcItems ColumnSums(std::string_view text, const std::string& prefix,
                     const std::vector<const char*>& names)
{
    ProcItems found;
    const auto sums = SumColumns(text, names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        // Older kernels have fewer columns.
        if (names[i] && sums[i]) {
            Add(found, Joined(prefix, '.', names[i]), sums[i]);
        }
    }
    return found;
}

std::vector<ProcInterface> InterfaceLines(std::string_view text)
{
    Take(text, '\n');  // "Inter-| Receive | Transmit"
    std::string_view header = Take(text, '\n');
    Take(header, '|');
    const auto received = WordsOf(Take(header, '|'));
    const auto sent = WordsOf(header);
    std::vector<ProcInterface> interfaces;
    while (!text.empty()) {
        std::string_view name;
        const auto words = GroupOf(Take(text, '\n'), name);
        name.remove_prefix(std::min(name.find_first_not_of(kBlanks), name.size()));
        if (name.empty()) {
            continue;
        }
        ProcInterface interface {
            std::string(name), {}
        };
        for (std::size_t i = 0; i < received.size() + sent.size(); ++i) {
            const bool in = i < received.size();
            const auto column =
                Joined(in ? "rx" : "tx", '_', in ? received[i] : sent[i - received.size()]);
            Add(interface.counters, Joined(name, '.', column),
                i < words.size() ? Figure(words[i]) : std::nullopt);
        }
        interfaces.push_back(std::move(interface));
    }
    return interfaces;
}

}  // namespace vxi
