#include "engines/linux/tables/Statistics.h"

#include <linux/netfilter/nf_tables.h>
#include <net/if.h>

#include <algorithm>
#include <cerrno>

#include "api/Message.h"
#include "engines/linux/netlink/NftDump.h"
#include "engines/linux/scan/ProcessMonitor.h"
#include "engines/linux/Slots.h"
#include "vxi/records.h"

namespace vxi {

namespace {

// Where the parts of the areas begin.
constexpr unsigned snmp_slot = 0;
constexpr unsigned snmp6_slot = 96;
constexpr unsigned sockstat_slot = 192;

constexpr unsigned conntrack_slot = 0;
constexpr unsigned conntrack_sums_slot = 3;
constexpr unsigned rules_slot = 21;
constexpr unsigned own_slot = 25;

constexpr unsigned netstat_slot = 0;
constexpr unsigned interfaces_slot = 256;
constexpr unsigned interface_slots = 17;
constexpr unsigned interfaces_max = 16;
constexpr unsigned softnet_slot = interfaces_slot + interface_slots * interfaces_max;

// The columns of softnet_stat, which alone has no header line (net/core/net-procfs.c). Those
// without a name are always 0, or the number of the processor.
const std::vector<const char*> softnet_columns = {
    "processed",  "dropped",     "time_squeeze", nullptr,      nullptr,
    nullptr,      nullptr,       nullptr,        nullptr,      "received_rps",
    "flow_limit", "backlog_len", nullptr,        "input_qlen", "process_qlen"};

// The tables of one folder; remembers which were not there.
class Tables {
public:
    explicit Tables(const std::string& folder) : folder_(folder) {}

    std::string read(const char* name)
    {
        std::string text;
        if (read_proc(folder_ + name, text) < 0) {
            missing_ += std::string(missing_.empty() ? ", without " : " ") + name;
        } else {
            ++count_;
        }
        return text;
    }

    unsigned count() const { return count_; }
    const std::string& missing() const { return missing_; }

private:
    const std::string& folder_;
    std::string missing_;
    unsigned count_ = 0;
};

SlotNames fill_protocols(Tables& tables, uint64_t* slots)
{
    AreaWriter area(slots, VXA_STATS_AREA1_COUNT);
    // By ICMP type, and so growing with traffic; the totals stand under "Icmp".
    area.put(snmp_slot, snmp6_slot, paired_lines(tables.read("snmp"), "IcmpMsg"));
    area.put(snmp6_slot, sockstat_slot, single_lines(tables.read("snmp6")));
    const std::string sockets = tables.read("sockstat");
    area.put(sockstat_slot, VXA_STATS_AREA1_COUNT,
             grouped_lines(sockets + tables.read("sockstat6")));
    return area.finish();
}

void put_tracking(const std::string& netfilter, AreaWriter& area)
{
    constexpr int64_t countable = 65535;  // flows that a count request can tell
    static constexpr const char* names[] = {"count", "max", "buckets"};
    for (unsigned i = 0; i < std::size(names); ++i) {
        const auto value = read_proc_number(netfilter + "nf_conntrack_" + names[i]);
        if (value) {
            area.put_one(conntrack_slot + i, (std::string("conntrack.") + names[i]).c_str(),
                         static_cast<uint64_t>(*value));
        }
        if (value && i == 0) {
            area.put_one(own_slot + 3, "conntrack.over_65535",
                         static_cast<uint64_t>(std::max<int64_t>(*value - countable, 0)));
        }
    }
}

Outcome put_rules(AreaWriter& area)
{
    static constexpr struct {
        const char* name;
        uint16_t get_type;
    } kinds[] = {{"rules.tables", NFT_MSG_GETTABLE},
                 {"rules.chains", NFT_MSG_GETCHAIN},
                 {"rules.rules", NFT_MSG_GETRULE},
                 {"rules.sets", NFT_MSG_GETSET}};
    Netlink netlink;
    const Outcome opened = open_nf_tables(netlink);
    for (unsigned i = 0; i < std::size(kinds) && !opened.failed(); ++i) {
        uint64_t count = 0;
        const int status = count_nft(netlink, kinds[i].get_type, count);
        // Where rules change all the time, about this many is close enough.
        if (status < 0 && status != -EINTR) {
            return failure(status, "%s: %s", kinds[i].name, describe_status(status).c_str());
        }
        area.put_one(rules_slot + i, kinds[i].name, count);
    }
    return opened;
}

void put_scan(AreaWriter& area)
{
    const ScanStatus scan = process_scan_monitor().status();
    area.put_one(own_slot, "scan.on", scan.target.has_value());
    area.put_one(own_slot + 1, "scan.port", scan.target ? scan.target->port : 0);
    area.put_one(own_slot + 2, "scan.pending", scan.half_open);
    area.put_one(own_slot + 4, "scan.uncounted", scan.uncounted);
}

SlotNames fill_filter(Tables& tables, const std::string& netfilter, uint64_t* slots, Outcome& rules)
{
    AreaWriter area(slots, VXA_STATS_AREA2_COUNT);
    put_tracking(netfilter, area);
    // "entries" is the table's size, given once for every processor: it stands above.
    area.put_or_drop(
        conntrack_sums_slot, rules_slot,
        column_sums(tables.read("stat/nf_conntrack"), "conntrack", std::string_view("entries")));
    rules = put_rules(area);
    put_scan(area);
    return area.finish();
}

// The first interfaces are the machine's own; those of its guests come later.
void put_interfaces(const std::vector<ProcInterface>& interfaces, AreaWriter& area)
{
    unsigned slot = interfaces_slot;
    for (const ProcInterface& each : interfaces) {
        if (slot == softnet_slot) {
            area.drop(each.counters.items.size());
            continue;
        }
        area.put_or_drop(slot, slot + interface_slots - 1, each.counters);
        const unsigned index = if_nametoindex(each.name.c_str());
        if (index > 0) {
            area.put_one(slot + interface_slots - 1, (each.name + ".ifindex").c_str(), index);
        }
        slot += interface_slots;
    }
}

SlotNames fill_devices(Tables& tables, uint64_t* slots)
{
    AreaWriter area(slots, VXA_STATS_AREA3_COUNT);
    area.put(netstat_slot, interfaces_slot, paired_lines(tables.read("netstat"), nullptr));
    put_interfaces(interface_lines(tables.read("dev")), area);
    area.put(softnet_slot, VXA_STATS_AREA3_COUNT,
             column_sums(tables.read("softnet_stat"), "softnet", softnet_columns));
    return area.finish();
}

// Interfaces come and go; the rest changes with the kernel only.
void keep_names(const char* engine, Area area, SlotNames&& names)
{
    const auto known = slot_names(engine, area);
    if (!known || known->names != names.names || known->dropped != names.dropped) {
        set_slot_names(engine, area, std::move(names));
    }
}

}  // namespace

AreaWriter::AreaWriter(uint64_t* slots, unsigned count) : slots_(slots), count_(count)
{
    std::fill_n(slots, count, 0);
    names_.names.resize(count);
}

void AreaWriter::put(unsigned first, unsigned end, ProcItems found)
{
    const size_t fitting = std::min<size_t>(found.items.size(), end - first);
    const auto rest = found.items.begin() + static_cast<ptrdiff_t>(fitting);
    waiting_.insert(waiting_.end(), std::make_move_iterator(rest),
                    std::make_move_iterator(found.items.end()));
    found.items.resize(fitting);
    put_or_drop(first, end, std::move(found));
}

void AreaWriter::put_or_drop(unsigned first, unsigned end, ProcItems found)
{
    unsigned slot = first;
    for (ProcItem& item : found.items) {
        if (slot == end) {
            drop(1);
            continue;
        }
        slots_[slot] = item.value;
        names_.names[slot] = std::move(item.name);
        ++slot;
    }
    drop(found.unreadable);
}

void AreaWriter::put_one(unsigned slot, const char* name, uint64_t value)
{
    slots_[slot] = value;
    names_.names[slot] = name;
}

SlotNames AreaWriter::finish()
{
    unsigned slot = 0;
    for (ProcItem& item : waiting_) {
        while (slot < count_ && !names_.names[slot].empty()) {
            ++slot;
        }
        if (slot == count_) {
            drop(1);
        } else {
            put_one(slot, item.name.c_str(), item.value);
        }
    }
    return std::move(names_);
}

StatisticsNames fill_statistics(const StatisticsFolders& folders, uint64_t* area1, uint64_t* area2,
                                uint64_t* area3)
{
    StatisticsNames names;
    Tables tables(folders.net);
    Outcome rules;
    names.areas[0] = fill_protocols(tables, area1);
    names.areas[1] = fill_filter(tables, folders.netfilter, area2, rules);
    names.areas[2] = fill_devices(tables, area3);
    names.source = "/proc/net" + tables.missing() +
                   (rules.failed() ? "; " + rules.text : std::string(" and nf_tables"));
    names.tables = tables.count();
    return names;
}

int linux_slots::get_stats(vxi_handle_ops_s* handle, vxa_stats_v2_s* stats, unsigned int)
{
    const StatisticsFolders folders;
    StatisticsNames names = fill_statistics(folders, stats->area1, stats->area2, stats->area3);
    if (names.tables == 0) {
        return fail(handle, -ENOENT, "none of the tables in %s can be read", folders.net.c_str());
    }
    const char* const engine = handle->operations->engine;
    keep_names(engine, Area::statistics1, std::move(names.areas[0]));
    keep_names(engine, Area::statistics2, std::move(names.areas[1]));
    keep_names(engine, Area::statistics3, std::move(names.areas[2]));
    note_source(Table::statistics, "%s", names.source.c_str());
    return 0;
}

}  // namespace vxi
