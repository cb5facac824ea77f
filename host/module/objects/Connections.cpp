// The method connections() of driver handles: the flow table as rows.
#include <arpa/inet.h>
#include <errno.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Holder.h"
#include "objects/CollidingAddresses.h"
#include "vxi/vxi.h"

namespace vxa {

namespace {

constexpr unsigned char kUdp = 17;  // IANA protocol numbers
constexpr unsigned char kTcp = 6;

// The flows of one protocol as the driver fills them, in 64-bit units for their alignment.
struct Section {
    std::vector<std::uint64_t> words;
    std::size_t size = 0;  // bytes

    void Resize(std::size_t capacity)
    {
        size = sizeof(vxa_dump_conntrack_s) + capacity * sizeof(vxa_conntrack_entry_s);
        words.assign((size + 7) / 8, 0);
    }
    vxa_dump_conntrack_s* Header() { return reinterpret_cast<vxa_dump_conntrack_s*>(words.data()); }
    vxa_conntrack_entry_s* Entries()
    {
        return reinterpret_cast<vxa_conntrack_entry_s*>(Header() + 1);
    }
};

struct FlowTable {
    Section udp;
    Section tcp;
};

// Returns the driver's status.
int ReadSection(vxi_handle_ops_s* handle, Section& section, unsigned char protocol,
                std::size_t capacity)
{
    section.Resize(capacity);
    vxa_dump_conntrack_s* header = section.Header();
    header->request = VXA_CONNTRACK_REQUEST_TABLE;
    header->entry_ct = static_cast<std::uint16_t>(capacity);
    header->protocol = protocol;
    const int status =
        vxi_get_conntrack(handle, header, static_cast<unsigned>(section.size), nullptr);
    // The driver is not trusted with the buffer's size.
    if (header->entry_ct > capacity) header->entry_ct = static_cast<std::uint16_t>(capacity);
    return status;
}

const char* AddressText(const vxa_conntrack_entry_s& flow, const std::uint8_t* address,
                        char (&text)[INET6_ADDRSTRLEN])
{
    text[0] = '\0';
    inet_ntop(flow.family == 6 ? AF_INET6 : AF_INET, address, text, sizeof text);
    return text;
}

// Removes flows whose addresses would make Lua slow. They still count in the total.
void DropColliding(Section& section, CollidingAddresses& addresses)
{
    vxa_conntrack_entry_s* const begin = section.Entries();
    const auto is_dropped = [&](const vxa_conntrack_entry_s& flow) {
        char text[INET6_ADDRSTRLEN];
        return flow.family == 6 && !(addresses.Admit(AddressText(flow, flow.source, text)) &&
                                     addresses.Admit(AddressText(flow, flow.destination, text)));
    };
    const auto end = std::remove_if(begin, begin + section.Header()->entry_ct, is_dropped);
    section.Header()->entry_ct = static_cast<std::uint16_t>(end - begin);
}

// Returns the driver's status.
int ReadFlows(vxi_handle_ops_s* handle, FlowTable& table)
{
    vxa_dump_conntrack_s count{};
    count.request = VXA_CONNTRACK_REQUEST_TABLE;
    const int status = vxi_get_conntrack(handle, &count, sizeof count, nullptr);
    if (status != 0) return status;
    const int udp_status = ReadSection(handle, table.udp, kUdp, count.entry_ct);
    if (udp_status != 0) return udp_status;
    const std::size_t remaining = count.entry_ct - std::size_t{table.udp.Header()->entry_ct};
    const int tcp_status = ReadSection(handle, table.tcp, kTcp, remaining);
    if (tcp_status != 0) return tcp_status;
    CollidingAddresses addresses;
    DropColliding(table.udp, addresses);
    DropColliding(table.tcp, addresses);
    return 0;
}

// Names of a row's fields and values, pushed once per call instead of once per row.
enum Name {
    kProtocol,
    kFamily,
    kSource,
    kDestination,
    kSourcePort,
    kDestinationPort,
    kState,
    kFlags,
    kTimeout,
    kMark,
    kPacketsForward,
    kPacketsBackward,
    kBytesForward,
    kBytesBackward,
    kUdpName,
    kTcpName,
    kFirstStateName,
    kUnknownState = kFirstStateName + 10,
    kNameCount
};
// The states are TCP_CONNTRACK_* of <linux/netfilter/nf_conntrack_tcp.h>.
constexpr const char* kNames[] = {"protocol",
                                  "family",
                                  "src",
                                  "dst",
                                  "sport",
                                  "dport",
                                  "state",
                                  "flags",
                                  "timeout",
                                  "mark",
                                  "packets_forward",
                                  "packets_backward",
                                  "bytes_forward",
                                  "bytes_backward",
                                  "udp",
                                  "tcp",
                                  "NONE",
                                  "SYN_SENT",
                                  "SYN_RECV",
                                  "ESTABLISHED",
                                  "FIN_WAIT",
                                  "CLOSE_WAIT",
                                  "LAST_ACK",
                                  "TIME_WAIT",
                                  "CLOSE",
                                  "SYN_SENT2",
                                  "UNKNOWN"};
static_assert(sizeof kNames / sizeof kNames[0] == kNameCount, "one string for each name");

// Stack indices.
constexpr int kHolderIndex = 2;
constexpr int kFirstNameIndex = kHolderIndex + 1;
constexpr int kRowsIndex = kFirstNameIndex + kNameCount;
constexpr int kRowIndex = kRowsIndex + 1;

void PushName(lua_State* L, int name)  // [-0, +1, -]
{
    lua_pushvalue(L, kFirstNameIndex + name);
}

void SetName(lua_State* L, Name field, int value)  // [-0, +0, m]
{
    PushName(L, field);
    PushName(L, value);
    lua_rawset(L, kRowIndex);
}

void SetNumber(lua_State* L, Name field, lua_Number value)  // [-0, +0, m]
{
    PushName(L, field);
    lua_pushnumber(L, value);
    lua_rawset(L, kRowIndex);
}

int NameOfState(unsigned state)
{
    return state < kUnknownState - kFirstStateName ? kFirstStateName + static_cast<int>(state)
                                                   : kUnknownState;
}

unsigned Port(const std::uint8_t (&bytes)[2])
{
    return bytes[0] * 256u + bytes[1];
}

void SetAddress(lua_State* L, Name field, const vxa_conntrack_entry_s& flow,
                const std::uint8_t* address)  // [-0, +0, m]
{
    char text[INET6_ADDRSTRLEN];
    PushName(L, field);
    lua_pushstring(L, AddressText(flow, address, text));
    lua_rawset(L, kRowIndex);
}

void SetCounters(lua_State* L, const vxa_conntrack_entry_s& flow)  // [-0, +0, m]
{
    SetNumber(L, kPacketsForward, flow.packets_forward);
    SetNumber(L, kPacketsBackward, flow.packets_backward);
    SetNumber(L, kBytesForward, static_cast<lua_Number>(flow.bytes_forward));
    SetNumber(L, kBytesBackward, static_cast<lua_Number>(flow.bytes_backward));
}

void PushFlow(lua_State* L, const vxa_conntrack_entry_s& flow, bool is_tcp)  // [-0, +1, m]
{
    lua_createtable(L, 0, 14);
    SetName(L, kProtocol, is_tcp ? kTcpName : kUdpName);
    SetNumber(L, kFamily, flow.family);
    SetAddress(L, kSource, flow, flow.source);
    SetAddress(L, kDestination, flow, flow.destination);
    SetNumber(L, kSourcePort, Port(flow.source_port));
    SetNumber(L, kDestinationPort, Port(flow.destination_port));
    if (is_tcp) SetName(L, kState, NameOfState(flow.tcp_state));
    SetNumber(L, kFlags, flow.flags);
    SetNumber(L, kTimeout, flow.timeout_s);
    SetNumber(L, kMark, flow.mark);
    if (flow.flags & VXA_FLOW_COUNTERS_VALID) SetCounters(L, flow);
}

constexpr int kRowsBetweenChecks = 256;

// Appends a section's flows to the rows; returns false if a signal was caught. [-0, +0, m]
bool AppendFlows(lua_State* L, Section& section, bool is_tcp)
{
    const int previous = static_cast<int>(lua_rawlen(L, kRowsIndex));
    for (int i = 0; i < section.Header()->entry_ct; ++i) {
        if (i % kRowsBetweenChecks == 0 && CaughtSignalName()) return false;
        PushFlow(L, section.Entries()[i], is_tcp);
        lua_rawseti(L, kRowsIndex, previous + i + 1);
    }
    return true;
}

int PushInterrupted(lua_State* L)  // [-0, +3, m]
{
    lua_pushnil(L);
    lua_pushfstring(L, "interrupted by %s", CaughtSignalName());
    lua_pushinteger(L, EINTR);
    return kErrorResults;
}

}  // namespace

void RegisterConnections(lua_State* L)
{
    RegisterHolder<FlowTable>(L);
}

int HandleConnections(lua_State* L)
{
    vxi_handle_ops_s* handle = CheckHandle(L);
    lua_settop(L, 1);
    luaL_checkstack(L, kRowIndex + LUA_MINSTACK, nullptr);
    auto* table = NewHolder<FlowTable>(L);
    int status = 0;
    if (!SucceedsOrPushError(L, [&] { status = ReadFlows(handle, *table); })) return kErrorResults;
    if (CaughtSignalName()) return PushInterrupted(L);
    if (status != 0) return PushDriverError(L, handle, status);
    const unsigned total = table->udp.Header()->total + table->tcp.Header()->total;
    for (const char* name : kNames) lua_pushstring(L, name);
    lua_createtable(L, table->udp.Header()->entry_ct + table->tcp.Header()->entry_ct, 0);
    const bool is_complete = AppendFlows(L, table->udp, false) && AppendFlows(L, table->tcp, true);
    *table = {};  // megabytes that the collector does not know of
    if (!is_complete) return PushInterrupted(L);
    lua_pushnumber(L, total);
    return 2;
}

}  // namespace vxa
