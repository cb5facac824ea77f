// vxi_get_var and vxi_set_var: the kernel's settings and the engine's own values by number.
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

#include "api/Error.h"
#include "engines/linux/Operations.h"
#include "engines/linux/netlink/NetNamespace.h"
#include "engines/linux/netlink/NfTables.h"
#include "engines/linux/proc/Sysctl.h"
#include "engines/linux/scan/ProcessScanMonitor.h"
#include "engines/linux/tables/Blacklist.h"
#include "engines/linux/tables/RuleProfile.h"
#include "records/Variables.h"

namespace vxi {

namespace {

constexpr std::uint32_t kEngineKind = 1;  // a simulated one is 2
constexpr std::uint32_t kAbsent = VXA_FILTER_VARIABLE_ABSENT;
constexpr unsigned kTraceLevelMax = 3;

// Major, minor and patch as the kernel's own KERNEL_VERSION packs them.
std::uint32_t KernelVersion()
{
    utsname names = {};
    unsigned major = 0;
    unsigned minor = 0;
    unsigned patch = 0;
    if (uname(&names) != 0 || sscanf(names.release, "%u.%u.%u", &major, &minor, &patch) < 2) {
        return kAbsent;
    }
    return major << 16 | std::min(minor, 255U) << 8 | std::min(patch, 255U);
}

// The effective capabilities 0 to 30 (capabilities(7)), a bit each. Number 31 is left out: all bits
// set would read as "absent".
std::uint32_t CapabilityBits()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    return syscall(SYS_capget, &header, data) == 0 ? data[0].effective & 0x7fffffffU : kAbsent;
}

std::uint32_t ScanValue(std::uint32_t number)
{
    const ScanStatus scan = ProcessScanMonitor().Status();
    switch (number) {
        case kVariableScanOn:
            return scan.target.has_value();
        case kVariableScanPort:
            return scan.target ? scan.target->port : 0;
        case kVariableScanDirection:
            return scan.target ? scan.target->direction : 0;
        default:
            return scan.half_open_timeout_s;
    }
}

std::uint64_t CountNftObjects(std::uint16_t get_type)
{
    Netlink netlink;
    OpenNfTables(netlink);
    return CountNftObjects(netlink, get_type);
}

// A number from nf_tables; absent where nf_tables cannot be read.
std::uint32_t NftValue(std::uint32_t number)
try {
    const std::uint64_t count = number == kVariableNftTables  ? CountNftObjects(NFT_MSG_GETTABLE)
                                : number == kVariableNftRules ? CountNftObjects(NFT_MSG_GETRULE)
                                                              : ReadBlacklist().entries.size();
    return EncodeVariable(static_cast<std::int64_t>(count));
} catch (const Error&) {
    return kAbsent;
}

// Connections are tracked while a rule needs it, and then there are entries.
bool ConntrackActive()
{
    return ReadSysctl(VariableName(kVariableConntrackCount)).value_or(0) > 0;
}

bool ConntrackAccounting()
{
    return ReadSysctl(VariableName(kVariableFirstSetting)).value_or(0) > 0;
}

std::uint32_t OwnValue(vxi_handle_ops_s* handle, std::uint32_t number)
{
    switch (number) {
        case kVariableAbi:
            return VXI_ABI_VERSION;
        case kVariableEngineKind:
            return kEngineKind;
        case kVariableKernelVersion:
            return KernelVersion();
        case kVariableCapabilityBits:
            return CapabilityBits();
        case kVariableFacilityBits:
            return FacilityBits();
        case kVariableScanOn:
        case kVariableScanPort:
        case kVariableScanDirection:
        case kVariableScanTimeoutS:
            return ScanValue(number);
        case kVariableScanSetSize:
            return kHalfOpenMax;
        case kVariableTraceLevel:
            return static_cast<std::uint32_t>(handle->trace_level);
        case kVariableConntrackActive:
            return ConntrackActive();
        case kVariableConntrackAccounting:
            return ConntrackAccounting();
        case kVariableProcessId:
            return static_cast<std::uint32_t>(getpid());
        case kVariableNetworkNamespace:
            return EncodeVariable(static_cast<std::int64_t>(NetworkNamespace().value_or(0)));
        case kVariableInitialNamespace:
            return InInitialNamespace();
        case kVariableNftTables:
        case kVariableNftRules:
        case kVariableBlacklistElements:
            return NftValue(number);
        case kVariableRuleProfiling:
            return ProcessRuleProfiler().Value();
        default:
            return 0;  // kVariableReserved
    }
}

}  // namespace

int LinuxOperations::GetVarv(vxi_handle_ops_s* handle, vxa_filter_variable_s* variable)
{
    const std::string_view name = VariableName(variable->number);
    const bool setting = name.substr(0, 4) == "net.";
    variable->value =
        setting ? EncodeVariable(ReadSysctl(name.data())) : OwnValue(handle, variable->number);
    return 0;
}

int LinuxOperations::SetVar(vxi_handle_ops_s* handle, unsigned int number, unsigned int value)
{
    if (number == kVariableRuleProfiling) {
        ProcessRuleProfiler().Set(value);
        return 0;
    }
    if (number != kVariableTraceLevel) {
        ThrowError(-EROFS, "variable %u (%s) is not writable", number, VariableName(number));
    }
    if (value > kTraceLevelMax) {
        ThrowError(-EINVAL, "trace level %u is above %u", value, kTraceLevelMax);
    }
    handle->trace_level = static_cast<int>(value);
    return 0;
}

}  // namespace vxi
