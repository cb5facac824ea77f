#include "engines/linux/tables/ConnStates.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <numeric>

#include "api/Source.h"
#include "engines/linux/Slots.h"

namespace vxi {

namespace {

constexpr unsigned state_slots = 16;

struct TableCounts {
    uint64_t by_state[state_slots] = {};

    uint64_t total() const
    {
        return std::accumulate(std::begin(by_state), std::end(by_state), 0ull);
    }
};

// A state that has no slot counts in the one that no state uses.
unsigned slot_of(uint8_t state)
{
    return state < state_slots ? state : 0;
}

void deliver(const SocketTable& table, const TableCounts& counts, vxa_get_conn_states_s& states)
{
    const bool v4 = table.family == AF_INET;
    if (table.protocol == IPPROTO_UDP) {
        (v4 ? states.udp4 : states.udp6) = counts.total();
    } else {
        std::copy(std::begin(counts.by_state), std::end(counts.by_state),
                  v4 ? states.tcp4 : states.tcp6);
    }
    states.count += static_cast<uint32_t>(counts.total());
}

}  // namespace

Outcome count_sockets(const SocketDump& dump, vxa_get_conn_states_s& states, std::string& shortfall)
{
    TableCounts counts[socket_table_count];
    const SocketSink sink = {[&](unsigned table) { counts[table] = {}; },
                             [&](unsigned table, const inet_diag_msg& socket, const Attributes&) {
                                 ++counts[table].by_state[slot_of(socket.idiag_state)];
                             }};
    const Outcome outcome = read_sockets(dump, sink, shortfall);
    states = {};
    states.version = 1;
    for (unsigned table = 0; table < socket_table_count; ++table) {
        deliver(socket_tables[table], counts[table], states);
    }
    return outcome;
}

namespace linux_slots {

int get_conn_states(vxi_handle_ops_s* handle, vxa_get_conn_states_s* states)
{
    std::string shortfall;
    const Outcome outcome = count_sockets(kernel_sockets({~0u, false}), *states, shortfall);
    if (outcome.failed()) {
        return fail(handle, outcome.status, "%s", outcome.text.c_str());
    }
    note_source(Table::conn_states, "sock_diag%s", shortfall.c_str());
    return 0;
}

}  // namespace linux_slots

}  // namespace vxi
