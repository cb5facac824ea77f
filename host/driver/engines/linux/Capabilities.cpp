// vxi_driver_available and vxi_capabilities: what the engine delivers on this machine.
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>

#include "api/Error.h"
#include "engines/linux/Operations.h"
#include "engines/linux/netlink/Ctnetlink.h"
#include "engines/linux/netlink/NfTables.h"
#include "engines/linux/netlink/SockDiag.h"
#include "engines/linux/proc/ProcFile.h"
#include "engines/linux/scan/ProcessScanMonitor.h"

namespace vxi {

namespace {

// Each returns the source of a facility's data, or throws Error with the reason why there is none.

std::string ScanMetricsSource()
{
    ScanMonitor& monitor = ProcessScanMonitor();
    monitor.CheckStart();
    return monitor.Description();
}

std::string SocketsSource()
try {
    CheckSockDiag();
    return "sock_diag";
} catch (const Error& error) {
    ThrowError(error.Status(), "sock_diag: %s", error.what());
}

// Returns why conntrack entries cannot be read, or that there are none; nullopt otherwise.
std::optional<std::string> WhyNotTracked(std::uint32_t& entries)
try {
    entries = CountConntrackEntries();
    if (entries > 0) {
        return std::nullopt;
    }
    return "no flow is tracked (a rule that refers to ct starts tracking)";
} catch (const Error& error) {
    return error.Status() == -EPERM ? "tracked flows need CAP_NET_ADMIN"
                                    : std::string("ctnetlink: ") + error.what();
}

// Sockets are read where no flows are tracked.
std::string ConntrackSource()
{
    std::uint32_t entries = 0;
    if (const auto reason = WhyNotTracked(entries)) {
        return SocketsSource() + "; " + *reason;
    }
    return "ctnetlink, " + std::to_string(entries) + " flows of all protocols tracked";
}

void CheckNfTables()
{
    Netlink netlink;
    OpenNfTables(netlink);
}

std::string StatisticsSource()
{
    try {
        ReadProcFile("/proc/thread-self/net/snmp");
    } catch (const Error& error) {
        ThrowError(error.Status(), "/proc/net/snmp: %s", error.what());
    }
    try {
        CheckNfTables();
    } catch (const Error& error) {
        return std::string("/proc/net; ") + error.what();
    }
    return "/proc/net and nf_tables";
}

std::string VariablesSource()
{
    const bool readable = access("/proc/sys/net/ipv4", R_OK | X_OK) == 0;
    return readable ? "/proc/sys/net" : "only the engine's own: /proc/sys/net is not readable";
}

std::string BlacklistSource()
{
    CheckNfTables();
    return "nf_tables sets named blacklist*";
}

std::string RuleProfileSource()
{
    CheckNfTables();
    return "nf_tables, listed by libnftables";
}

// Throws unless scan metrics are likely to be available.
std::string ScanMetricsAccess()
{
    CheckNfTables();
    return "nf_tables";
}

// `check` throws like `source` but is quick: rehearsing the scan table makes the kernel wait for
// all processors.
struct Facility {
    std::string (*source)();
    std::string (*check)();
};

constexpr Facility kFacilities[] = {
    {ScanMetricsSource, ScanMetricsAccess}, {StatisticsSource, StatisticsSource},
    {VariablesSource, VariablesSource},     {ConntrackSource, ConntrackSource},
    {SocketsSource, SocketsSource},         {BlacklistSource, BlacklistSource},
    {RuleProfileSource, RuleProfileSource},
};
static_assert(std::size(kFacilities) == std::size(kFacilityNames), "one for each facility");

vxi_capability_s Capability(const char* name, std::string (*source)())
{
    vxi_capability_s row = {};
    row.name = name;
    std::string detail;
    try {
        detail = source();
        row.available = 1;
    } catch (const Error& error) {
        detail = error.what();
    }
    snprintf(row.detail, sizeof row.detail, "%s", detail.c_str());
    return row;
}

}  // namespace

// The driver is the kernel itself, which answers wherever a netlink socket can be opened. The
// capabilities show what it delivers.
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
        rows[i] = Capability(kFacilityNames[i], kFacilities[i].source);
    }
    return std::size(kFacilities);
}

std::uint32_t FacilityBits()
{
    std::uint32_t bits = 0;
    for (unsigned i = 0; i < std::size(kFacilities); ++i) {
        const auto row = Capability(kFacilityNames[i], kFacilities[i].check);
        bits |= static_cast<std::uint32_t>(row.available) << i;
    }
    return bits;
}

}  // namespace vxi
