// What the engine reads from complete, incomplete and damaged messages of the kernel.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_conntrack_tcp.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>

#include "../../Fixture.h"
#include "api/Error.h"
#include "engines/linux/scan/ScanMetrics.h"
#include "engines/linux/tables/Blacklist.h"
#include "engines/linux/tables/ConnStates.h"
#include "engines/linux/tables/FlowsFromConntrack.h"
#include "engines/linux/tables/FlowsFromSockets.h"
#include "engines/linux/tables/RuleProfile.h"

namespace {

using vxi::Consistency;
using vxi::FlowSnapshot;

// Calls `read` with the message in a heap block of exactly its size, so that a sanitizer sees every
// read beyond it.
template <typename Read>
auto ReadMessage(const std::string& message, Read read)
{
    const std::unique_ptr<char[]> block(new char[message.size()]);
    memcpy(block.get(), message.data(), message.size());
    auto& header = *reinterpret_cast<nlmsghdr*>(block.get());
    header.nlmsg_len = static_cast<std::uint32_t>(message.size());
    return read(header);
}

template <typename Plain>
std::string Bytes(const Plain& plain)
{
    return {reinterpret_cast<const char*>(&plain), sizeof plain};
}

// `head` is what comes between the netlink header and the attributes.
std::string Message(int type, const std::string& head, const std::string& attributes)
{
    return Bytes(nlmsghdr{0, static_cast<std::uint16_t>(type), 0, 0, 0}) + head + attributes;
}

// An attribute with bytes or with others in it; none when it is empty.
std::string Attribute(std::uint16_t type, std::string body)
{
    const nlattr header = {static_cast<std::uint16_t>(NLA_HDRLEN + body.size()), type};
    body.resize(NLA_ALIGN(body.size()));
    return body.empty() ? "" : Bytes(header) + body;
}

// The attributes of counters are numbered 1 and 2, in connection tracking and in nf_tables.
std::string Counter(std::uint16_t type, std::uint64_t first, std::uint64_t second)
{
    return Attribute(type,
                     Attribute(1, Bytes(htobe64(first))) + Attribute(2, Bytes(htobe64(second))));
}

struct FlowSample {
    std::string source = Bytes(inet_addr("10.0.0.1"));
    std::string destination = Bytes(inet_addr("10.0.0.2"));
    std::string protocol = {IPPROTO_TCP};
    std::string source_port = Bytes(htons(1234));
    std::string destination_port = Bytes(htons(80));
    std::string status = Bytes(htonl(IPS_SEEN_REPLY | IPS_ASSURED | IPS_OFFLOAD));
    std::string timeout = Bytes(htonl(300));
    std::string tcp_state = {TCP_CONNTRACK_ESTABLISHED};
    std::string forward = Counter(CTA_COUNTERS_ORIG, 5000000000, 7);
    std::string backward = Counter(CTA_COUNTERS_REPLY, 3, 9);
};

std::string Flow(const FlowSample& flow = {})
{
    const std::string addresses =
        Attribute(CTA_IP_V4_SRC, flow.source) + Attribute(CTA_IP_V4_DST, flow.destination);
    const std::string transport = Attribute(CTA_PROTO_NUM, flow.protocol) +
                                  Attribute(CTA_PROTO_SRC_PORT, flow.source_port) +
                                  Attribute(CTA_PROTO_DST_PORT, flow.destination_port);
    const std::string state = Attribute(CTA_PROTOINFO_TCP_STATE, flow.tcp_state);
    return Message(NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_NEW, Bytes(nfgenmsg{}),
                   Attribute(CTA_TUPLE_ORIG, Attribute(CTA_TUPLE_IP, addresses) +
                                                 Attribute(CTA_TUPLE_PROTO, transport)) +
                       Attribute(CTA_STATUS, flow.status) + Attribute(CTA_TIMEOUT, flow.timeout) +
                       Attribute(CTA_PROTOINFO, Attribute(CTA_PROTOINFO_TCP, state)) +
                       flow.forward + flow.backward);
}

struct SocketSample {
    std::uint8_t state = vxi::kSocketEstablished;
    std::uint16_t local_port = 40000;
    std::uint16_t peer_port = 443;
    std::size_t info_size = sizeof(tcp_info);
    std::size_t mark_size = 4;
};

std::string Socket(const SocketSample& sample = {})
{
    inet_diag_msg head = {};
    head.idiag_family = AF_INET;
    head.idiag_state = sample.state;
    head.id.idiag_sport = htons(sample.local_port);
    head.id.idiag_dport = htons(sample.peer_port);
    return Message(SOCK_DIAG_BY_FAMILY, Bytes(head),
                   Attribute(INET_DIAG_INFO, std::string(sample.info_size, '\1')) +
                       Attribute(INET_DIAG_MARK, std::string(sample.mark_size, '\1')));
}

std::string Nft(int type, const std::string& attributes)
{
    return Message(NFNL_SUBSYS_NFTABLES << 8 | type, Bytes(nfgenmsg{NFPROTO_BRIDGE, 0, 0}),
                   attributes);
}

std::string SetElement(std::size_t key_size = 4)
{
    const std::string element =
        Attribute(NFTA_SET_ELEM_KEY, Attribute(NFTA_DATA_VALUE, std::string(key_size, '\1'))) +
        Attribute(NFTA_SET_ELEM_TIMEOUT, Bytes(htobe64(61999))) +
        Attribute(NFTA_SET_ELEM_EXPIRATION, Bytes(~std::uint64_t{0}));
    return Nft(NFT_MSG_NEWSETELEM,
               Attribute(NFTA_SET_ELEM_LIST_ELEMENTS, Attribute(NFTA_LIST_ELEM, element)));
}

std::string Set(const std::string& name)
{
    return Nft(NFT_MSG_NEWSET, Attribute(NFTA_SET_TABLE, "t") + Attribute(NFTA_SET_NAME, name) +
                                   Attribute(NFTA_SET_KEY_TYPE, Bytes(htonl(7))));
}

std::string RuleWithCounter(const std::string& chain)
{
    const std::string counter =
        Attribute(NFTA_EXPR_NAME, "counter") + Counter(NFTA_EXPR_DATA, 1, 2);
    return Nft(NFT_MSG_NEWRULE,
               Attribute(NFTA_RULE_CHAIN, chain) + Attribute(NFTA_RULE_HANDLE, Bytes(htobe64(5))) +
                   Attribute(NFTA_RULE_EXPRESSIONS, Attribute(NFTA_LIST_ELEM, counter)));
}

// A visitor's exception leaves the socket usable, unless it cancels the exchange.
TEST(Netlink, PassesExceptionsOn)
{
    struct {
        nlmsghdr header;
        rtgenmsg body;
    } request = {{sizeof request, RTM_GETLINK, NLM_F_REQUEST | NLM_F_DUMP, 0, 0}, {}};
    vxi::Netlink netlink;
    netlink.Open(NETLINK_ROUTE);
    for (const int status : {-EPROTO, -EPERM, -ECANCELED}) {
        unsigned calls = 0;
        const auto visit = [&](const nlmsghdr&) { vxi::ThrowError(status, "call %u", ++calls); };
        EXPECT_THROW(netlink.Request(request.header, visit), vxi::Error);
        EXPECT_EQ(calls, 1u);
        EXPECT_EQ(netlink.IsOpen(), status != -ECANCELED);
    }
}

// The lines that users see of TCP flows.
std::string Lines(FlowSnapshot& flows)
{
    alignas(8) char block[2 * sizeof(vxa_dump_conntrack_s) + sizeof(vxa_conntrack_entry_s)] = {};
    auto* section = reinterpret_cast<vxa_dump_conntrack_s*>(block);
    *section = ConntrackRequest(IPPROTO_TCP);
    section->entry_ct = flows.Offer();
    EXPECT_TRUE(vxi::FetchFlows(flows, *section));
    const std::string text = TextOf(tb_dump_all_conn_track, section);
    const std::size_t start = text.find("\ntcp") + 1;
    return start > 0 ? text.substr(start, text.rfind("\n#") - start) : "";
}

TEST(ConntrackFlows, NeedAddressesAndPortsOnly)
{
    // An attribute, its size, and the line after the addresses; empty: not a flow.
    const std::tuple<std::string FlowSample::*, std::size_t, std::string> rows[] = {
        {&FlowSample::timeout, 4, "ESTABLISHED 300s 4294967295/7 3/9 assured offloaded"},
        {&FlowSample::timeout, 8, "ESTABLISHED 0s 4294967295/7 3/9 assured offloaded"},
        {&FlowSample::status, 0, "ESTABLISHED 300s 4294967295/7 3/9 unreplied"},
        {&FlowSample::tcp_state, 4, "NONE 300s 4294967295/7 3/9 assured offloaded"},
        {&FlowSample::backward, 0, "ESTABLISHED 300s - - assured offloaded"},
        {&FlowSample::forward, 12, "ESTABLISHED 300s - - assured offloaded"},
        {&FlowSample::source, 0, ""},
        {&FlowSample::destination, 3, ""},
        {&FlowSample::protocol, 2, ""},
        {&FlowSample::source_port, 0, ""},
        {&FlowSample::destination_port, 4, ""},
    };
    for (const auto& [attribute, size, line] : rows) {
        FlowSample sample;
        (sample.*attribute).resize(size);
        FlowSnapshot flows;
        ReadMessage(Flow(sample), [&](const auto& message) { AddConntrackFlow(message, flows); });
        EXPECT_EQ(flows.unreadable, line.empty());
        EXPECT_EQ(Lines(flows), line.empty() ? "" : "tcp 10.0.0.1:1234 > 10.0.0.2:80 " + line);
    }
}

TEST(ConntrackFlows, OfTheLastOfSixInterruptedDumpsCount)
{
    unsigned dumps = 0;
    FlowSnapshot flows;
    const auto dump = [&](vxi::Netlink::Visitor visit) {
        ReadMessage(Flow(), visit);
        return ++dumps, Consistency::kInterrupted;
    };
    EXPECT_EQ(vxi::ReadConntrackFlows(dump, flows), Consistency::kInterrupted);
    EXPECT_EQ(dumps, 6u);
    EXPECT_EQ(flows.tcp.total, 1u);
}

// Dumps the same sockets for every table, which then ends with a status, -EINTR: interrupted.
struct SocketTables {
    std::vector<SocketSample> sockets = {{}};
    int status[vxi::kSocketTableCount] = {};

    Consistency operator()(const vxi::SocketTable& table, vxi::Netlink::Visitor visit) const
    {
        for (const SocketSample& socket : sockets) {
            ReadMessage(Socket(socket), visit);
        }
        const int end = status[&table - vxi::kSocketTables];
        if (end != 0 && end != -EINTR) {
            throw vxi::Error(end);
        }
        return end == 0 ? Consistency::kConsistent : Consistency::kInterrupted;
    }
};

TEST(Sockets, FailOnlyWhenNoTableCanBeRead)
{
    const std::tuple<SocketTables, std::uint32_t, const char*> rows[] = {
        {{{{}}, {0, -EINTR, 0, 0}}, 4, ", IPv6 tcp interrupted: incomplete"},
        {{{{}}, {0, 0, 0, -ENOENT}}, 3, ", IPv6 udp missing: No such file or directory"},
        {{{{}}, {-ENOENT, -ENOENT, -ENOENT, -EACCES}}, 0, "sock_diag: Permission denied"},
        {{{{200}}}, 4, ""},  // a state that has no slot
    };
    for (const auto& [tables, count, missing] : rows) {
        vxa_get_conn_states_s states = {};
        FlowSnapshot flows;
        vxi::ListeningPorts listening;
        try {
            EXPECT_EQ(vxi::CountSockets(tables, states), missing);
            EXPECT_EQ(vxi::ReadSocketFlows(tables, flows, listening), missing);
            EXPECT_EQ(states.tcp4[vxi::kSocketEstablished] + states.tcp4[0], 1u);
        } catch (const vxi::Error& error) {
            EXPECT_EQ(error.Status(), tables.status[3]);
            EXPECT_STREQ(error.what(), missing);
        }
        EXPECT_EQ(states.count, count);
        EXPECT_EQ(flows.udp.total + flows.tcp.total, count);
    }
}

// Readings of one table, one after the other. Flows go from the peer to a port while a socket
// listens there, and as long as flows are left.
TEST(Sockets, BecomeFlows)
{
    constexpr std::size_t kNeeded = offsetof(tcp_info, tcpi_bytes_sent) + 8;
    const SocketSample listener = {vxi::kSocketListen, 443, 0};
    const SocketSample accepted = {vxi::kSocketTimeWait, 443, 1, 0, 0};
    const std::string counts = "16843009/72340172838076673 16843009/72340172838076673 ";
    const std::string mark = "socket mark=16843009";
    const char* const outward = "443 > 0.0.0.0:1 TIME_WAIT - - - socket";
    const char* const inward = "1 > 0.0.0.0:443 TIME_WAIT - - - socket";
    const std::pair<std::vector<SocketSample>, std::string> readings[] = {
        {{{1, 1, 2, sizeof(tcp_info) + 64}}, "1 > 0.0.0.0:2 ESTABLISHED - " + counts + mark},
        {{{vxi::kSocketTimeWait, 1, 2, kNeeded}}, "1 > 0.0.0.0:2 TIME_WAIT - " + counts + mark},
        {{{vxi::kSocketCloseWait, 1, 2, kNeeded - 1, 3}}, "1 > 0.0.0.0:2 CLOSE_WAIT - - - socket"},
        {{{vxi::kSocketSynSent, 1, 2, kNeeded, 8}}, "1 > 0.0.0.0:2 SYN_SENT - - - socket"},
        {{{vxi::kSocketNewSynReceived, 1, 2}}, "1 > 0.0.0.0:2 SYN_RECV - - - " + mark},
        {{{99, 1, 2, 0}}, "1 > 0.0.0.0:2 NONE - - - " + mark},
        {{accepted}, outward},
        {{accepted, listener}, inward},
        {{accepted}, inward},
        {{accepted}, inward},
        {{}, ""},
        {{accepted}, outward},
    };
    vxi::ListeningPorts listening;
    for (const auto& [sockets, line] : readings) {
        const SocketTables tables = {sockets, {0, -ENOENT, -ENOENT, -ENOENT}};
        FlowSnapshot flows;
        vxi::ReadSocketFlows(tables, flows, listening);
        EXPECT_EQ(Lines(flows), line.empty() ? "" : "tcp 0.0.0.0:" + line);
    }
}

const vxi::BlacklistSet kIntervals = {NFPROTO_INET, "t", "blacklist", 4, true, 0, nullptr};

TEST(Blacklist, JoinsElementsToRanges)
{
    constexpr bool kEnd = true, kKey = false;
    // By the last two bytes of addresses.
    const std::pair<std::vector<std::pair<std::uint16_t, bool>>, const char*> rows[] = {
        {{{0, kEnd}, {256, kEnd}, {5, kKey}}, "5-255 "},  // an end at 0 begins every such set
        {{{9, kEnd}, {5, kKey}, {3, kEnd}, {1, kKey}}, "1-2 5-8 "},
        {{{7, kKey}, {3, kKey}}, "3-6 7-65535 "},  // no ends
        {{{7, kKey}, {7, kKey}, {9, kEnd}}, "7-8 7-8 "},
    };
    for (const auto& [keys, expected] : rows) {
        std::vector<vxi::BlacklistElement> elements;
        for (const auto& [address, end] : keys) {
            elements.emplace_back().interval_end = end;
            elements.back().key[2] = static_cast<std::uint8_t>(address >> 8);
            elements.back().key[3] = static_cast<std::uint8_t>(address);
        }
        std::string ranges;
        for (const auto& entry : vxi::BlacklistEntries(kIntervals, 0, elements)) {
            ranges += std::to_string(entry.address[2] << 8 | entry.address[3]) + "-" +
                      std::to_string(entry.last[2] << 8 | entry.last[3]) + " ";
        }
        EXPECT_EQ(ranges, expected);
    }
}

TEST(Blacklist, LeavesOutOtherKeysAndSets)
{
    for (const std::size_t size : {0, 3, 5, 16}) {
        std::vector<vxi::BlacklistElement> elements;
        const auto append = [&](const auto& m) { return AppendElements(m, kIntervals, elements); };
        EXPECT_EQ(ReadMessage(SetElement(size), append), 1u) << size;
        EXPECT_TRUE(elements.empty());
    }
    for (const char* name : {"blacklis", "Blacklist", "my_blacklist"}) {
        EXPECT_FALSE(ReadMessage(Set(name), vxi::DecodeBlacklistSet)) << name;
    }
}

vxi::ScanCounters Values(std::uint64_t opened, std::uint64_t established)
{
    vxi::ScanCounters values;
    values[vxi::ScanCounter::kNew] = {opened, 0, true};
    values[vxi::ScanCounter::kEstablished] = {established, 0, true};
    return values;
}

TEST(HalfOpenClosed, NeverRunsAheadAndFallsOnlyWithTheCounters)
{
    vxi::HalfOpenClosed closed;
    const struct {
        const char* what;
        std::uint64_t opened, established, half_open, opened_after, established_after, expected;
    } readings[] = {
        {"each kind", 1150, 1100, 20, 1150, 1100, 30},
        {"established between the readings", 1150, 1100, 5, 1150, 1116, 30},
        {"opened and established between them", 1150, 1120, 0, 1160, 1130, 30},
        {"counters were reset: 30 half-open ones are in none", 5, 3, 25, 5, 3, 0},
        {"what comes after counts at once", 25, 3, 25, 25, 3, 20},
        {"reset between the readings", 40, 10, 15, 0, 0, 0},
        {"refused after that", 10, 0, 15, 10, 0, 10},
        {"some established", 30, 8, 15, 30, 8, 22},
        {"established ones alone were reset", 40, 2, 15, 40, 2, 0},
    };
    for (const auto& r : readings) {
        EXPECT_EQ(closed.Update(Values(r.opened, r.established), r.half_open,
                                Values(r.opened_after, r.established_after)),
                  r.expected)
            << r.what;
    }
}

// Passes a message to every reader; returns how much they found in it.
std::uint64_t Count(const nlmsghdr& message)
try {
    FlowSnapshot flows, socket_flows;
    vxi::AddConntrackFlow(message, flows);
    if (message.nlmsg_type == SOCK_DIAG_BY_FAMILY) {
        vxi::ListeningPorts listening;
        const auto dump = [&](const vxi::SocketTable&, vxi::Netlink::Visitor visit) {
            visit(message);
            return Consistency::kConsistent;
        };
        vxi::ReadSocketFlows(dump, socket_flows, listening);
    }
    std::vector<vxi::BlacklistElement> elements;
    vxi::AppendElements(message, kIntervals, elements);
    vxi::RuleCounts rules;
    vxi::AddRule(message, rules);
    vxi::ScanCounters values;
    vxi::DecodeTrafficCounter(message, values);
    vxi::DecodeNamedCounter(message, values);
    return flows.tcp.total + flows.unreadable + socket_flows.tcp.total / 2 + elements.size() +
           vxi::CountElements(message) + rules.size() + values[vxi::ScanCounter::kNew].present +
           values[vxi::ScanCounter::kForward].present +
           vxi::DecodeBlacklistSet(message).has_value();
} catch (const vxi::Error&) {
    return 0;
}

// Nothing is read outside a message, whatever its lengths say, and nothing is counted twice: cut
// anywhere, and with any byte in any place.
TEST(DamagedMessages, AreReadInsideTheirBounds)
{
    const std::pair<std::string, std::uint64_t> rows[] = {
        {Flow(), 1},
        {Socket(), 1},
        {SetElement(), 2},
        {Set("blacklist"), 1},
        {Nft(NFT_MSG_NEWOBJ,
             Attribute(NFTA_OBJ_NAME, "new_connections") + Counter(NFTA_OBJ_DATA, 1, 2)),
         1},
        {RuleWithCounter(vxi::kCountToPortChain), 2},
    };
    for (const auto& [message, found] : rows) {
        EXPECT_EQ(ReadMessage(message, Count), found);
        for (std::size_t at = sizeof(nlmsghdr); at < message.size(); ++at) {
            EXPECT_LE(ReadMessage(message.substr(0, at), Count), found)
                << message.size() << " at " << at;
            for (const int byte : {0, 1, 2, 3, 4, 5, 8, 16, 64, 127, 128, 254, 255}) {
                std::string damaged = message;
                damaged[at] = static_cast<char>(byte);
                ASSERT_LE(ReadMessage(damaged, Count), 10u) << message.size() << " at " << at;
            }
        }
    }
}

}  // namespace
