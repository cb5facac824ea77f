// vxi_get_stats: counters from /proc, numbers of rules, and the engine's own.
#include "engines/linux/tables/Statistics.h"

#include <linux/netfilter/nf_tables.h>
#include <net/if.h>

#include <algorithm>
#include <cerrno>

#include "api/Error.h"
#include "engines/linux/Operations.h"
#include "engines/linux/netlink/NfTables.h"
#include "engines/linux/proc/ProcFile.h"
#include "engines/linux/scan/ProcessScanMonitor.h"
#include "records/TableOrigin.h"
#include "vxi/records.h"

namespace vxi {

namespace {

// Where the parts of the areas begin.
constexpr unsigned kSnmpSlot = 0;
constexpr unsigned kSnmp6Slot = 96;
constexpr unsigned kSockstatSlot = 192;

constexpr unsigned kConntrackSlot = 0;
constexpr unsigned kConntrackSumsSlot = 3;
constexpr unsigned kRulesSlot = 21;
constexpr unsigned kOwnSlot = 25;

constexpr unsigned kNetstatSlot = 0;
constexpr unsigned kInterfacesSlot = 256;
constexpr unsigned kInterfaceSlots = 17;
constexpr unsigned kInterfacesMax = 16;
constexpr unsigned kSoftnetSlot = kInterfacesSlot + kInterfaceSlots * kInterfacesMax;

// The columns of softnet_stat, the only table without a header line (net/core/net-procfs.c). Those
// without a name are always 0, or the number of the processor.
const std::vector<const char*> kSoftnetColumns = {
    "processed",  "dropped",     "time_squeeze", nullptr,      nullptr,
    nullptr,      nullptr,       nullptr,        nullptr,      "received_rps",
    "flow_limit", "backlog_len", nullptr,        "input_qlen", "process_qlen"};

// The tables of one directory; remembers which could not be read.
class Tables {
public:
    explicit Tables(const std::string& directory) : m_directory(directory) {}

    std::string Read(const char* name)
    {
        try {
            std::string table = ReadProcFile(m_directory + name);
            ++m_count;
            return table;
        } catch (const Error&) {
            m_missing += std::string(m_missing.empty() ? ", without " : " ") + name;
            return {};
        }
    }

    unsigned Count() const { return m_count; }
    const std::string& Missing() const { return m_missing; }

private:
    const std::string& m_directory;
    std::string m_missing;
    unsigned m_count = 0;
};

NumberedNames FillProtocols(Tables& tables, std::uint64_t* slots)
{
    AreaWriter area(slots, VXA_STATS_AREA1_COUNT);
    // "IcmpMsg" has a column for each ICMP type seen and grows with traffic; "Icmp" has the totals.
    area.Put(kSnmpSlot, kSnmp6Slot, ParseSnmp(tables.Read("snmp"), "IcmpMsg"));
    area.Put(kSnmp6Slot, kSockstatSlot, ParseSnmp6(tables.Read("snmp6")));
    const std::string sockets = tables.Read("sockstat");
    area.Put(kSockstatSlot, VXA_STATS_AREA1_COUNT,
             ParseSockstat(sockets + tables.Read("sockstat6")));
    return area.Finish();
}

void PutTracking(const std::string& netfilter, AreaWriter& area)
{
    constexpr std::int64_t kCountable = 65535;  // what the 16 bits of a count request can express
    static constexpr const char* kNames[] = {"count", "max", "buckets"};
    for (unsigned i = 0; i < std::size(kNames); ++i) {
        const auto value = ReadProcNumber(netfilter + "nf_conntrack_" + kNames[i]);
        if (value) {
            area.PutOne(kConntrackSlot + i, (std::string("conntrack.") + kNames[i]).c_str(),
                        static_cast<std::uint64_t>(*value));
        }
        if (value && i == 0) {
            area.PutOne(kOwnSlot + 3, "conntrack.over_65535",
                        static_cast<std::uint64_t>(std::max<std::int64_t>(*value - kCountable, 0)));
        }
    }
}

struct RuleKind {
    const char* name;
    std::uint16_t get_type;
};

std::uint64_t CountObjects(Netlink& netlink, const RuleKind& kind)
try {
    return CountNftObjects(netlink, kind.get_type);
} catch (const Error& error) {
    ThrowError(error.Status(), "%s: %s", kind.name, error.what());
}

// Returns the end of the source: that nf_tables is part of it, or why it is not.
std::string PutRules(AreaWriter& area)
try {
    static constexpr RuleKind kKinds[] = {{"rules.tables", NFT_MSG_GETTABLE},
                                          {"rules.chains", NFT_MSG_GETCHAIN},
                                          {"rules.rules", NFT_MSG_GETRULE},
                                          {"rules.sets", NFT_MSG_GETSET}};
    Netlink netlink;
    OpenNfTables(netlink);
    for (unsigned i = 0; i < std::size(kKinds); ++i) {
        area.PutOne(kRulesSlot + i, kKinds[i].name, CountObjects(netlink, kKinds[i]));
    }
    return " and nf_tables";
} catch (const Error& error) {
    return std::string("; ") + error.what();
}

void PutScan(AreaWriter& area)
{
    const ScanStatus scan = ProcessScanMonitor().Status();
    area.PutOne(kOwnSlot, "scan.on", scan.target.has_value());
    area.PutOne(kOwnSlot + 1, "scan.port", scan.target ? scan.target->port : 0);
    area.PutOne(kOwnSlot + 2, "scan.pending", scan.half_open);
    area.PutOne(kOwnSlot + 4, "scan.uncounted", scan.uncounted);
}

NumberedNames FillFilter(Tables& tables, const std::string& netfilter, std::uint64_t* slots,
                         std::string& rules_source)
{
    AreaWriter area(slots, VXA_STATS_AREA2_COUNT);
    PutTracking(netfilter, area);
    // "entries" is the size of the whole table in every processor's line: nf_conntrack_count has
    // it.
    area.PutOrDrop(kConntrackSumsSlot, kRulesSlot,
                   SumConntrackStat(tables.Read("stat/nf_conntrack"), "conntrack", "entries"));
    rules_source = PutRules(area);
    PutScan(area);
    return area.Finish();
}

// Takes the first interfaces, which are the machine's own; those of its guests come later.
void PutInterfaces(const std::vector<ProcInterface>& interfaces, AreaWriter& area)
{
    unsigned slot = kInterfacesSlot;
    for (const ProcInterface& each : interfaces) {
        if (slot == kSoftnetSlot) {
            area.Drop(each.counters.items.size());
            continue;
        }
        area.PutOrDrop(slot, slot + kInterfaceSlots - 1, each.counters);
        const unsigned index = if_nametoindex(each.name.c_str());
        if (index > 0) {
            area.PutOne(slot + kInterfaceSlots - 1, (each.name + ".ifindex").c_str(), index);
        }
        slot += kInterfaceSlots;
    }
}

NumberedNames FillDevices(Tables& tables, std::uint64_t* slots)
{
    AreaWriter area(slots, VXA_STATS_AREA3_COUNT);
    area.Put(kNetstatSlot, kInterfacesSlot, ParseSnmp(tables.Read("netstat"), nullptr));
    PutInterfaces(ParseNetDev(tables.Read("dev")), area);
    area.Put(kSoftnetSlot, VXA_STATS_AREA3_COUNT,
             SumSoftnetStat(tables.Read("softnet_stat"), "softnet", kSoftnetColumns));
    return area.Finish();
}

// Sets the names only when they differ: interfaces come and go, the rest changes with the kernel.
void PublishIfChanged(const char* engine, NameList list, NumberedNames&& names)
{
    const auto known = PublishedNames(engine, list);
    if (!known || known->names != names.names || known->dropped != names.dropped) {
        PublishNames(engine, list, std::move(names));
    }
}

}  // namespace

AreaWriter::AreaWriter(std::uint64_t* slots, unsigned count) : m_slots(slots), m_count(count)
{
    std::fill_n(slots, count, 0);
    m_names.names.resize(count);
}

void AreaWriter::Put(unsigned first, unsigned end, ProcItems found)
{
    const std::size_t fitting = std::min<std::size_t>(found.items.size(), end - first);
    const auto rest = found.items.begin() + static_cast<std::ptrdiff_t>(fitting);
    m_waiting.insert(m_waiting.end(), std::make_move_iterator(rest),
                     std::make_move_iterator(found.items.end()));
    found.items.resize(fitting);
    PutOrDrop(first, end, std::move(found));
}

void AreaWriter::PutOrDrop(unsigned first, unsigned end, ProcItems found)
{
    unsigned slot = first;
    for (ProcItem& item : found.items) {
        if (slot == end) {
            Drop(1);
            continue;
        }
        m_slots[slot] = item.value;
        m_names.names[slot] = std::move(item.name);
        ++slot;
    }
    Drop(found.unreadable);
}

void AreaWriter::PutOne(unsigned slot, const char* name, std::uint64_t value)
{
    m_slots[slot] = value;
    m_names.names[slot] = name;
}

NumberedNames AreaWriter::Finish()
{
    unsigned slot = 0;
    for (ProcItem& item : m_waiting) {
        while (slot < m_count && !m_names.names[slot].empty()) {
            ++slot;
        }
        if (slot == m_count) {
            Drop(1);
        } else {
            PutOne(slot, item.name.c_str(), item.value);
        }
    }
    return std::move(m_names);
}

StatisticsNames FillStatistics(const StatisticsDirectories& directories, std::uint64_t* area1,
                               std::uint64_t* area2, std::uint64_t* area3)
{
    StatisticsNames names;
    Tables tables(directories.net);
    std::string rules_source;
    names.areas[0] = FillProtocols(tables, area1);
    names.areas[1] = FillFilter(tables, directories.netfilter, area2, rules_source);
    names.areas[2] = FillDevices(tables, area3);
    names.source = "/proc/net" + tables.Missing() + rules_source;
    names.tables = tables.Count();
    return names;
}

int LinuxOperations::GetStats(vxi_handle_ops_s* handle, vxa_stats_v2_s* stats, unsigned int)
{
    const StatisticsDirectories directories;
    StatisticsNames names = FillStatistics(directories, stats->area1, stats->area2, stats->area3);
    if (names.tables == 0) {
        ThrowError(-ENOENT, "none of the tables in %s can be read", directories.net.c_str());
    }
    const char* const engine = handle->engine->name;
    PublishIfChanged(engine, NameList::kStatistics1, std::move(names.areas[0]));
    PublishIfChanged(engine, NameList::kStatistics2, std::move(names.areas[1]));
    PublishIfChanged(engine, NameList::kStatistics3, std::move(names.areas[2]));
    SetTableSource(Table::kStatistics, "%s", names.source.c_str());
    return 0;
}

}  // namespace vxi
