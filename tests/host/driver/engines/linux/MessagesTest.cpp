// What the engine makes of the kernel's answers: whole ones, such as lack something, and damaged
// ones. Flows are compared as the text that users see of them.
#include <gtest/gtest.h>

#include <cerrno>

#include "../../Fixture.h"
#include "Messages.h"
#include "api/Error.h"
#include "dumps/Address.h"
#include "engines/linux/scan/ScanCounters.h"
#include "engines/linux/tables/Blacklist.h"
#include "engines/linux/tables/ConnStates.h"
#include "engines/linux/tables/FlowsFromConntrack.h"
#include "engines/linux/tables/FlowsFromSockets.h"
#include "engines/linux/tables/RuleProfile.h"

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
    constexpr std::size_t kHead = sizeof(vxa_dump_conntrack_s);
    const std::vector<vxa_conntrack_entry_s>& entries = flows.tcp.entries;
    const std::size_t size = entries.size() * sizeof entries[0];
    std::vector<char> block(2 * kHead + size);
    auto* section = reinterpret_cast<vxa_dump_conntrack_s*>(block.data());
    *section = ConntrackRequest(IPPROTO_TCP);
    section->entry_ct = static_cast<std::uint16_t>(entries.size());
    std::copy_n(reinterpret_cast<const char*>(entries.data()), size, &block[kHead]);
    std::string text = TextOf(tb_dump_all_conn_track, section);
    text.erase(0, text.find("\ntcp") + 1);
    return text.substr(0, text.rfind("\n#") + 1);
}

// Without its ends or protocol a message is no flow; without the rest it still is.
TEST(TakeFlow, ReadsWhatIsThereInItsSize)
{
    constexpr int kGone = -1;
    const struct {
        std::vector<std::uint16_t> path;
        int size;
        const char* line;  // after the ends; null: none
    } rows[] = {
        {{CTA_TIMEOUT}, 4, "ESTABLISHED 300s 4294967295/7 3/9 assured offloaded"},
        {{CTA_TIMEOUT}, 8, "ESTABLISHED 0s 4294967295/7 3/9 assured offloaded"},
        {{CTA_STATUS}, kGone, "ESTABLISHED 300s 4294967295/7 3/9 unreplied"},
        {{CTA_PROTOINFO, CTA_PROTOINFO_TCP, CTA_PROTOINFO_TCP_STATE},
         4,
         "NONE 300s 4294967295/7 3/9 assured offloaded"},
        {{CTA_COUNTERS_REPLY}, kGone, "ESTABLISHED 300s - - assured offloaded"},
        {{CTA_COUNTERS_ORIG, CTA_COUNTERS_BYTES}, 4, "ESTABLISHED 300s - - assured offloaded"},
        {{CTA_TUPLE_ORIG}, kGone, nullptr},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_IP, CTA_IP_V4_SRC}, kGone, nullptr},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_IP, CTA_IP_V4_DST}, 3, nullptr},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_PROTO, CTA_PROTO_NUM}, 2, nullptr},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_PROTO, CTA_PROTO_SRC_PORT}, kGone, nullptr},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_PROTO, CTA_PROTO_DST_PORT}, 4, nullptr},
    };
    for (const auto& row : rows) {
        const Message message = Flow(Resized(FlowAttributes(), row.path, row.size));
        FlowSnapshot flows;
        vxi::AddConntrackFlow(message.Header(), flows);
        EXPECT_EQ(flows.unreadable, row.line ? 0u : 1u);
        EXPECT_EQ(Lines(flows),
                  row.line ? "tcp 10.0.0.1:1234 > 10.0.0.2:80 " + (row.line + "\n"s) : "");
    }
}

TEST(ReadConntrack, GivesUpAfterFiveRetries)
{
    unsigned readings = 0;
    FlowSnapshot flows;
    const auto dump = [&](vxi::Netlink::Visitor visit) {
        visit(Flow(FlowAttributes(IPPROTO_UDP)).Header());
        return ++readings, vxi::Consistency::kInterrupted;
    };
    EXPECT_EQ(vxi::ReadConntrackFlows(dump, flows), vxi::Consistency::kInterrupted);
    EXPECT_EQ(readings, 6u);
    EXPECT_EQ(flows.udp.total, 1u) << "only the last reading counts";
}

// The same sockets in every table; the statuses say how reading each ends, every time.
struct Tables {
    std::vector<SocketSample> sockets = {{}};
    int status[vxi::kSocketTableCount] = {};

    vxi::Consistency operator()(const vxi::SocketTable& table, vxi::Netlink::Visitor visit) const
    {
        for (const SocketSample& socket : sockets) {
            visit(Socket(socket).Header());
        }
        const int end = status[&table - vxi::kSocketTables];
        if (end < 0 && end != -EINTR) {
            throw vxi::Error(end, strerror(-end));
        }
        return end ? vxi::Consistency::kInterrupted : vxi::Consistency::kConsistent;
    }
};

TEST(ReadSockets, FailOnlyWhenNoTableCanBeRead)
{
    const struct {
        Tables tables;
        int status;
        std::uint32_t count;
        const char* text;
    } rows[] = {
        {{{{}}, {0, -EINTR, 0, 0}}, 0, 4, ", IPv6 tcp interrupted: incomplete"},
        {{{{}}, {0, 0, 0, -ENOENT}}, 0, 3, ", IPv6 udp missing: No such file or directory"},
        {{{{}}, {-ENOENT, -ENOENT, -ENOENT, -EACCES}}, -EACCES, 0, "sock_diag: Permission denied"},
        {{{{200}}}, 0, 4, ""},  // a state that has no slot
    };
    for (const auto& row : rows) {
        vxa_get_conn_states_s states;
        FlowSnapshot flows;
        vxi::ListeningPorts listening;
        try {
            EXPECT_EQ(vxi::CountSockets(row.tables, states), row.text);
            EXPECT_EQ(states.count, row.count);
            EXPECT_EQ(states.tcp4[vxi::kSocketEstablished] + states.tcp4[0], row.count > 0);
            EXPECT_EQ(vxi::ReadSocketFlows(row.tables, flows, listening), row.text);
            EXPECT_EQ(row.status, 0);
        } catch (const vxi::Error& error) {
            EXPECT_EQ(error.Status(), row.status);
            EXPECT_STREQ(error.what(), row.text);
        }
        EXPECT_EQ(flows.udp.total + flows.tcp.total, row.count);
    }
}

// Of the sockets of one table; `waiting` is what an earlier reading left.
std::string SocketLines(const std::vector<SocketSample>& sockets, vxi::ListeningPorts& waiting)
{
    FlowSnapshot flows;
    vxi::ReadSocketFlows(Tables{sockets, {0, -ENOENT, -ENOENT, -ENOENT}}, flows, waiting);
    return Lines(flows);
}

TEST(SocketFlows, TakeOnlyWhatIsWhole)
{
    constexpr std::size_t kNeeded = offsetof(tcp_info, tcpi_bytes_sent) + 8;
    const std::pair<SocketSample, const char*> rows[] = {
        {{1, 1, 2, sizeof(tcp_info) + 64}, "ESTABLISHED - 0/11 0/22 socket mark=77\n"},
        {{vxi::kSocketTimeWait, 1, 2, kNeeded}, "TIME_WAIT - 0/11 0/22 socket mark=77\n"},
        {{vxi::kSocketCloseWait, 1, 2, kNeeded - 1, 3}, "CLOSE_WAIT - - - socket\n"},
        {{vxi::kSocketSynSent, 1, 2, kNeeded, 8},
         "SYN_SENT - - - socket\n"},  // attempts, no counts
        {{vxi::kSocketNewSynReceived, 1, 2}, "SYN_RECV - - - socket mark=77\n"},
        {{99, 1, 2, 0}, "NONE - - - socket mark=77\n"},
    };
    for (const auto& [socket, line] : rows) {
        vxi::ListeningPorts waiting;
        EXPECT_EQ(SocketLines({socket}, waiting), "tcp 0.0.0.0:1 > 0.0.0.0:2 "s + line);
    }
}

// From the peer to the port while a socket waits there, and for as long as flows are left.
TEST(SocketFlows, KeepTheirDirectionAfterTheListener)
{
    const SocketSample listener = {vxi::kSocketListen, 443, 0};
    const SocketSample accepted = {vxi::kSocketTimeWait, 443, 40000};
    const struct {
        std::vector<SocketSample> sockets;
        const char* line;
    } readings[] = {{{accepted}, ":40000 "},
                    {{accepted, listener}, ":443 "},
                    {{accepted}, ":443 "},
                    {{accepted}, ":443 "},
                    {{}, ""},
                    {{accepted}, ":40000 "}};
    vxi::ListeningPorts waiting;
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
    std::uint16_t address;  // the last two of four bytes
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
            elements.emplace_back().interval_end = element.end;
            elements.back().key[2] = static_cast<std::uint8_t>(element.address >> 8);
            elements.back().key[3] = static_cast<std::uint8_t>(element.address);
        }
        std::string text;
        for (const auto& entry : vxi::BlacklistEntries(AddressSet(each.intervals), 0, elements)) {
            char address[vxi::kAddressTextSize];
            text.append(address, vxi::WriteAddress(address, entry.address, 4));
            if (entry.flags & VXA_BLACKLIST_RANGE) {
                text.append("-").append(address, vxi::WriteAddress(address, entry.last, 4));
            }
            text += " ";
        }
        EXPECT_EQ(text, each.entries);
    }
}

TEST(BlacklistElements, OfAnotherSizeAreLeftOutAndCounted)
{
    for (const std::size_t size : {0, 3, 5, 16}) {
        std::vector<BlacklistElement> elements;
        EXPECT_EQ(vxi::AppendElements(SetElement(size).Header(), AddressSet(false), elements), 1u);
        EXPECT_TRUE(elements.empty()) << size;
    }
    for (const char* name : {"blacklis", "Blacklist", "my_blacklist"}) {
        EXPECT_FALSE(vxi::DecodeBlacklistSet(Set(name, 7).Header())) << name;
    }
}

vxi::ScanCounterValues Values(std::uint64_t opened, std::uint64_t established)
{
    vxi::ScanCounterValues values;
    values.values[static_cast<std::size_t>(vxi::ScanCounter::kNew)] = {opened, 0, true};
    values.values[static_cast<std::size_t>(vxi::ScanCounter::kEstablished)] = {established, 0,
                                                                               true};
    return values;
}

TEST(HalfOpenClosed, NeverRunsAheadAndFallsOnlyWithTheCounters)
{
    vxi::HalfOpenClosed closed;
    const struct {
        const char* what;
        std::uint64_t opened, established, half_open, opened_after, established_after, expected;
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
        EXPECT_EQ(closed.Update(Values(r.opened, r.established), r.half_open,
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
    std::uint64_t most;
    std::uint64_t (*read)(const nlmsghdr& message);
};

std::uint64_t ReadFlow(const nlmsghdr& message)
{
    FlowSnapshot flows;
    vxi::AddConntrackFlow(message, flows);
    return flows.udp.total + flows.tcp.total + flows.other_protocols + flows.unreadable;
}

std::uint64_t ReadSocket(const nlmsghdr& message)
{
    FlowSnapshot flows;
    vxi::ListeningPorts listening;
    const auto dump = [&](const vxi::SocketTable&, vxi::Netlink::Visitor visit) {
        visit(message);
        return vxi::Consistency::kConsistent;
    };
    vxi::ReadSocketFlows(dump, flows, listening);
    return flows.udp.total + flows.tcp.total;
}

std::uint64_t ReadElement(const nlmsghdr& message)
{
    std::vector<BlacklistElement> elements;
    vxi::AppendElements(message, AddressSet(false), elements);
    return elements.size();
}

std::uint64_t ReadSet(const nlmsghdr& message)
{
    return vxi::DecodeBlacklistSet(message).has_value();
}

std::uint64_t ReadCounter(const nlmsghdr& message)
{
    vxi::ScanCounterValues values;
    try {
        vxi::TakeCounter(message, values);
    } catch (const vxi::Error&) {
        return 0;
    }
    vxi::TakeChain(message, values);
    return values[vxi::ScanCounter::kNew].present + values[vxi::ScanCounter::kForward].present;
}

std::uint64_t ReadRule(const nlmsghdr& message)
{
    vxi::RuleCounts counts;
    vxi::AddRule(message, counts);
    return counts.size();
}

const Reader kReaders[] = {
    {"flow", Flow(), 1, ReadFlow},
    {"socket", Socket(), vxi::kSocketTableCount, ReadSocket},
    {"element", SetElement(), 1, ReadElement},
    {"set", Set("blacklist", 7), 1, ReadSet},
    {"named counter", NamedCounter("c_new"), 1, ReadCounter},
    {"chain's counter", RuleWithCounter(vxi::kScanForwardChain), 1, ReadCounter},
    {"rule", RuleWithCounter("c"), 1, ReadRule},
    {"elements of a set", SetElement(), 10, vxi::ElementsIn},
};

TEST(DamagedMessages, AreReadInsideTheirBounds)
{
    for (const Reader& reader : kReaders) {
        SCOPED_TRACE(reader.name);
        EXPECT_GE(reader.read(reader.whole.Header()), 1u);
        for (std::size_t size = sizeof(nlmsghdr); size < reader.whole.size(); ++size) {
            EXPECT_LE(reader.read(reader.whole.Cut(size).Header()), reader.most) << size;
        }
        for (std::size_t at = sizeof(nlmsghdr); at < reader.whole.size(); ++at) {
            for (const int byte : {0, 1, 2, 3, 4, 5, 8, 16, 64, 127, 128, 254, 255}) {
                const Message damaged = reader.whole.Cut(reader.whole.size());
                damaged.Bytes()[at] = static_cast<char>(byte);
                ASSERT_LE(reader.read(damaged.Header()), reader.most) << at << ": " << byte;
            }
        }
    }
}

}  // namespace
