#include "engines/linux/ScanCounters.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <cerrno>

#include "Message.h"

namespace {

using vxi::ScanCounter;

constexpr uint64_t packets = 0x0102030405060708, bytes = 0x1112131415161718;

Message CounterAnswer(const char* name)
{
    return Message::Compose([&](nlmsghdr* header) {
        header->nlmsg_type = NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWOBJ;
        mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg));
        mnl_attr_put_strz(header, NFTA_OBJ_TABLE, "vxi_scan_1");
        mnl_attr_put_strz(header, NFTA_OBJ_NAME, name);
        nlattr* data = mnl_attr_nest_start(header, NFTA_OBJ_DATA);
        mnl_attr_put_u64(header, NFTA_COUNTER_BYTES, htobe64(bytes));
        mnl_attr_put_u64(header, NFTA_COUNTER_PACKETS, htobe64(packets));
        mnl_attr_nest_end(header, data);
    });
}

TEST(TakeCounter, KeepsCountersOfTheTable)
{
    for (size_t i = 0; i < vxi::scan_named_count; ++i) {
        vxi::ScanCounterValues values;
        const Message answer = CounterAnswer(vxi::scan_counter_names[i]);
        EXPECT_EQ(vxi::take_counter(answer.header(), values), 0);
        EXPECT_EQ(values.values[i].packets, packets);
        EXPECT_EQ(values.values[i].bytes, bytes);
        EXPECT_FALSE(values.complete(ScanCounter::New, ScanCounter::Forward));
    }
    vxi::ScanCounterValues values;
    EXPECT_EQ(vxi::take_counter(CounterAnswer("c_other").header(), values), 0);
    for (const auto& value : values.values) {
        EXPECT_FALSE(value.present);
    }
}

TEST(TakeCounter, TakesAWholeAnswerOrNothing)
{
    const Message whole = CounterAnswer("c_new");
    for (size_t size = sizeof(nlmsghdr); size < whole.size(); ++size) {
        vxi::ScanCounterValues values;
        const int status = vxi::take_counter(whole.Cut(size).header(), values);
        EXPECT_TRUE(status == 0 || status == -EPROTO) << size;
        EXPECT_FALSE(values[ScanCounter::New].present) << size;
    }
}

TEST(ElementsIn, CountsTheListOnly)
{
    const auto answer = [](unsigned elements) {
        return Message::Compose([&](nlmsghdr* header) {
            header->nlmsg_type = NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWSETELEM;
            mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg));
            nlattr* list = mnl_attr_nest_start(header, NFTA_SET_ELEM_LIST_ELEMENTS);
            for (unsigned i = 0; i < elements; ++i) {
                nlattr* element = mnl_attr_nest_start(header, NFTA_LIST_ELEM);
                mnl_attr_put_u32(header, NFTA_SET_ELEM_FLAGS, 0);
                mnl_attr_nest_end(header, element);
            }
            mnl_attr_nest_end(header, list);
        });
    };
    EXPECT_EQ(vxi::elements_in(answer(0).header()), 0u);
    const Message three = answer(3);
    EXPECT_EQ(vxi::elements_in(three.header()), 3u);
    for (size_t size = sizeof(nlmsghdr); size < three.size(); ++size) {
        EXPECT_LE(vxi::elements_in(three.Cut(size).header()), 2u) << size;
    }
}

vxi::ScanCounterValues Values(uint64_t opened, uint64_t established)
{
    vxi::ScanCounterValues values;
    values.values[static_cast<size_t>(ScanCounter::New)] = {opened, 0, true};
    values.values[static_cast<size_t>(ScanCounter::Established)] = {established, 0, true};
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

TEST(HalfOpenTimeout, CoversEveryRepetition)
{
    // One, two, four.. seconds, each at most 120, and 3 to spare.
    const struct {
        unsigned retries;
        uint32_t seconds;
    } cases[] = {{0, 4},   {1, 6},   {5, 66},      {6, 130},
                 {7, 250}, {8, 370}, {127, 14650}, {4000000000u, 14650}};
    for (const auto& c : cases) {
        EXPECT_EQ(vxi::half_open_timeout_s(c.retries), c.seconds) << c.retries;
    }
}

TEST(ScanTableName, TellsItsProcess)
{
    EXPECT_EQ(vxi::scan_table_name(77, 0), "vxi_scan_77");
    EXPECT_EQ(vxi::scan_table_name(77, 2), "vxi_scan_77_2");
    const struct {
        const char* name;
        pid_t process;
    } cases[] = {{"vxi_scan_77", 77},
                 {"vxi_scan_77_2", 77},
                 {"vxi_scan_", 0},
                 {"vxi_scan_77x", 0},
                 {"vxi_scan_77_", 0},
                 {"vxi_scan_77_2x", 0},
                 {"vxi_scan_-7", 0},
                 {"vxi_scan_0", 0},
                 {"vxi_scan", 0},
                 {"xvxi_scan_77", 0},
                 {"vxi_scan_99999999999", 0},
                 {"vxi_scan_ 77", 0},
                 {"", 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(vxi::scan_table_process(c.name), c.process) << c.name;
    }
}

}  // namespace
