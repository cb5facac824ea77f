# The Linux engine: sources relative to host/driver, and the libraries they need.
# libnftnl and libnftables are under the GPL: they are linked into libvxi alone, never into a
# plugin.
pkg_check_modules(libmnl REQUIRED IMPORTED_TARGET libmnl)
pkg_check_modules(libnftnl REQUIRED IMPORTED_TARGET libnftnl)
pkg_check_modules(libnftables REQUIRED IMPORTED_TARGET libnftables)

set(LINUX_ENGINE_LIBRARIES PkgConfig::libmnl PkgConfig::libnftnl PkgConfig::libnftables)
set(LINUX_ENGINE_SOURCES
    engines/linux/Capabilities.cpp
    engines/linux/Engine.cpp
    engines/linux/HandleSnapshots.cpp
    engines/linux/netlink/Ctnetlink.cpp
    engines/linux/netlink/NetNamespace.cpp
    engines/linux/netlink/Netlink.cpp
    engines/linux/netlink/NfTables.cpp
    engines/linux/netlink/NftBatch.cpp
    engines/linux/netlink/SockDiag.cpp
    engines/linux/proc/ProcFile.cpp
    engines/linux/proc/ProcTables.cpp
    engines/linux/proc/Sysctl.cpp
    engines/linux/scan/HandshakeTimeout.cpp
    engines/linux/scan/NftRule.cpp
    engines/linux/scan/ProcessScanMonitor.cpp
    engines/linux/scan/ScanCounters.cpp
    engines/linux/scan/ScanMetrics.cpp
    engines/linux/scan/ScanMonitor.cpp
    engines/linux/scan/ScanOperations.cpp
    engines/linux/scan/ScanRules.cpp
    engines/linux/scan/ScanTable.cpp
    engines/linux/scan/ScanTableName.cpp
    engines/linux/tables/Blacklist.cpp
    engines/linux/tables/ConnStates.cpp
    engines/linux/tables/FilterVariables.cpp
    engines/linux/tables/FlowSnapshot.cpp
    engines/linux/tables/FlowsFromConntrack.cpp
    engines/linux/tables/FlowsFromSockets.cpp
    engines/linux/tables/GetConntrack.cpp
    engines/linux/tables/JsonString.cpp
    engines/linux/tables/RuleProfile.cpp
    engines/linux/tables/RulesetJson.cpp
    engines/linux/tables/Statistics.cpp)
