// Parses the counters in /proc/net. The kernel writes them in net/ipv4/proc.c and net/ipv6/proc.c
// (snmp, netstat, snmp6, sockstat), net/netfilter/nf_conntrack_standalone.c (stat/nf_conntrack) and
// net/core/net-procfs.c (softnet_stat, dev).
#include "engines/linux/proc/ProcTables.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <utility>

#include "engines/linux/proc/ProcFile.h"

namespace vxi {

namespace {

// Removes the part in front of the separator, or everything, from `rest` and returns it.
std::string_view TakeUntil(std::string_view& rest, char separator)
{
    const std::size_t end = std::min(rest.find(separator), rest.size());
    const std::string_view front = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return front;
}

std::string_view TakeLine(std::string_view& table)
{
    return TakeUntil(table, '\n');
}

// A number that does not fit in 64 bits becomes the largest that does.
std::optional<std::uint64_t> ParseUnsigned(std::string_view word, int base)
{
    std::uint64_t value = 0;
    const auto end = std::from_chars(word.data(), word.data() + word.size(), value, base);
    if (end.ec == std::errc::invalid_argument || end.ptr != word.data() + word.size()) {
        return {};
    }
    return end.ec == std::errc::result_out_of_range ? std::numeric_limits<std::uint64_t>::max()
                                                    : value;
}

// The kernel prints counters unsigned, but a few settings among them signed (Tcp: MaxConn).
std::optional<std::uint64_t> ParseCounter(std::string_view word)
{
    if (!word.empty() && word.front() == '-') {
        const auto value = ParseSigned(word);
        return value ? std::optional(static_cast<std::uint64_t>(*value)) : std::nullopt;
    }
    return ParseUnsigned(word, 10);
}

std::optional<std::uint64_t> CounterAt(const std::vector<std::string_view>& words,
                                       std::size_t index)
{
    return index < words.size() ? ParseCounter(words[index]) : std::nullopt;
}

void Append(ProcItems& items, std::string name, std::optional<std::uint64_t> value)
{
    if (value) {
        items.items.push_back({std::move(name), *value});
    } else {
        ++items.unreadable;
    }
}

std::string Join(std::string_view group, char separator, std::string_view name)
{
    std::string joined(group);
    joined += separator;
    return joined.append(name);
}

// A line "GROUP: WORD.."; without words where the line has no group.
struct GroupLine {
    std::string_view group;
    std::vector<std::string_view> words;
};

GroupLine SplitGroup(std::string_view line)
{
    const std::size_t colon = line.find(':');
    if (colon == line.npos) {
        return {};
    }
    return {line.substr(0, colon), SplitWords(line.substr(colon + 1))};
}

// Whether this is the counter of a single ICMP type: "Icmp6InType128".
bool IsOfIcmpType(std::string_view name)
{
    const std::size_t digits = name.find_last_not_of("0123456789") + 1;
    const std::string_view stem = name.substr(0, digits);
    constexpr std::string_view kType = "Type";
    return digits < name.size() && stem.size() > kType.size() &&
           stem.substr(stem.size() - kType.size()) == kType;
}

using ColumnSums = std::vector<std::optional<std::uint64_t>>;

// A sum without one of the processors would be wrong, so such a column gets none.
void AddLine(std::string_view line, ColumnSums& sums)
{
    const auto words = SplitWords(line);
    for (std::size_t i = 0; i < sums.size(); ++i) {
        const auto value = i < words.size() ? ParseUnsigned(words[i], 16) : std::nullopt;
        sums[i] = value && sums[i] ? std::optional(*sums[i] + *value) : std::nullopt;
    }
}

ColumnSums SumColumns(std::string_view lines, std::size_t columns)
{
    ColumnSums sums(columns, 0);
    while (!lines.empty()) {
        const std::string_view line = TakeLine(lines);
        if (!SplitWords(line).empty()) {
            AddLine(line, sums);
        }
    }
    return sums;
}

// Column names from the header of net/dev: "rx_bytes".. and "tx_bytes"..
std::vector<std::string> NetDevColumns(std::string_view header)
{
    std::vector<std::string> columns;
    TakeUntil(header, '|');  // " face "
    for (const char* direction : {"rx", "tx"}) {
        for (const std::string_view name : SplitWords(TakeUntil(header, '|'))) {
            columns.push_back(Join(direction, '_', name));
        }
    }
    return columns;
}

}  // namespace

ProcItems ParseSnmp(std::string_view table, const char* skip)
{
    ProcItems found;
    GroupLine names;
    while (!table.empty()) {
        GroupLine line = SplitGroup(TakeLine(table));
        if (names.words.empty() || line.group != names.group) {
            names = std::move(line);
            continue;
        }
        for (std::size_t i = 0; i < names.words.size() && !(skip && line.group == skip); ++i) {
            Append(found, Join(line.group, '.', names.words[i]), CounterAt(line.words, i));
        }
        names = {};
    }
    return found;
}

ProcItems ParseSnmp6(std::string_view table)
{
    ProcItems found;
    while (!table.empty()) {
        const auto words = SplitWords(TakeLine(table));
        if (!words.empty() && !IsOfIcmpType(words[0])) {
            Append(found, std::string(words[0]),
                   words.size() == 2 ? ParseCounter(words[1]) : std::nullopt);
        }
    }
    return found;
}

ProcItems ParseSockstat(std::string_view table)
{
    ProcItems found;
    while (!table.empty()) {
        const GroupLine line = SplitGroup(TakeLine(table));
        for (std::size_t i = 0; i < line.words.size(); i += 2) {
            Append(found, Join(line.group, '.', line.words[i]), CounterAt(line.words, i + 1));
        }
    }
    return found;
}

ProcItems SumConntrackStat(std::string_view table, const std::string& prefix, std::string_view skip)
{
    ProcItems found;
    const auto names = SplitWords(TakeLine(table));
    const ColumnSums sums = SumColumns(table, names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (names[i] != skip) {
            Append(found, Join(prefix, '.', names[i]), sums[i]);
        }
    }
    return found;
}

ProcItems SumSoftnetStat(std::string_view table, const std::string& prefix,
                         const std::vector<const char*>& names)
{
    ProcItems found;
    const ColumnSums sums = SumColumns(table, names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (names[i] && sums[i]) {
            Append(found, Join(prefix, '.', names[i]), sums[i]);
        }
    }
    return found;
}

std::vector<ProcInterface> ParseNetDev(std::string_view table)
{
    TakeLine(table);  // "Inter-| Receive | Transmit"
    const std::vector<std::string> columns = NetDevColumns(TakeLine(table));
    std::vector<ProcInterface> interfaces;
    while (!table.empty()) {
        GroupLine line = SplitGroup(TakeLine(table));
        const std::size_t indent = line.group.find_first_not_of(' ');
        line.group.remove_prefix(std::min(indent, line.group.size()));
        if (line.group.empty()) {
            continue;
        }
        ProcInterface& interface = interfaces.emplace_back();
        interface.name = line.group;
        for (std::size_t i = 0; i < columns.size(); ++i) {
            Append(interface.counters, Join(line.group, '.', columns[i]), CounterAt(line.words, i));
        }
    }
    return interfaces;
}

}  // namespace vxi
