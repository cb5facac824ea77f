// Nothing is read outside a message, whatever its lengths say: cut anywhere, and with any byte at
// any place. And nothing is taken twice.
#include <gtest/gtest.h>

#include "Samples.h"
#include "engines/linux/Blacklist.h"
#include "engines/linux/ConntrackDump.h"
#include "engines/linux/RuleProfile.h"
#include "engines/linux/ScanCounters.h"
#include "engines/linux/SocketFlows.h"

namespace {

// How much a reader found, and how much there is at most.
struct Reader {
    const char* name;
    Message whole;
    uint64_t most;
    uint64_t (*read)(const nlmsghdr& message);
};

uint64_t ReadAttributes(const nlmsghdr& message)
{
    uint64_t seen = 0;
    for (const size_t header_size : {0, 4, 60, 4096}) {
        for (const nlattr& outer : vxi::Attributes(message, header_size)) {
            for (const nlattr& inner : vxi::Attributes(outer)) {
                seen += vxi::be64_of(&inner).has_value();
            }
            seen += vxi::text_of(&outer).size() + vxi::be32_of(&outer).has_value();
        }
    }
    return seen;
}

uint64_t ReadFlow(const nlmsghdr& message)
{
    vxi::FlowSnapshot flows;
    vxi::take_flow(message, flows);
    return flows.udp.total + flows.tcp.total + flows.other_protocols + flows.unreadable;
}

uint64_t ReadSocket(const nlmsghdr& message)
{
    vxi::FlowSnapshot flows;
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
    const vxi::BlacklistSet set = {NFPROTO_INET, "t", "blacklist", 4, false, 0, nullptr};
    std::vector<vxi::BlacklistElement> elements;
    vxi::take_elements(message, set, elements);
    return elements.size();
}

uint64_t ReadSet(const nlmsghdr& message)
{
    return vxi::blacklist_set(message).has_value();
}

uint64_t ReadCounter(const nlmsghdr& message)
{
    vxi::ScanCounterValues values;
    const int status = vxi::take_counter(message, values);
    EXPECT_TRUE(status == 0 || status == -EPROTO);
    vxi::take_chain(message, values);
    uint64_t present = 0;
    for (const auto& value : values.values) {
        present += value.present;
    }
    return present;
}

uint64_t ReadRule(const nlmsghdr& message)
{
    vxi::RuleCounts counts;
    vxi::take_rule(message, counts);
    return counts.size();
}

const Reader readers[] = {
    {"attributes", Flow(), 10000, ReadAttributes},
    {"flow", Flow(), 1, ReadFlow},
    {"socket", Socket(), vxi::socket_table_count, ReadSocket},
    {"element", SetElement(), 1, ReadElement},
    {"set", Set("blacklist", 7, 0), 1, ReadSet},
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
