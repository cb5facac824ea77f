// Identifies network namespaces by what /proc shows of them.
#include "engines/linux/netlink/NetNamespace.h"

#include <sys/stat.h>
#include <unistd.h>

namespace vxi {

std::optional<std::uint64_t> NetworkNamespace()
{
    struct stat info;
    if (stat("/proc/thread-self/ns/net", &info) != 0) {
        return std::nullopt;
    }
    return info.st_ino;
}

// The inode of the initial namespace differs between kernels. This setting of the whole machine
// is shown in the initial namespace alone (net/core/sysctl_net_core.c).
bool InInitialNamespace()
{
    return access("/proc/sys/net/core/netdev_max_backlog", F_OK) == 0;
}

}  // namespace vxi
