#include <cerrno>
#include <memory>
#include <mutex>
#include <utility>

#include "api/Message.h"
#include "api/Source.h"
#include "engines/linux/HandleState.h"
#include "engines/linux/Operations.h"
#include "engines/linux/netlink/ConntrackDump.h"
#include "engines/linux/netlink/NetNamespace.h"
#include "engines/linux/tables/SocketFlows.h"

namespace vxi {

namespace {

const char* NoConntrack(int status)
{
    switch (status) {
        case 0:
            return "no UDP or TCP flow is tracked";
        case -EPERM:
            return "ctnetlink needs CAP_NET_ADMIN";
        default:
            return nullptr;
    }
}

std::string WhySockets(int status)
{
    const char* const known = NoConntrack(status);
    return known ? known : "ctnetlink: " + DescribeStatus(status);
}

// Flows of other protocols are no part of the table, nor is what cannot be read.
void NoteConntrack(const FlowSnapshot& flows, bool interrupted)
{
    std::string source = "ctnetlink";
    if (interrupted) {
        source += ", incomplete: interrupted every time";
    }
    if (flows.other_protocols > 0) {
        source += ", without " + std::to_string(flows.other_protocols) + " of other protocols";
    }
    if (flows.unreadable > 0) {
        source += ", without " + std::to_string(flows.unreadable) + " unreadable";
    }
    NoteSource(Table::kConntrack, "%s", source.c_str());
}

// The waiting ports of the process's latest reading, for the namespace that it was made in.
class LastWaitingPorts {
public:
    WaitingPorts get(std::uint64_t network)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return network == m_network ? m_ports : WaitingPorts();
    }
    void Set(std::uint64_t network, const WaitingPorts& ports)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_network = network;
        m_ports = ports;
    }

private:
    std::mutex m_mutex;
    std::uint64_t m_network = 0;
    WaitingPorts m_ports;
};
LastWaitingPorts last_waiting_ports;

int read_from_sockets(int conntrack_status, FlowSnapshot& flows)
{
    const std::string why = WhySockets(conntrack_status);
    std::string shortfall;
    const std::uint64_t network = NetworkNamespace();
    WaitingPorts waiting = last_waiting_ports.get(network);
    const Outcome outcome =
        read_socket_flows(KernelSockets({kFlowSocketStates, true}), flows, shortfall, waiting);
    if (outcome.Failed()) {
        ThrowError(outcome.status, "%s; %s", why.c_str(), outcome.text.c_str());
    }
    last_waiting_ports.Set(network, waiting);
    NoteSource(Table::kConntrack, "sock_diag, %s%s", why.c_str(), shortfall.c_str());
    return 0;
}

// Where no rule needs tracking the kernel does none, and its table stays empty: sockets
// then tell more.
int TakeSnapshot(FlowSnapshot& flows)
{
    std::uint32_t expected = 0;
    int status = CountTracked(expected);
    // A dump walks all buckets of the kernel's table, empty ones too.
    if (status == 0 && expected > 0) {
        status = read_conntrack(DumpConntrack, flows);
    }
    if (status == -ECANCELED) {
        ThrowError(status, "ctnetlink: %s", DescribeStatus(status).c_str());
    }
    const bool tracked = flows.udp.total + flows.tcp.total > 0;
    if (status == -EINTR || (status == 0 && tracked)) {
        NoteConntrack(flows, status == -EINTR);
        return 0;
    }
    return read_from_sockets(status, flows);
}

int CountFlows(std::unique_ptr<FlowSnapshot>& kept, vxa_dump_conntrack_s& section)
{
    kept.reset();  // not two at a time
    auto flows = std::make_unique<FlowSnapshot>();
    const int status = TakeSnapshot(*flows);
    if (status == 0) {
        section.entry_ct = flows->Offer();
        kept = std::move(flows);
    }
    return status;
}

}  // namespace

int LinuxOperations::GetConntrack(vxi_handle_ops_s* handle, vxa_dump_conntrack_s* section,
                                  unsigned int, unsigned int*)
{
    std::unique_ptr<FlowSnapshot>& kept = StateOf(handle).flows;
    if (section->protocol == 0) {
        return CountFlows(kept, *section);
    }
    if (!kept || !FetchFlows(*kept, *section)) {
        ThrowError(-ENODATA, "no snapshot: ask for the count first");
    }
    return 0;
}

}  // namespace vxi
