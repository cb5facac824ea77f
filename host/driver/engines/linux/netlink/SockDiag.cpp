// Requests of linux/inet_diag.h.
#include "engines/linux/netlink/SockDiag.h"

#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "api/Cancel.h"
#include "api/Error.h"

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

Consistency DumpSockets(const SocketTable& table, const SocketQuery& query, Netlink::Visitor visit)
{
    Netlink netlink;
    netlink.Open(NETLINK_SOCK_DIAG);
    Request request = {};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.sockets.sdiag_family = table.family;
    request.sockets.sdiag_protocol = table.protocol;
    request.sockets.idiag_states = query.states;
    if (query.with_tcp_info && table.protocol == IPPROTO_TCP) {
        request.sockets.idiag_ext = 1 << (INET_DIAG_INFO - 1);
    }
    return netlink.Request(request.header, visit);
}

void AddSocket(const nlmsghdr& message, unsigned table, const SocketSink& sink)
{
    if (message.nlmsg_type != SOCK_DIAG_BY_FAMILY ||
        message.nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) {
        return;
    }
    inet_diag_msg socket;
    memcpy(&socket, NLMSG_DATA(&message), sizeof socket);
    sink.add(table, socket, Attributes(message, sizeof socket));
}

Consistency ReadTable(const SocketDump& dump, unsigned table, const SocketSink& sink)
{
    return RetryInterrupted([&] {
        sink.begin(table);
        return dump(kSocketTables[table], [&](const nlmsghdr& message) {
            AddSocket(message, table, sink);
            ThrowIfCancelled("sock_diag");
        });
    });
}

}  // namespace

SocketDump KernelSockets(const SocketQuery& query)
{
    return [query](const SocketTable& table, Netlink::Visitor visit) {
        return DumpSockets(table, query, visit);
    };
}

void CheckSockDiag()
{
    DumpSockets(kSocketTables[0], {0, false}, [](const nlmsghdr&) {});
}

std::string ReadSockets(const SocketDump& dump, const SocketSink& sink)
{
    unsigned failed = 0;
    std::string missing;
    std::optional<Error> last_failure;
    for (unsigned table = 0; table < kSocketTableCount; ++table) {
        const std::string name = kSocketTables[table].name;
        try {
            if (ReadTable(dump, table, sink) == Consistency::kInterrupted) {
                missing += ", " + name + " interrupted: incomplete";
            }
        } catch (const Error& error) {
            if (error.Status() == -ECANCELED) {
                throw;
            }
            sink.begin(table);
            missing += ", " + name + " missing: " + error.what();
            last_failure = error;
            ++failed;
        }
    }
    if (failed == kSocketTableCount) {
        ThrowError(last_failure->Status(), "sock_diag: %s", last_failure->what());
    }
    return missing;
}

}  // namespace vxi
