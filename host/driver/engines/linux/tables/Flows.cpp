#include <cerrno>
#include <memory>
#include <mutex>
#include <utility>

#include "api/Message.h"
#include "api/Source.h"
#include "engines/linux/netlink/ConntrackDump.h"
#include "engines/linux/HandleState.h"
#include "engines/linux/netlink/NetNamespace.h"
#include "engines/linux/Slots.h"
#include "engines/linux/tables/SocketFlows.h"

namespace vxi::linux_slots {

namespace {

const char* no_conntrack(int status)
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

std::string why_sockets(int status)
{
    const char* const known = no_conntrack(status);
    return known ? known : "ctnetlink: " + describe_status(status);
}

// Flows of other protocols are no part of the table, nor is what cannot be read.
void note_conntrack(const FlowSnapshot& flows, bool interrupted)
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
    note_source(Table::conntrack, "%s", source.c_str());
}

// The waiting ports of the process's latest reading, for the namespace that it was made in.
class LastWaitingPorts {
public:
    WaitingPorts get(uint64_t network)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return network == network_ ? ports_ : WaitingPorts();
    }
    void set(uint64_t network, const WaitingPorts& ports)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        network_ = network;
        ports_ = ports;
    }

private:
    std::mutex mutex_;
    uint64_t network_ = 0;
    WaitingPorts ports_;
};
LastWaitingPorts last_waiting_ports;

int read_from_sockets(vxi_handle_ops_s* handle, int conntrack_status, FlowSnapshot& flows)
{
    const std::string why = why_sockets(conntrack_status);
    std::string shortfall;
    const uint64_t network = network_namespace();
    WaitingPorts waiting = last_waiting_ports.get(network);
    const Outcome outcome =
        read_socket_flows(kernel_sockets({flow_socket_states, true}), flows, shortfall, waiting);
    if (outcome.failed()) {
        return fail(handle, outcome.status, "%s; %s", why.c_str(), outcome.text.c_str());
    }
    last_waiting_ports.set(network, waiting);
    note_source(Table::conntrack, "sock_diag, %s%s", why.c_str(), shortfall.c_str());
    return 0;
}

// Where no rule needs tracking the kernel does none, and its table stays empty: sockets
// then tell more.
int take_snapshot(vxi_handle_ops_s* handle, FlowSnapshot& flows)
{
    uint32_t expected = 0;
    int status = count_tracked(expected);
    // A dump walks all buckets of the kernel's table, empty ones too.
    if (status == 0 && expected > 0) {
        status = read_conntrack(dump_conntrack, flows);
    }
    if (status == -ECANCELED) {
        return fail(handle, status, "ctnetlink: %s", describe_status(status).c_str());
    }
    const bool tracked = flows.udp.total + flows.tcp.total > 0;
    if (status == -EINTR || (status == 0 && tracked)) {
        note_conntrack(flows, status == -EINTR);
        return 0;
    }
    return read_from_sockets(handle, status, flows);
}

int count_flows(vxi_handle_ops_s* handle, std::unique_ptr<FlowSnapshot>& kept,
                vxa_dump_conntrack_s& section)
{
    kept.reset();  // not two at a time
    auto flows = std::make_unique<FlowSnapshot>();
    const int status = take_snapshot(handle, *flows);
    if (status == 0) {
        section.entry_ct = flows->offer();
        kept = std::move(flows);
    }
    return status;
}

}  // namespace

int get_conntrack(vxi_handle_ops_s* handle, vxa_dump_conntrack_s* section, unsigned int,
                  unsigned int*)
{
    std::unique_ptr<FlowSnapshot>& kept = state_of(handle).flows;
    if (section->protocol == 0) {
        return count_flows(handle, kept, *section);
    }
    if (!kept || !fetch_flows(*kept, *section)) {
        return fail(handle, -ENODATA, "no snapshot: ask for the count first");
    }
    return 0;
}

}  // namespace vxi::linux_slots
