// Messages of the kernel's flow table: whole ones, and such as lack something.
#include "engines/linux/ConntrackDump.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "Samples.h"

namespace {

using vxi::FlowSnapshot;

FlowSnapshot Taken(const Message& message)
{
    FlowSnapshot flows;
    vxi::take_flow(message.header(), flows);
    return flows;
}

TEST(TakeFlow, ReadsEveryField)
{
    const FlowSnapshot flows = Taken(Flow());
    ASSERT_EQ(flows.tcp.entries.size(), 1u);
    const vxa_conntrack_entry_s& entry = flows.tcp.entries[0];
    EXPECT_EQ(entry.source[3], 1);
    EXPECT_EQ(entry.destination[3], 2);
    EXPECT_EQ(entry.source_port[0] << 8 | entry.source_port[1], 1234);
    EXPECT_EQ(entry.destination_port[0] << 8 | entry.destination_port[1], 80);
    EXPECT_EQ(entry.family, 4);
    EXPECT_EQ(entry.tcp_state, TCP_CONNTRACK_ESTABLISHED);
    EXPECT_EQ(entry.flags, VXA_FLOW_SEEN_REPLY | VXA_FLOW_ASSURED | VXA_FLOW_OFFLOADED |
                               VXA_FLOW_COUNTERS_VALID);
    EXPECT_EQ(entry.timeout_s, 300u);
    EXPECT_EQ(entry.packets_forward, UINT32_MAX);
    EXPECT_EQ(entry.bytes_forward, 7u);
    EXPECT_EQ(entry.packets_backward, 3u);
    EXPECT_EQ(entry.bytes_backward, 9u);
}

// Without its ends or protocol a message is no flow; without the rest it still is.
TEST(TakeFlow, LeavesOutWhatIsMissingOrHasTheWrongSize)
{
    constexpr int gone = -1;
    constexpr unsigned tracked = VXA_FLOW_SEEN_REPLY | VXA_FLOW_ASSURED | VXA_FLOW_OFFLOADED;
    constexpr unsigned all = tracked | VXA_FLOW_COUNTERS_VALID;
    const struct {
        std::vector<uint16_t> path;
        int size;
        bool taken;
        unsigned flags, timeout_s, state;
    } rows[] = {
        {{CTA_TUPLE_ORIG}, gone, false, 0, 0, 0},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_IP}, gone, false, 0, 0, 0},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_IP, CTA_IP_V4_SRC}, gone, false, 0, 0, 0},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_IP, CTA_IP_V4_DST}, 3, false, 0, 0, 0},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_PROTO}, gone, false, 0, 0, 0},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_PROTO, CTA_PROTO_NUM}, 2, false, 0, 0, 0},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_PROTO, CTA_PROTO_SRC_PORT}, gone, false, 0, 0, 0},
        {{CTA_TUPLE_ORIG, CTA_TUPLE_PROTO, CTA_PROTO_DST_PORT}, 4, false, 0, 0, 0},
        {{CTA_STATUS}, gone, true, VXA_FLOW_COUNTERS_VALID, 300, 3},
        {{CTA_TIMEOUT}, 2, true, all, 0, 3},
        {{CTA_PROTOINFO, CTA_PROTOINFO_TCP, CTA_PROTOINFO_TCP_STATE}, 4, true, all, 300, 0},
        {{CTA_COUNTERS_REPLY}, gone, true, tracked, 300, 3},
        {{CTA_COUNTERS_ORIG, CTA_COUNTERS_BYTES}, 4, true, tracked, 300, 3},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.path[0] << ' ' << row.path.back());
        const FlowSnapshot flows = Taken(Flow(Resized(FlowAttributes(), row.path, row.size)));
        EXPECT_EQ(flows.unreadable, row.taken ? 0u : 1u);
        ASSERT_EQ(flows.tcp.entries.size(), row.taken ? 1u : 0u);
        for (const auto& entry : flows.tcp.entries) {
            EXPECT_EQ(entry.flags, row.flags);
            EXPECT_EQ(entry.timeout_s, row.timeout_s);
            EXPECT_EQ(entry.tcp_state, row.state);
            EXPECT_EQ(entry.packets_forward != 0, (row.flags & VXA_FLOW_COUNTERS_VALID) != 0);
        }
    }
    const FlowSnapshot other = Taken(Flow(FlowAttributes(), new_flow + 2));
    EXPECT_EQ(other.tcp.total + other.unreadable, 0u);
}

TEST(ReadConntrack, ReadsAgainAfterInterruptions)
{
    const struct {
        unsigned interruptions, readings;
        int status;
    } rows[] = {{0, 1, 0}, {5, 6, 0}, {6, 6, -EINTR}};
    for (const auto& row : rows) {
        unsigned readings = 0;
        FlowSnapshot flows;
        const auto dump = [&](const vxi::Netlink::Visit& visit) {
            visit(Flow(FlowAttributes(IPPROTO_UDP)).header());
            return readings++ < row.interruptions ? -EINTR : 0;
        };
        EXPECT_EQ(vxi::read_conntrack(dump, flows), row.status);
        EXPECT_EQ(readings, row.readings);
        EXPECT_EQ(flows.udp.total, 1u) << "only the last reading counts";
    }
}

}  // namespace
