#include "engines/linux/Blacklist.h"

#include <gtest/gtest.h>

#include "Samples.h"

namespace {

using vxi::BlacklistElement;
using vxi::BlacklistSet;

BlacklistSet AddressSet(bool intervals)
{
    return {NFPROTO_INET, "t", "blacklist", 4, intervals, 0, nullptr};
}

struct Row {
    uint8_t address;  // the last of four bytes, all of which are the same
    bool end;
};

// Entries as "FIRST-LAST" by their last bytes.
std::string Show(bool intervals, const std::vector<Row>& rows)
{
    std::vector<BlacklistElement> elements;
    for (const Row& row : rows) {
        BlacklistElement element;
        std::fill_n(element.key.begin(), 4, row.address);
        element.ends_interval = row.end;
        elements.push_back(element);
    }
    std::string text;
    for (const auto& entry : vxi::entries_of(AddressSet(intervals), 0, elements)) {
        text += (text.empty() ? "" : " ") + std::to_string(entry.address[3]) + "-" +
                std::to_string(entry.last[3]);
    }
    return text;
}

TEST(BlacklistElements, Intervals)
{
    EXPECT_EQ(Show(false, {{9, false}, {1, false}}), "1-1 9-9");
    EXPECT_EQ(Show(true, {}), "");
    EXPECT_EQ(Show(true, {{0, true}}), "");  // the marker that begins every such set
    EXPECT_EQ(Show(true, {{9, true}, {5, false}, {3, true}, {1, false}}), "1-2 5-8");
    EXPECT_EQ(Show(true, {{5, false}, {5, true}, {1, false}}), "1-4 5-255");  // they touch
    EXPECT_EQ(Show(true, {{7, false}, {3, false}}), "3-6 7-255");             // an end was lost
    EXPECT_EQ(Show(true, {{7, false}, {7, false}, {9, true}}), "7-8 7-8");    // delivered twice
    EXPECT_EQ(Show(true, {{0, false}, {1, true}}), "0-0");  // borrows through all bytes
}

TEST(BlacklistElements, AreTakenWithTheirTimes)
{
    std::vector<BlacklistElement> elements;
    EXPECT_EQ(vxi::take_elements(SetElement().header(), AddressSet(false), elements), 0u);
    const auto entries = vxi::entries_of(AddressSet(false), 7, elements);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].set_index, 7);
    EXPECT_EQ(entries[0].address[3], 4);
    EXPECT_EQ(entries[0].flags, VXA_BLACKLIST_TIMEOUT);
    EXPECT_EQ(entries[0].timeout_s, 61u);
    EXPECT_EQ(entries[0].expires_s, 0xffffffffu);
}

TEST(BlacklistElements, OfAnotherSizeAreLeftOutAndCounted)
{
    for (const size_t size : {0, 3, 5, 16}) {
        std::vector<BlacklistElement> elements;
        EXPECT_EQ(vxi::take_elements(SetElement(size).header(), AddressSet(false), elements), 1u);
        EXPECT_TRUE(elements.empty()) << size;
    }
}

TEST(BlacklistSets, AreKnownByNameAndKey)
{
    const struct {
        const char* name;
        uint32_t type;
        uint32_t flags;
        bool taken;
        const char* skipped;
    } rows[] = {
        {"blacklist", 7, 0, true, nullptr},
        {"blacklist_v6", 8, NFT_SET_INTERVAL, true, nullptr},
        {"blacklis", 7, 0, false, nullptr},
        {"Blacklist", 7, 0, false, nullptr},
        {"my_blacklist", 7, 0, false, nullptr},
        {"blacklist", 13, 0, true, "its elements are not of type ipv4_addr or ipv6_addr"},
        {"blacklist", 7, NFT_SET_MAP, true, "a map"},
    };
    for (const auto& row : rows) {
        const auto set = vxi::blacklist_set(Set(row.name, row.type, row.flags).header());
        ASSERT_EQ(set.has_value(), row.taken) << row.name << row.type;
        if (set) {
            EXPECT_STREQ(set->skipped, row.skipped);
            EXPECT_EQ(set->nft_family, NFPROTO_BRIDGE);
            EXPECT_TRUE(set->skipped || set->family == (row.type == 7 ? 4 : 6));
            EXPECT_EQ(set->intervals, row.flags == NFT_SET_INTERVAL);
        }
    }
}

}  // namespace
