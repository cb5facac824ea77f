# The Linux engine: sources relative to platform/libvxi, and the libraries they need.
# libnftnl and libnftables are under the GPL: they are linked into libvxi alone, never into a
# plugin.
pkg_check_modules(libmnl REQUIRED IMPORTED_TARGET libmnl)
pkg_check_modules(libnftnl REQUIRED IMPORTED_TARGET libnftnl)
pkg_check_modules(libnftables REQUIRED IMPORTED_TARGET libnftables)

set(LINUX_ENGINE_LIBRARIES PkgConfig::libmnl PkgConfig::libnftnl PkgConfig::libnftables)
set(LINUX_ENGINE_SOURCES
    engines/linux/tables/Blacklist.cpp
    engines/linux/Capabilities.cpp
    engines/linux/tables/ConnStates.cpp
    engines/linux/netlink/ConntrackDump.cpp
    engines/linux/Engine.cpp
    engines/linux/tables/FlowSnapshot.cpp
    engines/linux/tables/Flows.cpp
    engines/linux/HandleState.cpp
    engines/linux/tables/JsonText.cpp
    engines/linux/proc/KernelSettings.cpp
    engines/linux/netlink/NetNamespace.cpp
    engines/linux/netlink/Netlink.cpp
    engines/linux/netlink/NftBatch.cpp
    engines/linux/netlink/NftDump.cpp
    engines/linux/Outcome.cpp
    engines/linux/proc/ProcText.cpp
    engines/linux/scan/ProcessMonitor.cpp
    engines/linux/tables/RuleProfile.cpp
    engines/linux/tables/RulesetJson.cpp
    engines/linux/scan/ScanCalls.cpp
    engines/linux/scan/ScanCounters.cpp
    engines/linux/scan/ScanMonitor.cpp
    engines/linux/scan/ScanTable.cpp
    engines/linux/netlink/SocketDump.cpp
    engines/linux/tables/SocketFlows.cpp
    engines/linux/tables/Statistics.cpp
    engines/linux/tables/VariableCalls.cpp)
