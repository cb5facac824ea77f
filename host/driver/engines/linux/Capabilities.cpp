#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "api/Message.h"
#include "engines/linux/Operations.h"
#include "engines/linux/netlink/ConntrackDump.h"
#include "engines/linux/netlink/NftDump.h"
#include "engines/linux/netlink/SocketDump.h"
#include "engines/linux/proc/ProcText.h"
#include "engines/linux/scan/ProcessMonitor.h"

namespace vxi {

namespace {

void Describe(vxi_capability_s& row, bool available, const std::string& detail)
{
    row.available = available;
    snprintf(row.detail, sizeof row.detail, "%s", detail.c_str());
}

void ScanMetrics(vxi_capability_s& row)
{
    ScanMonitor& monitor = ProcessScanMonitor();
    const Outcome outcome = monitor.Rehearse();
    Describe(row, !outcome.Failed(), outcome.Failed() ? outcome.text : monitor.Description());
}

std::string ConntrackDetail(int status, std::uint32_t tracked)
{
    if (status == -EPERM) {
        return "sock_diag; tracked flows need CAP_NET_ADMIN";
    }
    if (status < 0) {
        return "sock_diag; ctnetlink: " + DescribeStatus(status);
    }
    if (tracked == 0) {
        return "sock_diag; no flow is tracked (a rule that refers to ct starts tracking)";
    }
    return "ctnetlink, " + std::to_string(tracked) + " flows of all protocols tracked";
}

void ConnStates(vxi_capability_s& row)
{
    const int status = AskForNoSockets();
    Describe(row, status == 0, status == 0 ? "sock_diag" : "sock_diag: " + DescribeStatus(status));
}

// Sockets take the place of tracked flows.
void Conntrack(vxi_capability_s& row)
{
    std::uint32_t tracked = 0;
    const int status = CountTracked(tracked);
    ConnStates(row);
    if (row.available || tracked > 0) {
        Describe(row, true, ConntrackDetail(status, tracked));
    }
}

Outcome RulesReadable()
{
    Netlink netlink;
    return OpenNfTables(netlink);
}

void Statistics(vxi_capability_s& row)
{
    std::string text;
    const int status = read_proc("/proc/thread-self/net/snmp", text);
    const Outcome rules = RulesReadable();
    if (status < 0) {
        Describe(row, false, "/proc/net/snmp: " + DescribeStatus(status));
    } else {
        Describe(row, true, "/proc/net" + (rules.Failed() ? "; " + rules.text : " and nf_tables"));
    }
}

void Variables(vxi_capability_s& row)
{
    const bool readable = access("/proc/sys/net/ipv4", R_OK | X_OK) == 0;
    Describe(row, true,
             readable ? "/proc/sys/net" : "the engine's own alone: /proc/sys/net is not readable");
}

void Blacklist(vxi_capability_s& row)
{
    const Outcome rules = RulesReadable();
    Describe(row, !rules.Failed(), rules.Failed() ? rules.text : "nf_tables sets named blacklist*");
}

void RuleProfile(vxi_capability_s& row)
{
    const Outcome rules = RulesReadable();
    Describe(row, !rules.Failed(),
             rules.Failed() ? rules.text : "nf_tables, listed by libnftables");
}

void ScanAccess(vxi_capability_s& row)
{
    row.available = !RulesReadable().Failed();
}

// A rehearsal of the scan table makes the kernel wait for all processors: `quick` goes by
// access alone.
struct Facility {
    const char* name;
    void (*probe)(vxi_capability_s&);
    void (*quick)(vxi_capability_s&);
};

constexpr Facility kFacilities[] = {
    {"scan-metrics", ScanMetrics, ScanAccess},  {"statistics", Statistics, Statistics},
    {"variables", Variables, Variables},        {"conntrack", Conntrack, Conntrack},
    {"conn-states", ConnStates, ConnStates},    {"blacklist", Blacklist, Blacklist},
    {"rule-profile", RuleProfile, RuleProfile},
};

}  // namespace

// The driver is the kernel itself: it answers wherever a netlink socket can be had. What it
// delivers is for the capabilities to say.
int LinuxOperations::DriverAvailable(vxi_handle_ops_s*)
{
    const int descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER);
    if (descriptor >= 0) {
        ::close(descriptor);
    }
    return descriptor >= 0;
}

int LinuxOperations::Capabilities(vxi_handle_ops_s*, vxi_capability_s* rows, unsigned int count)
{
    const unsigned int wanted = std::min<unsigned int>(count, std::size(kFacilities));
    for (unsigned int i = 0; i < wanted; ++i) {
        rows[i].name = kFacilities[i].name;
        kFacilities[i].probe(rows[i]);
    }
    return std::size(kFacilities);
}

std::uint32_t FacilityBits()
{
    std::uint32_t bits = 0;
    vxi_capability_s row = {};
    for (unsigned i = 0; i < std::size(kFacilities); ++i) {
        kFacilities[i].quick(row);
        bits |= static_cast<std::uint32_t>(row.available != 0) << i;
    }
    return bits;
}

}  // namespace vxi
