// The connections() of a driver handle: the flow table as rows.
#include <arpa/inet.h>

#include <cstring>
#include <vector>

#include "LuaBoundary.h"
#include "Module.h"
#include "vxi/vxi.h"

namespace vxa {

namespace {

constexpr unsigned char kUdp = 17;  // IANA protocol numbers
constexpr unsigned char kTcp = 6;

// The section of one protocol; in 64-bit units, because records are aligned to those.
struct Section {
    std::vector<std::uint64_t> words;
    size_t size = 0;  // bytes

    void resize(size_t capacity)
    {
        size = sizeof(vxa_dump_conntrack_s) + capacity * sizeof(vxa_conntrack_entry_s);
        words.assign((size + 7) / 8, 0);
    }
    vxa_dump_conntrack_s* header() { return reinterpret_cast<vxa_dump_conntrack_s*>(words.data()); }
    const vxa_conntrack_entry_s* entries()
    {
        return reinterpret_cast<const vxa_conntrack_entry_s*>(header() + 1);
    }
};

struct FlowTable {
    Section udp;
    Section tcp;
};

// Fills a section with at most `capacity` entries; the driver's status.
int fill(vxi_handle_ops_s* handle, Section& section, unsigned char protocol, size_t capacity)
{
    section.resize(capacity);
    vxa_dump_conntrack_s* header = section.header();
    header->request = VXA_CONNTRACK_REQUEST_TABLE;
    header->entry_ct = static_cast<std::uint16_t>(capacity);
    header->protocol = protocol;
    const int status =
        vxi_get_conntrack(handle, header, static_cast<unsigned>(section.size), nullptr);
    // The count comes from elsewhere; what lies beyond the buffer is not ours.
    if (header->entry_ct > capacity) header->entry_ct = static_cast<std::uint16_t>(capacity);
    return status;
}

int read(vxi_handle_ops_s* handle, FlowTable& table)
{
    vxa_dump_conntrack_s count{};
    count.request = VXA_CONNTRACK_REQUEST_TABLE;
    const int status = vxi_get_conntrack(handle, &count, sizeof count, nullptr);
    if (status != 0) return status;
    const int udp_status = fill(handle, table.udp, kUdp, count.entry_ct);
    if (udp_status != 0) return udp_status;
    const size_t left = count.entry_ct - size_t{table.udp.header()->entry_ct};
    return fill(handle, table.tcp, kTcp, left);
}

// TCP_CONNTRACK_* of <linux/netfilter/nf_conntrack_tcp.h>, by their names there.
const char* state_name(unsigned state)
{
    static constexpr const char* kNames[] = {
        "NONE",       "SYN_SENT", "SYN_RECV",  "ESTABLISHED", "FIN_WAIT",
        "CLOSE_WAIT", "LAST_ACK", "TIME_WAIT", "CLOSE",       "SYN_SENT2",
    };
    return state < sizeof kNames / sizeof kNames[0] ? kNames[state] : "UNKNOWN";
}

unsigned port(const std::uint8_t (&bytes)[2])
{
    return bytes[0] * 256u + bytes[1];
}

void set_address(lua_State* L, const char* name, const vxa_conntrack_entry_s& flow,
                 const std::uint8_t* address)
{
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(flow.family == 6 ? AF_INET6 : AF_INET, address, text, sizeof text);
    set_text(L, name, text);
}

void set_counters(lua_State* L, const vxa_conntrack_entry_s& flow)
{
    set_number(L, "packets_forward", flow.packets_forward);
    set_number(L, "packets_backward", flow.packets_backward);
    set_number(L, "bytes_forward", static_cast<lua_Number>(flow.bytes_forward));
    set_number(L, "bytes_backward", static_cast<lua_Number>(flow.bytes_backward));
}

void push_flow(lua_State* L, const vxa_conntrack_entry_s& flow, bool is_tcp)
{
    lua_createtable(L, 0, 14);
    set_text(L, "protocol", is_tcp ? "tcp" : "udp");
    set_number(L, "family", flow.family);
    set_address(L, "src", flow, flow.source);
    set_address(L, "dst", flow, flow.destination);
    set_number(L, "sport", port(flow.source_port));
    set_number(L, "dport", port(flow.destination_port));
    if (is_tcp) set_text(L, "state", state_name(flow.tcp_state));
    set_number(L, "flags", flow.flags);
    set_number(L, "timeout", flow.timeout_s);
    set_number(L, "mark", flow.mark);
    if (flow.flags & VXA_FLOW_COUNTERS_VALID) set_counters(L, flow);
}

// Appends a section's flows to the table on top. [-0, +0, m]
void append_flows(lua_State* L, Section& section, bool is_tcp)
{
    const int before = static_cast<int>(lua_rawlen(L, -1));
    for (int i = 0; i < section.header()->entry_ct; ++i) {
        push_flow(L, section.entries()[i], is_tcp);
        lua_rawseti(L, -2, before + i + 1);
    }
}

}  // namespace

void register_connections(lua_State* L)
{
    register_holder<FlowTable>(L);
}

int handle_connections(lua_State* L)
{
    vxi_handle_ops_s* handle = check_handle(L);
    auto* table = new_holder<FlowTable>(L);
    Failure failure;
    int status = 0;
    if (!guarded(failure, [&] { status = read(handle, *table); })) return push_failure(L, failure);
    if (status != 0) return push_driver_error(L, handle);
    const unsigned existing = table->udp.header()->total + table->tcp.header()->total;
    lua_createtable(L, table->udp.header()->entry_ct + table->tcp.header()->entry_ct, 0);
    append_flows(L, table->udp, false);
    append_flows(L, table->tcp, true);
    lua_pushnumber(L, existing);
    return 2;
}

}  // namespace vxa
