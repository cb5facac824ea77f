# The Linux engine: sources relative to platform/libvxi, and the libraries they need.
# libnftnl is under the GPL: it is linked into libvxi alone, never into a plugin.
pkg_check_modules(libmnl REQUIRED IMPORTED_TARGET libmnl)
pkg_check_modules(libnftnl REQUIRED IMPORTED_TARGET libnftnl)

set(LINUX_ENGINE_LIBRARIES PkgConfig::libmnl PkgConfig::libnftnl)
set(LINUX_ENGINE_SOURCES
    engines/linux/Capabilities.cpp
    engines/linux/ConnStates.cpp
    engines/linux/ConntrackDump.cpp
    engines/linux/Engine.cpp
    engines/linux/FlowSnapshot.cpp
    engines/linux/Flows.cpp
    engines/linux/HandleState.cpp
    engines/linux/Netlink.cpp
    engines/linux/NftBatch.cpp
    engines/linux/Outcome.cpp
    engines/linux/ProcessMonitor.cpp
    engines/linux/ScanCalls.cpp
    engines/linux/ScanCounters.cpp
    engines/linux/ScanMonitor.cpp
    engines/linux/ScanTable.cpp
    engines/linux/SocketDump.cpp
    engines/linux/SocketFlows.cpp)
