// Requests of linux/netfilter/nfnetlink_conntrack.h.
#include "engines/linux/netlink/Ctnetlink.h"

#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <sys/socket.h>

#include <cerrno>
#include <optional>

#include "api/Error.h"
#include "engines/linux/netlink/NfTables.h"

namespace vxi {

namespace {

constexpr std::uint16_t MessageType(std::uint16_t type)
{
    return NFNL_SUBSYS_CTNETLINK << 8 | type;
}

Consistency Request(std::uint16_t type, std::uint16_t flags, Netlink::Visitor visit)
{
    Netlink netlink;
    netlink.Open(NETLINK_NETFILTER);
    alignas(nlmsghdr) char buffer[NLMSG_SPACE(sizeof(nfgenmsg))];
    // AF_UNSPEC: all families.
    return netlink.Request(*PutNetfilterHeader(buffer, MessageType(type), flags, AF_UNSPEC, 0),
                           visit);
}

}  // namespace

Consistency DumpConntrack(Netlink::Visitor visit)
{
    return Request(IPCTNL_MSG_CT_GET, NLM_F_DUMP, visit);
}

bool IsConntrackEntry(const nlmsghdr& message)
{
    return message.nlmsg_type == MessageType(IPCTNL_MSG_CT_NEW);
}

std::uint32_t CountConntrackEntries()
{
    std::optional<std::uint32_t> count;
    Request(IPCTNL_MSG_CT_GET_STATS, NLM_F_ACK, [&](const nlmsghdr& message) {
        if (message.nlmsg_type == MessageType(IPCTNL_MSG_CT_GET_STATS)) {
            const Attributes statistics(message, sizeof(nfgenmsg));
            count = DecodeBe32(statistics.Find(CTA_STATS_GLOBAL_ENTRIES));
        }
    });
    if (!count) {
        throw Error(-EPROTO);
    }
    return *count;
}

}  // namespace vxi
