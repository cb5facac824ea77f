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

constexpr size_t file_size_max = 16 * 1024 * 1024;
constexpr std::string_view blanks = " \t\r";

// Takes what stands before the separator, or all of the text, off its front.
std::string_view take(std::string_view& text, char separator)
{
    const size_t end = std::min(text.find(separator), text.size());
    const std::string_view front = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return front;
}

std::vector<std::string_view> words_of(std::string_view line)
{
    std::vector<std::string_view> words;
    size_t begin = line.find_first_not_of(blanks);
    while (begin != line.npos) {
        const size_t end = std::min(line.find_first_of(blanks, begin), line.size());
        words.push_back(line.substr(begin, end - begin));
        begin = line.find_first_not_of(blanks, end);
    }
    return words;
}

std::optional<uint64_t> unsigned_number(std::string_view word, int base)
{
    uint64_t value = 0;
    const auto end = std::from_chars(word.data(), word.data() + word.size(), value, base);
    if (end.ec == std::errc::invalid_argument || end.ptr != word.data() + word.size()) {
        return {};
    }
    return end.ec == std::errc::result_out_of_range ? std::numeric_limits<uint64_t>::max() : value;
}

// A counter: the kernel prints them unsigned, but a few settings among them signed.
std::optional<uint64_t> figure(std::string_view word)
{
    if (!word.empty() && word.front() == '-') {
        const auto value = signed_number(word);
        return value ? std::optional(static_cast<uint64_t>(*value)) : std::nullopt;
    }
    return unsigned_number(word, 10);
}

void add(ProcItems& items, std::string name, std::optional<uint64_t> value)
{
    if (value) {
        items.items.push_back({std::move(name), *value});
    } else {
        ++items.unreadable;
    }
}

std::string joined(std::string_view group, char between, std::string_view name)
{
    std::string text(group);
    text += between;
    return text.append(name);
}

// "GROUP: WORD..": the words; empty when there is no group.
std::vector<std::string_view> group_of(std::string_view line, std::string_view& group)
{
    const size_t colon = line.find(':');
    if (colon == line.npos) {
        return {};
    }
    group = line.substr(0, colon);
    return words_of(line.substr(colon + 1));
}

// Icmp6InType128 and the like.
bool by_type(std::string_view name)
{
    const size_t digits = name.find_last_not_of("0123456789") + 1;
    const std::string_view stem = name.substr(0, digits);
    constexpr std::string_view type = "Type";
    return digits < name.size() && stem.size() > type.size() &&
           stem.substr(stem.size() - type.size()) == type;
}

void add_columns(std::string_view line, std::vector<std::optional<uint64_t>>& sums)
{
    const auto words = words_of(line);
    for (size_t i = 0; i < sums.size(); ++i) {
        const auto value = i < words.size() ? unsigned_number(words[i], 16) : std::nullopt;
        // One processor without a figure would make a sum that means something else.
        sums[i] = value && sums[i] ? std::optional(*sums[i] + *value) : std::nullopt;
    }
}

std::vector<std::optional<uint64_t>> sum_columns(std::string_view text, size_t columns)
{
    std::vector<std::optional<uint64_t>> sums(columns, 0);
    while (!text.empty()) {
        const std::string_view line = take(text, '\n');
        if (line.find_first_not_of(blanks) != line.npos) {
            add_columns(line, sums);
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
    constexpr size_t chunk = 16 * 1024;
    ssize_t got = 0;
    do {
        const size_t used = text.size();
        text.resize(used + chunk);
        got = read(descriptor, &text[used], chunk);
        text.resize(used + (got > 0 ? static_cast<size_t>(got) : 0));
    } while ((got > 0 || (got < 0 && errno == EINTR)) && text.size() < file_size_max);
    const int status = got < 0 ? -errno : 0;
    close(descriptor);
    return status;
}

std::optional<int64_t> read_proc_number(const std::string& path)
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
    std::string_view rest(text, static_cast<size_t>(got));
    const auto words = words_of(take(rest, '\n'));
    return words.empty() ? std::nullopt : signed_number(words.front());
}

std::optional<int64_t> signed_number(std::string_view word)
{
    int64_t value = 0;
    const auto end = std::from_chars(word.data(), word.data() + word.size(), value);
    if (end.ec == std::errc::invalid_argument || end.ptr != word.data() + word.size()) {
        return {};
    }
    if (end.ec == std::errc::result_out_of_range) {
        return word.front() == '-' ? std::numeric_limits<int64_t>::min()
                                   : std::numeric_limits<int64_t>::max();
    }
    return value;
}

ProcItems paired_lines(std::string_view text, const char* skip)
{
    ProcItems found;
    std::string_view names_group;
    std::vector<std::string_view> names;
    while (!text.empty()) {
        std::string_view group;
        const auto words = group_of(take(text, '\n'), group);
        if (names.empty() || group != names_group) {
            names = words;
            names_group = group;
            continue;
        }
        for (size_t i = 0; i < names.size() && !(skip && group == skip); ++i) {
            add(found, joined(group, '.', names[i]),
                i < words.size() ? figure(words[i]) : std::nullopt);
        }
        names.clear();
    }
    return found;
}

ProcItems single_lines(std::string_view text)
{
    ProcItems found;
    while (!text.empty()) {
        const auto words = words_of(take(text, '\n'));
        if (!words.empty() && !by_type(words[0])) {
            add(found, std::string(words[0]), words.size() == 2 ? figure(words[1]) : std::nullopt);
        }
    }
    return found;
}

ProcItems grouped_lines(std::string_view text)
{
    ProcItems found;
    while (!text.empty()) {
        std::string_view group;
        const auto words = group_of(take(text, '\n'), group);
        for (size_t i = 0; i < words.size(); i += 2) {
            add(found, joined(group, '.', words[i]),
                i + 1 < words.size() ? figure(words[i + 1]) : std::nullopt);
        }
    }
    return found;
}

ProcItems column_sums(std::string_view text, const std::string& prefix, std::string_view skip)
{
    ProcItems found;
    const auto names = words_of(take(text, '\n'));
    const auto sums = sum_columns(text, names.size());
    for (size_t i = 0; i < names.size(); ++i) {
        if (names[i] != skip) {
            add(found, joined(prefix, '.', names[i]), sums[i]);
        }
    }
    return found;
}

ProcItems column_sums(std::string_view text, const std::string& prefix,
                      const std::vector<const char*>& names)
{
    ProcItems found;
    const auto sums = sum_columns(text, names.size());
    for (size_t i = 0; i < names.size(); ++i) {
        // Older kernels have fewer columns.
        if (names[i] && sums[i]) {
            add(found, joined(prefix, '.', names[i]), sums[i]);
        }
    }
    return found;
}

std::vector<ProcInterface> interface_lines(std::string_view text)
{
    take(text, '\n');  // "Inter-| Receive | Transmit"
    std::string_view header = take(text, '\n');
    take(header, '|');
    const auto received = words_of(take(header, '|'));
    const auto sent = words_of(header);
    std::vector<ProcInterface> interfaces;
    while (!text.empty()) {
        std::string_view name;
        const auto words = group_of(take(text, '\n'), name);
        name.remove_prefix(std::min(name.find_first_not_of(blanks), name.size()));
        if (name.empty()) {
            continue;
        }
        ProcInterface interface {
            std::string(name), {}
        };
        for (size_t i = 0; i < received.size() + sent.size(); ++i) {
            const bool in = i < received.size();
            const auto column =
                joined(in ? "rx" : "tx", '_', in ? received[i] : sent[i - received.size()]);
            add(interface.counters, joined(name, '.', column),
                i < words.size() ? figure(words[i]) : std::nullopt);
        }
        interfaces.push_back(std::move(interface));
    }
    return interfaces;
}

}  // namespace vxi
