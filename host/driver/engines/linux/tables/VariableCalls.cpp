#include <linux/capability.h>
#include <linux/netfilter/nf_tables.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <string_view>

#include "api/Variables.h"
#include "engines/linux/tables/Blacklist.h"
#include "engines/linux/proc/KernelSettings.h"
#include "engines/linux/netlink/NetNamespace.h"
#include "engines/linux/netlink/NftDump.h"
#include "engines/linux/proc/ProcText.h"
#include "engines/linux/scan/ProcessMonitor.h"
#include "engines/linux/tables/RuleProfile.h"
#include "engines/linux/Slots.h"

namespace vxi {

namespace {

constexpr uint32_t abi = 1;
constexpr uint32_t engine_kind = 1;  // a simulated one is 2
constexpr uint32_t absent = VXA_FILTER_VARIABLE_ABSENT;
constexpr unsigned trace_level_max = 3;

// Major, minor and patch as the kernel's own KERNEL_VERSION packs them.
uint32_t kernel_version()
{
    utsname names = {};
    unsigned major = 0;
    unsigned minor = 0;
    unsigned patch = 0;
    if (uname(&names) != 0 || sscanf(names.release, "%u.%u.%u", &major, &minor, &patch) < 2) {
        return absent;
    }
    return major << 16 | std::min(minor, 255U) << 8 | std::min(patch, 255U);
}

// The effective capabilities 0 to 30, by their own numbers. Number 31 is left out: all of
// them together would read as "absent".
uint32_t capability_bits()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    return syscall(SYS_capget, &header, data) == 0 ? data[0].effective & 0x7fffffffU : absent;
}

uint32_t scan_value(uint32_t number)
{
    const ScanStatus scan = process_scan_monitor().status();
    switch (number) {
        case variable_scan_on:
            return scan.target.has_value();
        case variable_scan_port:
            return scan.target ? scan.target->port : 0;
        case variable_scan_direction:
            return scan.target ? scan.target->direction : 0;
        default:
            return scan.half_open_timeout_s;
    }
}

uint32_t nft_count(uint16_t get_type)
{
    Netlink netlink;
    uint64_t count = 0;
    if (open_nf_tables(netlink).failed()) {
        return absent;
    }
    const int status = count_nft(netlink, get_type, count);
    return status == 0 || status == -EINTR ? setting_value(static_cast<int64_t>(count)) : absent;
}

uint32_t blacklist_elements()
{
    Netlink netlink;
    BlacklistSnapshot snapshot;
    return read_blacklist(netlink, snapshot).failed()
               ? absent
               : setting_value(static_cast<int64_t>(snapshot.entries.size()));
}

// Tracking works while some rule asks for it; then there are flows.
bool conntrack_active()
{
    return read_proc_number(setting_path(variable_name(variable_conntrack_count))).value_or(0) > 0;
}

bool conntrack_accounting()
{
    return read_proc_number(setting_path(variable_name(variable_first_setting))).value_or(0) > 0;
}

uint32_t own_value(vxi_handle_ops_s* handle, uint32_t number)
{
    switch (number) {
        case variable_abi:
            return abi;
        case variable_engine_kind:
            return engine_kind;
        case variable_kernel_version:
            return kernel_version();
        case variable_capability_bits:
            return capability_bits();
        case variable_facility_bits:
            return linux_slots::facility_bits();
        case variable_scan_on:
        case variable_scan_port:
        case variable_scan_direction:
        case variable_scan_timeout_s:
            return scan_value(number);
        case variable_scan_set_size:
            return half_open_max;
        case variable_trace_level:
            return static_cast<uint32_t>(handle->trace_level);
        case variable_conntrack_active:
            return conntrack_active();
        case variable_conntrack_accounting:
            return conntrack_accounting();
        case variable_process_id:
            return static_cast<uint32_t>(getpid());
        case variable_network_namespace:
            return setting_value(static_cast<int64_t>(network_namespace()));
        case variable_initial_namespace:
            return in_initial_namespace();
        case variable_nft_tables:
            return nft_count(NFT_MSG_GETTABLE);
        case variable_nft_rules:
            return nft_count(NFT_MSG_GETRULE);
        case variable_blacklist_elements:
            return blacklist_elements();
        case variable_rule_profiling:
            return process_rule_profiler().value();
        default:
            return 0;  // variable_reserved
    }
}

}  // namespace

int linux_slots::get_variable(vxi_handle_ops_s* handle, vxa_filter_variable_s* variable)
{
    const std::string_view name = variable_name(variable->number);
    const bool setting = name.substr(0, 4) == "net.";
    variable->value = setting ? setting_value(read_proc_number(setting_path(name.data())))
                              : own_value(handle, variable->number);
    return 0;
}

int linux_slots::set_variable(vxi_handle_ops_s* handle, unsigned int number, unsigned int value)
{
    if (number == variable_rule_profiling) {
        const Outcome outcome = process_rule_profiler().set(value);
        return outcome.failed() ? fail(handle, outcome.status, "%s", outcome.text.c_str()) : 0;
    }
    if (number != variable_trace_level) {
        return fail(handle, -EROFS, "variable %u (%s) is not writable", number,
                    variable_name(number));
    }
    if (value > trace_level_max) {
        return fail(handle, -EINVAL, "trace level %u is above %u", value, trace_level_max);
    }
    handle->trace_level = static_cast<int>(value);
    return 0;
}

}  // namespace vxi
