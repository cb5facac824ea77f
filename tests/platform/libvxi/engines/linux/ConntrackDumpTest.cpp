// Messages of the kernel's flow table: whole ones, and such as no kernel should send.
#include "engines/linux/ConntrackDump.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_conntrack_tcp.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>

#include <cerrno>

#include "Message.h"

namespace {

using vxi::FlowSnapshot;

constexpr uint16_t newFlow = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_NEW;

// What of a whole message to leave out or to spoil.
enum class Fault {
    None,
    OtherType,
    NoTuple,
    NoAddresses,
    NoSource,
    ShortDestination,
    MixedFamilies,
    NoProtocol,
    WideProtocol,
    NoPorts,
    WidePort,
    NoStatus,
    ShortTimeout,
    WideState,
    OneCounter,
    ShortBytes,
};

// A value cut by a byte, or with one more, where the fault says so.
void Put(nlmsghdr* message, uint16_t type, const void* value, size_t size, int more = 0)
{
    char bytes[32] = {};
    memcpy(bytes, value, size);
    mnl_attr_put(message, type, size + static_cast<size_t>(more), bytes);
}

template <class Body>
void Nest(nlmsghdr* message, uint16_t type, Body body)
{
    nlattr* nest = mnl_attr_nest_start(message, type);
    body();
    mnl_attr_nest_end(message, nest);
}

void PutAddresses(nlmsghdr* message, Fault fault)
{
    const uint8_t source[4] = {10, 0, 0, 1};
    const uint8_t destination[16] = {10, 0, 0, 2};
    if (fault != Fault::NoSource) {
        Put(message, CTA_IP_V4_SRC, source, 4);
    }
    if (fault == Fault::MixedFamilies) {
        Put(message, CTA_IP_V6_DST, destination, 16);
    } else {
        Put(message, CTA_IP_V4_DST, destination, 4, fault == Fault::ShortDestination ? -1 : 0);
    }
}

void PutEnds(nlmsghdr* message, uint8_t protocol, Fault fault)
{
    const uint16_t source = htons(1234);
    const uint16_t destination = htons(80);
    if (fault != Fault::NoProtocol) {
        Put(message, CTA_PROTO_NUM, &protocol, 1, fault == Fault::WideProtocol ? 1 : 0);
    }
    if (fault != Fault::NoPorts) {
        Put(message, CTA_PROTO_SRC_PORT, &source, 2);
        Put(message, CTA_PROTO_DST_PORT, &destination, 2, fault == Fault::WidePort ? 2 : 0);
    }
}

void PutCounters(nlmsghdr* message, uint16_t type, uint64_t packets, uint64_t bytes, Fault fault)
{
    packets = htobe64(packets);
    bytes = htobe64(bytes);
    Nest(message, type, [&] {
        Put(message, CTA_COUNTERS_PACKETS, &packets, 8);
        Put(message, CTA_COUNTERS_BYTES, &bytes, 8, fault == Fault::ShortBytes ? -4 : 0);
    });
}

void PutState(nlmsghdr* message, Fault fault)
{
    const uint8_t established = TCP_CONNTRACK_ESTABLISHED;
    Nest(message, CTA_PROTOINFO, [&] {
        Nest(message, CTA_PROTOINFO_TCP, [&] {
            Put(message, CTA_PROTOINFO_TCP_STATE, &established, 1,
                fault == Fault::WideState ? 3 : 0);
        });
    });
}

Message Flow(uint8_t protocol, Fault fault = Fault::None)
{
    const uint32_t status = htonl(IPS_SEEN_REPLY | IPS_ASSURED | IPS_CONFIRMED | IPS_OFFLOAD);
    const uint32_t timeout_s = htonl(300);
    return Message::Compose([&](nlmsghdr* message) {
        message->nlmsg_type = static_cast<uint16_t>(newFlow + (fault == Fault::OtherType ? 2 : 0));
        mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg));
        Nest(message, fault == Fault::NoTuple ? CTA_TUPLE_REPLY : CTA_TUPLE_ORIG, [&] {
            if (fault != Fault::NoAddresses) {
                Nest(message, CTA_TUPLE_IP, [&] { PutAddresses(message, fault); });
            }
            Nest(message, CTA_TUPLE_PROTO, [&] { PutEnds(message, protocol, fault); });
        });
        if (fault != Fault::NoStatus) {
            Put(message, CTA_STATUS, &status, 4);
        }
        Put(message, CTA_TIMEOUT, &timeout_s, 4, fault == Fault::ShortTimeout ? -2 : 0);
        PutState(message, fault);
        PutCounters(message, CTA_COUNTERS_ORIG, 5000000000, 7, fault);
        if (fault != Fault::OneCounter) {
            PutCounters(message, CTA_COUNTERS_REPLY, 3, 1ull << 40, fault);
        }
    });
}

FlowSnapshot Taken(const Message& message)
{
    FlowSnapshot flows;
    vxi::take_flow(message.header(), flows);
    return flows;
}

TEST(TakeFlow, ReadsEveryField)
{
    const FlowSnapshot flows = Taken(Flow(IPPROTO_TCP));
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
    EXPECT_EQ(entry.bytes_backward, 1ull << 40);
}

struct Row {
    const char* name;
    Fault fault;
    uint32_t taken;
    uint64_t unreadable;
};

class TakeFlowOf : public testing::TestWithParam<Row> {};

// Without its ends or protocol a message is no flow; without the rest it still is.
TEST_P(TakeFlowOf, CountsWhatItCannotRead)
{
    const FlowSnapshot flows = Taken(Flow(IPPROTO_TCP, GetParam().fault));
    EXPECT_EQ(flows.tcp.total, GetParam().taken);
    EXPECT_EQ(flows.unreadable, GetParam().unreadable);
    EXPECT_EQ(flows.udp.total + flows.other_protocols, 0u);
}

INSTANTIATE_TEST_SUITE_P(
    , TakeFlowOf,
    testing::Values(
        Row{"OtherType", Fault::OtherType, 0, 0}, Row{"NoTuple", Fault::NoTuple, 0, 1},
        Row{"NoAddresses", Fault::NoAddresses, 0, 1}, Row{"NoSource", Fault::NoSource, 0, 1},
        Row{"ShortDestination", Fault::ShortDestination, 0, 1},
        Row{"MixedFamilies", Fault::MixedFamilies, 0, 1},
        Row{"NoProtocol", Fault::NoProtocol, 0, 1}, Row{"WideProtocol", Fault::WideProtocol, 0, 1},
        Row{"NoPorts", Fault::NoPorts, 0, 1}, Row{"WidePort", Fault::WidePort, 0, 1},
        Row{"NoStatus", Fault::NoStatus, 1, 0}, Row{"ShortTimeout", Fault::ShortTimeout, 1, 0},
        Row{"WideState", Fault::WideState, 1, 0}, Row{"OneCounter", Fault::OneCounter, 1, 0},
        Row{"ShortBytes", Fault::ShortBytes, 1, 0}),
    [](const auto& row) { return row.param.name; });

TEST(TakeFlow, LeavesOutWhatHasTheWrongSize)
{
    const auto entry = [](Fault fault) {
        return Taken(Flow(IPPROTO_TCP, fault)).tcp.entries.at(0);
    };
    EXPECT_EQ(entry(Fault::NoStatus).flags, VXA_FLOW_COUNTERS_VALID);
    EXPECT_EQ(entry(Fault::ShortTimeout).timeout_s, 0u);
    EXPECT_EQ(entry(Fault::WideState).tcp_state, TCP_CONNTRACK_NONE);
    for (const Fault fault : {Fault::OneCounter, Fault::ShortBytes}) {
        EXPECT_EQ(entry(fault).flags & VXA_FLOW_COUNTERS_VALID, 0);
        EXPECT_EQ(entry(fault).packets_forward, 0u);
    }
}

// Whatever arrives is one flow at most, and nothing outside it is read.
TEST(TakeFlow, StaysInsideDamagedMessages)
{
    const Message whole = Flow(IPPROTO_TCP);
    const auto expect_one_at_most = [](const Message& message) {
        const FlowSnapshot flows = Taken(message);
        ASSERT_LE(flows.udp.total + flows.tcp.total + flows.other_protocols + flows.unreadable, 1u);
    };
    for (size_t size = sizeof(nlmsghdr); size <= whole.size(); ++size) {
        expect_one_at_most(whole.Cut(size));
    }
    for (size_t at = sizeof(nlmsghdr); at < whole.size(); ++at) {
        for (unsigned byte = 0; byte < 256; ++byte) {
            const Message damaged = whole.Cut(whole.size());
            damaged.bytes()[at] = static_cast<char>(byte);
            expect_one_at_most(damaged);
        }
    }
}

// Brings two flows, and is interrupted the first `interruptions` times.
struct Dump {
    unsigned interruptions;
    unsigned readings = 0;

    int operator()(vxi::Netlink::Visit visit)
    {
        visit(Flow(IPPROTO_UDP).header());
        visit(Flow(IPPROTO_TCP).header());
        return readings++ < interruptions ? -EINTR : 0;
    }
};

TEST(ReadConntrack, ReadsAnewAfterInterruptions)
{
    const struct {
        unsigned interruptions, readings;
        int status;
    } rows[] = {{0, 1, 0}, {1, 2, 0}, {5, 6, 0}, {6, 6, -EINTR}, {100, 6, -EINTR}};
    for (const auto& row : rows) {
        Dump dump{row.interruptions};
        FlowSnapshot flows;
        EXPECT_EQ(vxi::read_conntrack(std::ref(dump), flows), row.status);
        EXPECT_EQ(dump.readings, row.readings);
        // Only the last reading counts, also when it is not consistent.
        EXPECT_EQ(flows.udp.total, 1u);
        EXPECT_EQ(flows.tcp.total, 1u);
    }
}

}  // namespace
