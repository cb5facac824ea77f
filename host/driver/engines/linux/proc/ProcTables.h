// Parsers for the counters in /proc/net, each named for the file that it parses.
//
// Counters bear the kernel's own names, from the headers of the tables, so those that a newer
// kernel adds appear without a change here. Names without a number are counted, lines of any other
// form are skipped.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vxi {

struct ProcItem {
    std::string name;
    std::uint64_t value;  // a negative number in two's complement
};

struct ProcItems {
    std::vector<ProcItem> items;
    unsigned unreadable = 0;  // named, but without a number
};

// snmp and netstat: "Ip: NAME.." followed by "Ip: NUMBER..", as "Ip.NAME". Leaves out the group
// `skip`, if it is not null.
ProcItems ParseSnmp(std::string_view table, const char* skip);

// snmp6: lines of "NAME NUMBER". Counters of a single ICMP type are left out: they appear with
// traffic.
ProcItems ParseSnmp6(std::string_view table);

// sockstat and sockstat6: "TCP: inuse NUMBER orphan NUMBER..", as "TCP.inuse".
ProcItems ParseSockstat(std::string_view table);

// stat/nf_conntrack: a line of names, then a line of hexadecimal numbers for each processor. Sums
// over all processors, as "PREFIX.NAME"; leaves out the column `skip`, which is not a processor's.
ProcItems SumConntrackStat(std::string_view table, const std::string& prefix,
                           std::string_view skip);

// softnet_stat: the same without a line of names. `names` has them, null for a column that is left
// out; so are those that an older kernel does not have.
ProcItems SumSoftnetStat(std::string_view table, const std::string& prefix,
                         const std::vector<const char*>& names);

// dev: the interfaces in the file's order, with counters as "eth0.rx_bytes".
struct ProcInterface {
    std::string name;
    ProcItems counters;
};
std::vector<ProcInterface> ParseNetDev(std::string_view table);

}  // namespace vxi
