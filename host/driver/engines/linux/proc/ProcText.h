// The text tables of /proc: reading their files and taking them apart.
//
// The names of counters are the kernel's own, from the tables' header lines: what a newer
// kernel adds turns up by itself. Nothing in a text is taken on trust: what is no number is
// counted and left out, lines of an unexpected form are skipped.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vxi {

struct ProcItem {
    std::string name;
    std::uint64_t value;  // negative figures in two's complement
};

struct ProcItems {
    std::vector<ProcItem> items;
    unsigned unreadable = 0;  // named, but without a number
};

// Whole file; 0 or a negated errno.
int read_proc(const std::string& path, std::string& text);

// A file that holds one number, or several: the first. Empty when there is none.
std::optional<std::int64_t> read_proc_number(const std::string& path);

// A decimal number with nothing behind it; what 64 bits cannot hold is cut to their limit.
std::optional<std::int64_t> SignedNumber(std::string_view word);

// snmp, netstat: "Ip: NAME.." followed by "Ip: NUMBER..", as "Ip.NAME". Of `skip` (null for
// none) nothing is taken.
ProcItems PairedLines(std::string_view text, const char* skip);

// snmp6: "NAME NUMBER" a line. Those by ICMP type come and go with traffic and are left out.
ProcItems SingleLines(std::string_view text);

// sockstat, sockstat6: "TCP: inuse NUMBER orphan NUMBER..", as "TCP.inuse".
ProcItems GroupedLines(std::string_view text);

// stat/nf_conntrack: a line of column names, then one line of hexadecimal figures for each
// processor: the sums, as "PREFIX.NAME". `skip` is a column that is no figure of one processor.
ProcItems ColumnSums(std::string_view text, const std::string& prefix, std::string_view skip);

// softnet_stat: the same without the names, which are given here; null for a column that is
// nothing to add up.
ProcItems ColumnSums(std::string_view text, const std::string& prefix,
                     const std::vector<const char*>& names);

// net/dev: one list for each interface, in the file's order, as "eth0.rx_bytes".
struct ProcInterface {
    std::string name;
    ProcItems counters;
};
std::vector<ProcInterface> InterfaceLines(std::string_view text);

}  // namespace vxi
