// What the engine makes of the kernel's answers: whole ones, such as lack something, and damaged
// ones. Flows are compared as the text that users see of them.
#include <gtest/gtest.h>

#include <cerrno>

#include "../../Fixture.h"
#include "dumps/Address.h"
#include "Messages.h"
#include "engines/linux/tables/Blacklist.h"
#include "engines/linux/tables/ConnStates.h"
#include "engines/linux/netlink/ConntrackDump.h"
#include "engines/linux/tables/RuleProfile.h"
#include "engines/linux/scan/ScanCounters.h"
#include "engines/linux/tables/SocketFlows.h"

namespace {

using namespace std::string_literals;
using vxi::BlacklistElement;
using vxi::FlowSnapshot;

// The lines of TCP flows.
std::string Lines(const FlowSnapshot& flows)
{
    if (flows.tcp.entries.empty()) {
        return "";
    }
    constexpr size_t head = sizeof(vxa_dump_conntrack_s);
    const std::vector<vxa_conntrack_entry_s>& entries = flows.tcp.entries;
    const size_t size = entries.size() * sizeof entries[0];
    std::vector<char> block(2 * head + size);
    auto* section = reinterpret_cast<vxa_dump_conntrack_s*>(block.data());
    *section = conntrack_request(IPPROTO_TCP);
    section->entry_ct = static_cast<uint16_t>(entries.size());
    std::copy_n(reinterpret_cast<const char*>(entries.data()), size, &block[head]);
    std::string text = text_of(tb_dump_all_conn_track, section);
    text.erase(0, text.find("\ntcp") + 1);
    return text.substr(0, text.rfind("\n#") + 1);
}

// Without its ends or protocol a message is no flow; without the rest it still is.
TEST(TakeFlow, ReadsWhatIsThereInItsSize)
{
    constexpr int gone = -1;
    const struct {
        std::vector<uint16_t> path;
        int size;
        const char* line;  // after the ends; null: none
    } rows[] = {
        {{CTA_TIMEOUT}, 4, "ESTABLISHED 300s 4294967295/7 3/9 assured offloaded"},
        {{CTA_TIMEOUT}, 8, "ESTABLISHED 0s 4294967295/7 3/9 assured offloaded"},
        {{CTA_STATUS}, gone, "ESTABLISHED 300s 4294967295/7 3/9 unreplied"},
        {{CTA_PROTOINFO, CTA_PROTOINFO_TCP, CTA_PROTOINFO_TCP_STATE},
         4,
         "NONE 300s 4294967295/7 3/9 assured offloaded"},
        {{CTA_COUNTERS_REPLY}, gone, "ESTABLISHED 300s - - assured offloaded"},
        {{CTA_COUNTERS_ORIG, CTA_COUNTERS_BYTES}, 4, "ESTABLISHED 300s - - assured offloaded"},
        {{CTA_TUPLE_ORIG}, gone, nullptr},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_IP, CTA_IP_V4_SRC}, gone, nullptr},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_IP, CTA_IP_V4_DST}, 3, nullptr},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_PROTO, CTA_PROTO_NUM}, 2, nullptr},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_PROTO, CTA_PROTO_SRC_PORT}, gone, nullptr},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_PROTO, CTA_PROTO_DST_PORT}, 4, nullptr},
    };
    for (const auto& row : rows) {
        const Message message = Flow(Resized(FlowAttributes(), row.path, row.size));
        FlowSnapshot flows;
        vxi::take_flow(message.header(), flows);
        EXPECT_EQ(flows.unreadable, row.line ? 0u : 1u);
        EXPECT_EQ(Lines(flows),
                  row.line ? "tcp 10.0.0.1:1234 > 10.0.0.2:80 " + (row.line + "\n"s) : "");
    }
}

TEST(ReadConntrack, GivesUpAfterFiveRetries)
{
    unsigned readings = 0;
    FlowSnapshot flows;
    const auto dump = [&](const vxi::Netlink::Visit& visit) {
        visit(Flow(FlowAttributes(IPPROTO_UDP)).header());
        return ++readings, -EINTR;
    };
    EXPECT_EQ(vxi::read_conntrack(dump, flows), -EINTR);
    EXPECT_EQ(readings, 6u);
    EXPECT_EQ(flows.udp.total, 1u) << "only the last reading counts";
}

// The same sockets in every table; the statuses say how reading each ends, every time.
struct Tables {
    std::vector<SocketSample> sockets = {{}};
    int status[vxi::socket_table_count] = {};

    int operator()(const vxi::SocketTable& table, vxi::Netlink::Visit visit) const
    {
        for (const SocketSample& socket : sockets) {
            visit(Socket(socket).header());
        }
        return status[&table - vxi::socket_tables];
    }
};

TEST(ReadSockets, FailOnlyWhenNoTableCanBeRead)
{
    const struct {
        Tables tables;
        int status;
        uint32_t count;
        const char* text;
    } rows[] = {
        {{{{}}, {0, -EINTR, 0, 0}}, 0, 4, ", IPv6 tcp interrupted: incomplete"},
        {{{{}}, {0, 0, 0, -ENOENT}}, 0, 3, ", IPv6 udp missing: No such file or directory"},
        {{{{}}, {-ENOENT, -ENOENT, -ENOENT, -EACCES}}, -EACCES, 0, "sock_diag: Permission denied"},
        {{{{200}}}, 0, 4, ""},  // a state that has no slot
    };
    for (const auto& row : rows) {
        vxa_get_conn_states_s states;
        std::string shortfall;
        const vxi::Outcome outcome = vxi::count_sockets(row.tables, states, shortfall);
        EXPECT_EQ(outcome.status, row.status);
        EXPECT_EQ(outcome.failed() ? outcome.text : shortfall, row.text);
        EXPECT_EQ(states.count, row.count);
        EXPECT_EQ(states.tcp4[vxi::SocketEstablished] + states.tcp4[0], row.count > 0);

        FlowSnapshot flows;
        vxi::WaitingPorts waiting;
        EXPECT_EQ(vxi::read_socket_flows(row.tables, flows, shortfall, waiting).status, row.status);
        EXPECT_EQ(flows.udp.total + flows.tcp.total, row.count);
    }
}

// Of the sockets of one table; `waiting` is what an earlier reading left.
std::string SocketLines(const std::vector<SocketSample>& sockets, vxi::WaitingPorts& waiting)
{
    FlowSnapshot flows;
    std::string shortfall;
    const Tables tables = {sockets, {0, -ENOENT, -ENOENT, -ENOENT}};
    EXPECT_FALSE(vxi::read_socket_flows(tables, flows, shortfall, waiting).failed());
    return Lines(flows);
}

TEST(SocketFlows, TakeOnlyWhatIsWhole)
{
    constexpr size_t needed = offsetof(tcp_info, tcpi_bytes_sent) + 8;
    const std::pair<SocketSample, const char*> rows[] = {
        {{1, 1, 2, sizeof(tcp_info) + 64}, "ESTABLISHED - 0/11 0/22 socket mark=77\n"},
        {{vxi::SocketTimeWait, 1, 2, needed}, "TIME_WAIT - 0/11 0/22 socket mark=77\n"},
        {{vxi::SocketCloseWait, 1, 2, needed - 1, 3}, "CLOSE_WAIT - - - socket\n"},
        {{vxi::SocketSynSent, 1, 2, needed, 8}, "SYN_SENT - - - socket\n"},  // attempts, no counts
        {{vxi::SocketNewSynReceived, 1, 2}, "SYN_RECV - - - socket mark=77\n"},
        {{99, 1, 2, 0}, "NONE - - - socket mark=77\n"},
    };
    for (const auto& [socket, line] : rows) {
        vxi::WaitingPorts waiting;
        EXPECT_EQ(SocketLines({socket}, waiting), "tcp 0.0.0.0:1 > 0.0.0.0:2 "s + line);
    }
}

// From the peer to the port while a socket waits there, and for as long as flows are left.
TEST(SocketFlows, KeepTheirDirectionAfterTheListener)
{
    const SocketSample listener = {vxi::SocketListen, 443, 0};
    const SocketSample accepted = {vxi::SocketTimeWait, 443, 40000};
    const struct {
        std::vector<SocketSample> sockets;
        const char* line;
    } readings[] = {{{accepted}, ":40000 "},
                    {{accepted, listener}, ":443 "},
                    {{accepted}, ":443 "},
                    {{accepted}, ":443 "},
                    {{}, ""},
                    {{accepted}, ":40000 "}};
    vxi::WaitingPorts waiting;
    for (const auto& reading : readings) {
        const std::string line = SocketLines(reading.sockets, waiting);
        EXPECT_EQ(line.empty(), reading.sockets.empty());
        EXPECT_NE(line.find(line.empty() ? "" : "> 0.0.0.0"s + reading.line), line.npos) << line;
    }
}

vxi::BlacklistSet AddressSet(bool intervals)
{
    return {NFPROTO_INET, "t", "blacklist", 4, intervals, 0, nullptr};
}

struct Element {
    uint16_t address;  // the last two of four bytes
    bool end;
};

TEST(BlacklistElements, Intervals)
{
    const struct {
        bool intervals;
        std::vector<Element> elements;
        const char* entries;
    } cases[] = {
        {false, {{9, false}, {1, false}}, "0.0.0.1 0.0.0.9 "},
        {true, {{5, false}, {256, true}}, "0.0.0.5-0.0.0.255 "},
        {true, {{0, true}}, ""},  // the marker that begins every such set
        {true, {{9, true}, {5, false}, {3, true}, {1, false}}, "0.0.0.1-0.0.0.2 0.0.0.5-0.0.0.8 "},
        {true, {{7, false}, {3, false}}, "0.0.0.3-0.0.0.6 0.0.0.7-255.255.255.255 "},     // no ends
        {true, {{7, false}, {7, false}, {9, true}}, "0.0.0.7-0.0.0.8 0.0.0.7-0.0.0.8 "},  // twice
    };
    for (const auto& each : cases) {
        std::vector<BlacklistElement> elements;
        for (const Element& element : each.elements) {
            elements.emplace_back().ends_interval = element.end;
            elements.back().key[2] = static_cast<uint8_t>(element.address >> 8);
            elements.back().key[3] = static_cast<uint8_t>(element.address);
        }
        std::string text;
        for (const auto& entry : vxi::entries_of(AddressSet(each.intervals), 0, elements)) {
            char address[vxi::address_text_size];
            text.append(address, vxi::put_address(address, entry.address, 4));
            if (entry.flags & VXA_BLACKLIST_RANGE) {
                text.append("-").append(address, vxi::put_address(address, entry.last, 4));
            }
            text += " ";
        }
        EXPECT_EQ(text, each.entries);
    }
}

TEST(BlacklistElements, OfAnotherSizeAreLeftOutAndCounted)
{
    for (const size_t size : {0, 3, 5, 16}) {
        std::vector<BlacklistElement> elements;
        EXPECT_EQ(vxi::take_elements(SetElement(size).header(), AddressSet(false), elements), 1u);
        EXPECT_TRUE(elements.empty()) << size;
    }
    for (const char* name : {"blacklis", "Blacklist", "my_blacklist"}) {
        EXPECT_FALSE(vxi::blacklist_set(Set(name, 7).header())) << name;
    }
}

vxi::ScanCounterValues Values(uint64_t opened, uint64_t established)
{
    vxi::ScanCounterValues values;
    values.values[static_cast<size_t>(vxi::ScanCounter::New)] = {opened, 0, true};
    values.values[static_cast<size_t>(vxi::ScanCounter::Established)] = {established, 0, true};
    return values;
}

TEST(HalfOpenClosed, NeverRunsAheadAndFallsOnlyWithTheCounters)
{
    vxi::HalfOpenClosed closed;
    const struct {
        const char* what;
        uint64_t opened, established, half_open, opened_after, established_after, expected;
    } readings[] = {
        {"nothing yet", 0, 0, 0, 0, 0, 0},
        {"all established", 1050, 1050, 0, 1050, 1050, 0},
        {"each kind", 1150, 1100, 20, 1150, 1100, 30},
        {"established between the readings", 1150, 1100, 5, 1150, 1116, 30},
        {"opened and established between them", 1150, 1120, 0, 1160, 1130, 30},
        {"more refused", 1200, 1130, 30, 1200, 1130, 40},
        {"counters were reset: 30 half-open ones are in none", 5, 3, 25, 5, 3, 0},
        {"what comes after counts at once", 25, 3, 25, 25, 3, 20},
        {"reset between the readings", 40, 10, 15, 0, 0, 0},
        {"refused after that", 10, 0, 15, 10, 0, 10},
        {"some established", 30, 8, 15, 30, 8, 22},
        {"established ones alone were reset", 40, 2, 15, 40, 2, 0},
    };
    for (const auto& r : readings) {
        EXPECT_EQ(closed.update(Values(r.opened, r.established), r.half_open,
                                Values(r.opened_after, r.established_after)),
                  r.expected)
            << r.what;
    }
}

// Nothing is read outside a message, whatever its lengths say: cut anywhere, and with any byte at
// any place. And nothing is taken twice.

// How much a reader found, and how much there is at most.
struct Reader {
    const char* name;
    Message whole;
    uint64_t most;
    uint64_t (*read)(const nlmsghdr& message);
};

uint64_t ReadFlow(const nlmsghdr& message)
{
    FlowSnapshot flows;
    vxi::take_flow(message, flows);
    return flows.udp.total + flows.tcp.total + flows.other_protocols + flows.unreadable;
}

uint64_t ReadSocket(const nlmsghdr& message)
{
    FlowSnapshot flows;
    std::string shortfall;
    vxi::WaitingPorts waiting;
    const auto dump = [&](const vxi::SocketTable&, vxi::Netlink::Visit visit) {
        return visit(message);
    };
    vxi::read_socket_flows(dump, flows, shortfall, waiting);
    return flows.udp.total + flows.tcp.total;
}

uint64_t ReadElement(const nlmsghdr& message)
{
    std::vector<BlacklistElement> elements;
    vxi::take_elements(message, AddressSet(false), elements);
    return elements.size();
}

uint64_t ReadSet(const nlmsghdr& message)
{
    return vxi::blacklist_set(message).has_value();
}

uint64_t ReadCounter(const nlmsghdr& message)
{
    vxi::ScanCounterValues values;
    vxi::take_counter(message, values);
    vxi::take_chain(message, values);
    return values[vxi::ScanCounter::New].present + values[vxi::ScanCounter::Forward].present;
}

uint64_t ReadRule(const nlmsghdr& message)
{
    vxi::RuleCounts counts;
    vxi::take_rule(message, counts);
    return counts.size();
}

const Reader readers[] = {
    {"flow", Flow(), 1, ReadFlow},
    {"socket", Socket(), vxi::socket_table_count, ReadSocket},
    {"element", SetElement(), 1, ReadElement},
    {"set", Set("blacklist", 7), 1, ReadSet},
    {"named counter", NamedCounter("c_new"), 1, ReadCounter},
    {"chain's counter", RuleWithCounter(vxi::scan_forward_chain), 1, ReadCounter},
    {"rule", RuleWithCounter("c"), 1, ReadRule},
    {"elements of a set", SetElement(), 10, vxi::elements_in},
};

TEST(DamagedMessages, AreReadInsideTheirBounds)
{
    for (const Reader& reader : readers) {
        SCOPED_TRACE(reader.name);
        EXPECT_GE(reader.read(reader.whole.header()), 1u);
        for (size_t size = sizeof(nlmsghdr); size < reader.whole.size(); ++size) {
            EXPECT_LE(reader.read(reader.whole.Cut(size).header()), reader.most) << size;
        }
        for (size_t at = sizeof(nlmsghdr); at < reader.whole.size(); ++at) {
            for (const int byte : {0, 1, 2, 3, 4, 5, 8, 16, 64, 127, 128, 254, 255}) {
                const Message damaged = reader.whole.Cut(reader.whole.size());
                damaged.bytes()[at] = static_cast<char>(byte);
                ASSERT_LE(reader.read(damaged.header()), reader.most) << at << ": " << byte;
            }
        }
    }
}

}  // namespace
