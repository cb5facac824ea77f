// vxi_get_conntrack: flows from connection tracking, or from sockets where none are tracked.
#include <cerrno>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "api/Error.h"
#include "engines/linux/HandleSnapshots.h"
#include "engines/linux/Operations.h"
#include "engines/linux/netlink/Ctnetlink.h"
#include "engines/linux/netlink/NetNamespace.h"
#include "engines/linux/tables/FlowsFromConntrack.h"
#include "engines/linux/tables/FlowsFromSockets.h"
#include "records/TableOrigin.h"

namespace vxi {

namespace {

// The ports of the process's latest reading, for the network namespace that it was made in.
class LastListeningPorts {
public:
    ListeningPorts Get(std::optional<std::uint64_t> network)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return network == m_network ? m_ports : ListeningPorts();
    }
    void Set(std::optional<std::uint64_t> network, const ListeningPorts& ports)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_network = network;
        m_ports = ports;
    }

private:
    std::mutex m_mutex;
    std::optional<std::uint64_t> m_network;
    ListeningPorts m_ports;
};
LastListeningPorts last_listening_ports;

void NoteConntrackSource(const FlowSnapshot& flows, Consistency consistency)
{
    std::string source = "ctnetlink";
    if (consistency == Consistency::kInterrupted) {
        source += ", incomplete: interrupted every time";
    }
    if (flows.other_protocols > 0) {
        source += ", without " + std::to_string(flows.other_protocols) + " of other protocols";
    }
    if (flows.unreadable > 0) {
        source += ", without " + std::to_string(flows.unreadable) + " unreadable";
    }
    SetTableSource(Table::kConntrack, "%s", source.c_str());
}

// Reads the kernel's table into `flows`. Returns why sockets have to be read instead, nothing
// when they need not. The kernel tracks connections only while a rule needs it.
std::optional<std::string> ReadTracked(FlowSnapshot& flows)
try {
    // Counted first: a dump walks all buckets of the kernel's table, empty ones too.
    const Consistency consistency = CountConntrackEntries() > 0
                                        ? ReadConntrackFlows(DumpConntrack, flows)
                                        : Consistency::kConsistent;
    const bool tracked = flows.udp.total + flows.tcp.total > 0;
    if (!tracked && consistency == Consistency::kConsistent) {
        return "no UDP or TCP flow is tracked";
    }
    NoteConntrackSource(flows, consistency);
    return std::nullopt;
} catch (const Error& error) {
    if (error.Status() == -ECANCELED) {
        throw;
    }
    return error.Status() == -EPERM ? "ctnetlink needs CAP_NET_ADMIN"
                                    : std::string("ctnetlink: ") + error.what();
}

void ReadFromSockets(const std::string& reason, FlowSnapshot& flows)
try {
    const std::optional<std::uint64_t> network = NetworkNamespace();
    ListeningPorts listening = last_listening_ports.Get(network);
    const std::string missing =
        ReadSocketFlows(KernelSockets({kFlowSocketStates, true}), flows, listening);
    last_listening_ports.Set(network, listening);
    SetTableSource(Table::kConntrack, "sock_diag, %s%s", reason.c_str(), missing.c_str());
} catch (const Error& error) {
    ThrowError(error.Status(), "%s; %s", reason.c_str(), error.what());
}

void CountFlows(std::unique_ptr<FlowSnapshot>& kept, vxa_dump_conntrack_s& section)
{
    kept.reset();  // never two at a time
    auto flows = std::make_unique<FlowSnapshot>();
    if (const auto reason = ReadTracked(*flows)) {
        ReadFromSockets(*reason, *flows);
    }
    section.entry_ct = flows->Offer();
    kept = std::move(flows);
}

}  // namespace

int LinuxOperations::GetConntrack(vxi_handle_ops_s* handle, vxa_dump_conntrack_s* section,
                                  unsigned int, unsigned int*)
{
    std::unique_ptr<FlowSnapshot>& kept = Snapshots(handle).flows;
    if (section->protocol == 0) {
        CountFlows(kept, *section);
    } else if (!kept || !FetchFlows(*kept, *section)) {
        throw Error(-ENODATA, "no snapshot: ask for the count first");
    }
    return 0;
}

}  // namespace vxi
