// vxi_get_conn_states: how many sockets are in which state.
#include "engines/linux/tables/ConnStates.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <numeric>

#include "engines/linux/Operations.h"
#include "records/TableOrigin.h"

namespace vxi {

namespace {

constexpr unsigned kStateSlots = 16;

struct TableCounts {
    std::uint64_t by_state[kStateSlots] = {};

    std::uint64_t Total() const
    {
        return std::accumulate(std::begin(by_state), std::end(by_state), 0ull);
    }
};

// A state beyond the slots counts in slot 0, which no state uses.
unsigned StateSlot(std::uint8_t state)
{
    return state < kStateSlots ? state : 0;
}

void StoreCounts(const SocketTable& table, const TableCounts& counts, vxa_get_conn_states_s& states)
{
    const bool v4 = table.family == AF_INET;
    if (table.protocol == IPPROTO_UDP) {
        (v4 ? states.udp4 : states.udp6) = counts.Total();
    } else {
        std::copy(std::begin(counts.by_state), std::end(counts.by_state),
                  v4 ? states.tcp4 : states.tcp6);
    }
    states.count += static_cast<std::uint32_t>(counts.Total());
}

}  // namespace

std::string CountSockets(const SocketDump& dump, vxa_get_conn_states_s& states)
{
    TableCounts counts[kSocketTableCount];
    const SocketSink sink = {[&](unsigned table) { counts[table] = {}; },
                             [&](unsigned table, const inet_diag_msg& socket, const Attributes&) {
                                 ++counts[table].by_state[StateSlot(socket.idiag_state)];
                             }};
    std::string missing = ReadSockets(dump, sink);
    states = {};
    states.version = 1;
    for (unsigned table = 0; table < kSocketTableCount; ++table) {
        StoreCounts(kSocketTables[table], counts[table], states);
    }
    return missing;
}

int LinuxOperations::GetConnStates(vxi_handle_ops_s*, vxa_get_conn_states_s* states)
{
    const std::string missing = CountSockets(KernelSockets({~0u, false}), *states);
    SetTableSource(Table::kConnStates, "sock_diag%s", missing.c_str());
    return 0;
}

}  // namespace vxi
