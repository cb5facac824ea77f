# The Linux engine: sources relative to platform/libvxi, and the libraries they need.
# libnftnl and libnftables are under the GPL: they are linked into libvxi alone, never into a
# plugin.
pkg_check_modules(libmnl REQUIRED IMPORTED_TARGET libmnl)
pkg_check_modules(libnftnl REQUIRED IMPORTED_TARGET libnftnl)
pkg_check_modules(libnftables REQUIRED IMPORTED_TARGET libnftables)

set(LINUX_ENGINE_LIBRARIES PkgConfig::libmnl PkgConfig::libnftnl PkgConfig::libnftables)
set(LINUX_ENGINE_SOURCES
    engines/linux/Blacklist.cpp
    engines/linux/Capabilities.cpp
    engines/linux/ConnStates.cpp
    engines/linux/ConntrackDump.cpp
    engines/linux/Engine.cpp
    engines/linux/FlowSnapshot.cpp
    engines/linux/Flows.cpp
    engines/linux/HandleState.cpp
    engines/linux/JsonText.cpp
    engines/linux/KernelSettings.cpp
    engines/linux/NetNamespace.cpp
    engines/linux/Netlink.cpp
    engines/linux/NftBatch.cpp
    engines/linux/NftDump.cpp
    engines/linux/Outcome.cpp
    engines/linux/ProcText.cpp
    engines/linux/ProcessMonitor.cpp
    engines/linux/RuleProfile.cpp
    engines/linux/RulesetJson.cpp
    engines/linux/ScanCalls.cpp
    engines/linux/ScanCounters.cpp
    engines/linux/ScanMonitor.cpp
    engines/linux/ScanTable.cpp
    engines/linux/SocketDump.cpp
    engines/linux/SocketFlows.cpp
    engines/linux/Statistics.cpp
    engines/linux/VariableCalls.cpp)
