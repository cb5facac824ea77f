// Dumps socket counts. docs/diagnostic-texts.md describes the format.
#include <iterator>

#include "dumps/Heading.h"
#include "dumps/LineWriter.h"
#include "vxi/vxi.h"

namespace vxi {

namespace {

// Indexed by TCP_ESTABLISHED.. of <netinet/tcp.h>; the last two are TCP_NEW_SYN_RECV and
// TCP_BOUND_INACTIVE of the kernel's include/net/tcp_states.h, which that header lacks.
constexpr const char* kSocketStates[] = {
    nullptr, "ESTABLISHED", "SYN_SENT", "SYN_RECV", "FIN_WAIT1", "FIN_WAIT2",    "TIME_WAIT",
    "CLOSE", "CLOSE_WAIT",  "LAST_ACK", "LISTEN",   "CLOSING",   "NEW_SYN_RECV", "BOUND"};

void WriteCounts(LineWriter& lines, const char* family, const std::uint64_t (&counts)[16])
{
    for (unsigned i = 0; i < std::size(counts); ++i) {
        const char* const state = i < std::size(kSocketStates) ? kSocketStates[i] : nullptr;
        // Known states are always written, so that two dumps can be compared line by line.
        if (state) {
            lines.Text(family).Text(" ").Text(state).Text(" ").Number(counts[i]).EndLine();
        } else if (counts[i] != 0) {
            lines.Text(family).Text(" ").Text(family).Text("/").Number(i);
            lines.Text(" ").Number(counts[i]).EndLine();
        }
    }
}

void WriteSockets(LineWriter& lines, const vxa_get_conn_states_s& states)
{
    WriteHeading(lines, "sockets", LastOrigin(Table::kConnStates));
    lines.Text(", ").Number(states.count).Text(" in all").EndLine();
    WriteCounts(lines, "tcp4", states.tcp4);
    WriteCounts(lines, "tcp6", states.tcp6);
    lines.Text("udp4 ").Number(states.udp4).EndLine();
    lines.Text("udp6 ").Number(states.udp6).EndLine();
}

}  // namespace

}  // namespace vxi

void tb_dump_conn_states(tb_dump_s* sink, vxa_get_conn_states_s* states)
{
    vxi::Dump(sink, states, vxi::WriteSockets);
}
