#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "api/Message.h"
#include "engines/linux/netlink/ConntrackDump.h"
#include "engines/linux/netlink/NftDump.h"
#include "engines/linux/proc/ProcText.h"
#include "engines/linux/scan/ProcessMonitor.h"
#include "engines/linux/Slots.h"
#include "engines/linux/netlink/SocketDump.h"

namespace vxi::linux_slots {

namespace {

void describe(vxi_capability_s& row, bool available, const std::string& detail)
{
    row.available = available;
    snprintf(row.detail, sizeof row.detail, "%s", detail.c_str());
}

void scan_metrics(vxi_capability_s& row)
{
    ScanMonitor& monitor = process_scan_monitor();
    const Outcome outcome = monitor.rehearse();
    describe(row, !outcome.failed(), outcome.failed() ? outcome.text : monitor.description());
}

std::string conntrack_detail(int status, uint32_t tracked)
{
    if (status == -EPERM) {
        return "sock_diag; tracked flows need CAP_NET_ADMIN";
    }
    if (status < 0) {
        return "sock_diag; ctnetlink: " + describe_status(status);
    }
    if (tracked == 0) {
        return "sock_diag; no flow is tracked (a rule that refers to ct starts tracking)";
    }
    return "ctnetlink, " + std::to_string(tracked) + " flows of all protocols tracked";
}

void conn_states(vxi_capability_s& row)
{
    const int status = ask_for_no_sockets();
    describe(row, status == 0, status == 0 ? "sock_diag" : "sock_diag: " + describe_status(status));
}

// Sockets take the place of tracked flows.
void conntrack(vxi_capability_s& row)
{
    uint32_t tracked = 0;
    const int status = count_tracked(tracked);
    conn_states(row);
    if (row.available || tracked > 0) {
        describe(row, true, conntrack_detail(status, tracked));
    }
}

Outcome rules_readable()
{
    Netlink netlink;
    return open_nf_tables(netlink);
}

void statistics(vxi_capability_s& row)
{
    std::string text;
    const int status = read_proc("/proc/thread-self/net/snmp", text);
    const Outcome rules = rules_readable();
    if (status < 0) {
        describe(row, false, "/proc/net/snmp: " + describe_status(status));
    } else {
        describe(row, true, "/proc/net" + (rules.failed() ? "; " + rules.text : " and nf_tables"));
    }
}

void variables(vxi_capability_s& row)
{
    const bool readable = access("/proc/sys/net/ipv4", R_OK | X_OK) == 0;
    describe(row, true,
             readable ? "/proc/sys/net" : "the engine's own alone: /proc/sys/net is not readable");
}

void blacklist(vxi_capability_s& row)
{
    const Outcome rules = rules_readable();
    describe(row, !rules.failed(), rules.failed() ? rules.text : "nf_tables sets named blacklist*");
}

void rule_profile(vxi_capability_s& row)
{
    const Outcome rules = rules_readable();
    describe(row, !rules.failed(),
             rules.failed() ? rules.text : "nf_tables, listed by libnftables");
}

void scan_access(vxi_capability_s& row)
{
    row.available = !rules_readable().failed();
}

// A rehearsal of the scan table makes the kernel wait for all processors: `quick` goes by
// access alone.
struct Facility {
    const char* name;
    void (*probe)(vxi_capability_s&);
    void (*quick)(vxi_capability_s&);
};

constexpr Facility facilities[] = {
    {"scan-metrics", scan_metrics, scan_access},  {"statistics", statistics, statistics},
    {"variables", variables, variables},          {"conntrack", conntrack, conntrack},
    {"conn-states", conn_states, conn_states},    {"blacklist", blacklist, blacklist},
    {"rule-profile", rule_profile, rule_profile},
};

}  // namespace

// The driver is the kernel itself: it answers wherever a netlink socket can be had. What it
// delivers is for the capabilities to say.
int available(vxi_handle_ops_s*)
{
    const int descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER);
    if (descriptor >= 0) {
        ::close(descriptor);
    }
    return descriptor >= 0;
}

int capabilities(vxi_handle_ops_s*, vxi_capability_s* rows, unsigned int count)
{
    const unsigned int wanted = std::min<unsigned int>(count, std::size(facilities));
    for (unsigned int i = 0; i < wanted; ++i) {
        rows[i].name = facilities[i].name;
        facilities[i].probe(rows[i]);
    }
    return std::size(facilities);
}

uint32_t facility_bits()
{
    uint32_t bits = 0;
    vxi_capability_s row = {};
    for (unsigned i = 0; i < std::size(facilities); ++i) {
        facilities[i].quick(row);
        bits |= static_cast<uint32_t>(row.available != 0) << i;
    }
    return bits;
}

}  // namespace vxi::linux_slots
