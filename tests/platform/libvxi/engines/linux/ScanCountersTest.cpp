#include "engines/linux/ScanCounters.h"

#include <gtest/gtest.h>

#include "Samples.h"

namespace {

using vxi::ScanCounter;

TEST(ScanCounters, AreTakenByNameAndByChain)
{
    vxi::ScanCounterValues values;
    for (const char* name : vxi::scan_counter_names) {
        EXPECT_FALSE(values.complete(ScanCounter::New, ScanCounter::Forward));
        EXPECT_EQ(vxi::take_counter(NamedCounter(name).header(), values), 0);
    }
    EXPECT_TRUE(values.complete(ScanCounter::New, ScanCounter::Forward));
    for (const char* chain : {vxi::scan_forward_chain, "other", vxi::scan_backward_chain}) {
        EXPECT_FALSE(values.complete(ScanCounter::New, ScanCounter::Count));
        vxi::take_chain(RuleWithCounter(chain).header(), values);
    }
    for (const auto& value : values.values) {
        EXPECT_TRUE(value.present);
        EXPECT_EQ(value.packets, counted_packets);
        EXPECT_EQ(value.bytes, counted_bytes);
    }
    values = {};
    EXPECT_EQ(vxi::take_counter(NamedCounter("c_other").header(), values), 0);
    EXPECT_FALSE(values[ScanCounter::New].present);
}

TEST(ElementsIn, CountsTheListOnly)
{
    const auto answer = [](size_t elements) {
        const Attribute element = Nest(NFTA_LIST_ELEM, {{NFTA_SET_ELEM_FLAGS, "0000"}});
        return Nft(NFT_MSG_NEWSETELEM,
                   {Nest(NFTA_SET_ELEM_LIST_ELEMENTS, AttributeList(elements, element))});
    };
    EXPECT_EQ(vxi::elements_in(answer(0).header()), 0u);
    EXPECT_EQ(vxi::elements_in(answer(3).header()), 3u);
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
    for (const char* other :
         {"vxi_scan_", "vxi_scan_77x", "vxi_scan_77_", "vxi_scan_77_2x", "vxi_scan_-7",
          "vxi_scan_0", "vxi_scan", "xvxi_scan_77", "vxi_scan_99999999999", "vxi_scan_ 77", ""}) {
        EXPECT_EQ(vxi::scan_table_process(other), 0) << other;
    }
    EXPECT_EQ(vxi::scan_table_process("vxi_scan_77"), 77);
    EXPECT_EQ(vxi::scan_table_process("vxi_scan_77_2"), 77);
}

}  // namespace
