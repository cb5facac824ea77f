#include "engines/linux/netlink/NetNamespace.h"

#include <sys/stat.h>
#include <unistd.h>

namespace vxi {

std::uint64_t NetworkNamespace()
{
    struct stat info;
    return stat("/proc/thread-self/ns/net", &info) == 0 ? info.st_ino : 0;
}

// The inode differs between kernels. Settings of the whole machine are shown in the initial
// namespace alone.
bool InInitialNamespace()
{
    return access("/proc/sys/net/core/netdev_max_backlog", F_OK) == 0;
}

}  // namespace vxi
