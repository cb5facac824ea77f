#include "engines/linux/netlink/SocketDump.h"

#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "api/Cancel.h"
#include "api/Message.h"

namespace vxi {

const SocketTable kSocketTables[kSocketTableCount] = {
    {AF_INET, IPPROTO_TCP, "IPv4 tcp"},
    {AF_INET6, IPPROTO_TCP, "IPv6 tcp"},
    {AF_INET, IPPROTO_UDP, "IPv4 udp"},
    {AF_INET6, IPPROTO_UDP, "IPv6 udp"},
};

namespace {

struct Request {
    nlmsghdr header;
    inet_diag_req_v2 sockets;
};

int DumpSockets(const SocketTable& table, const SocketQuery& query, const Netlink::Visit& visit)
{
    Netlink netlink;
    const int status = netlink.Open(NETLINK_SOCK_DIAG);
    if (status < 0) {
        return status;
    }
    Request request = {};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.sockets.sdiag_family = table.family;
    request.sockets.sdiag_protocol = table.protocol;
    request.sockets.idiag_states = query.states;
    if (query.details && table.protocol == IPPROTO_TCP) {
        request.sockets.idiag_ext = 1 << (INET_DIAG_INFO - 1);
    }
    return netlink.Request(request.header, visit);
}

void TakeSocket(const nlmsghdr& message, unsigned table, const SocketSink& sink)
{
    if (message.nlmsg_type != SOCK_DIAG_BY_FAMILY ||
        message.nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) {
        return;
    }
    inet_diag_msg socket;
    memcpy(&socket, NLMSG_DATA(&message), sizeof socket);
    sink.take(table, socket, Attributes(message, sizeof socket));
}

int read_table(const SocketDump& dump, unsigned table, const SocketSink& sink)
{
    return RetryInterrupted([&] {
        sink.begin(table);
        return dump(kSocketTables[table], [&](const nlmsghdr& message) {
            TakeSocket(message, table, sink);
            return IsCancelled() ? -ECANCELED : 0;
        });
    });
}

}  // namespace

SocketDump KernelSockets(const SocketQuery& query)
{
    return [query](const SocketTable& table, const Netlink::Visit& visit) {
        return DumpSockets(table, query, visit);
    };
}

int AskForNoSockets()
{
    return DumpSockets(kSocketTables[0], {0, false}, [](const nlmsghdr&) { return 0; });
}

Outcome read_sockets(const SocketDump& dump, const SocketSink& sink, std::string& shortfall)
{
    unsigned failed = 0;
    int last_failure = 0;
    shortfall.clear();
    for (unsigned table = 0; table < kSocketTableCount; ++table) {
        const int status = read_table(dump, table, sink);
        if (status == -ECANCELED) {
            return Failure(status, "sock_diag: %s", DescribeStatus(status).c_str());
        }
        if (status == -EINTR) {
            shortfall += std::string(", ") + kSocketTables[table].name + " interrupted: incomplete";
        } else if (status < 0) {
            sink.begin(table);
            shortfall += std::string(", ") + kSocketTables[table].name +
                         " missing: " + DescribeStatus(status);
            last_failure = status;
            ++failed;
        }
    }
    if (failed == kSocketTableCount) {
        return Failure(last_failure, "sock_diag: %s", DescribeStatus(last_failure).c_str());
    }
    return {};
}

}  // namespace vxi
