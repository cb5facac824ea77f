#include "engines/linux/RuleProfile.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include "engines/linux/JsonText.h"

namespace {

using namespace std::string_literals;
using vxi::RuleCounts;

TEST(RuleProfile, SubtractsWhatWasCountedBefore)
{
    const RuleCounts before = {{{1, "t", 1}, {"c", 10, 100}},
                               {{1, "t", 2}, {"c", 10, 100}},
                               {{1, "t", 3}, {"c", 10, 100}},
                               {{2, "t", 4}, {"c", 1, 1}}};
    const RuleCounts now = {{{1, "t", 1}, {"c", 15, 120}},
                            {{1, "t", 2}, {"c", 3, 30}},   // set back
                            {{1, "t", 4}, {"c", 7, 70}}};  // new, in another family
    const RuleCounts counted = vxi::counted_since(before, now);
    ASSERT_EQ(counted.size(), 3u);
    EXPECT_EQ(counted.at({1, "t", 1}).packets, 5u);
    EXPECT_EQ(counted.at({1, "t", 1}).bytes, 20u);
    EXPECT_EQ(counted.at({1, "t", 2}).packets, 3u);
    EXPECT_EQ(counted.at({1, "t", 4}).bytes, 70u);
}

TEST(RuleProfile, IsAppendedToTheListing)
{
    const struct {
        std::string listing;
        const char* result;  // null: refused
    } rows[] = {{"{\"nftables\": [{\"a\": 1}]}", "{\"nftables\": [{\"a\": 1}, X]}"},
                {"{\"nftables\": []}", "{\"nftables\": [X]}"},
                {"", nullptr},
                {"]}", nullptr},
                {"{\"nftables\": [{}]}\n", nullptr}};
    for (const auto& row : rows) {
        std::string listing = row.listing;
        EXPECT_EQ(vxi::append_object(listing, "X"), row.result != nullptr) << row.listing;
        EXPECT_EQ(listing, row.result ? row.result : row.listing);
    }
}

TEST(RuleProfile, IsValidWhateverTheNames)
{
    const RuleCounts counts = {{{1, "a\"\\\n\x01\xff", ~uint64_t{0}}, {"\xc3\xbc", 1, 2}},
                               {{2, "b", 1}, {"", 3, 4}}};
    cJSON* json = cJSON_Parse(vxi::profile_json(counts, 1500).c_str());
    ASSERT_NE(json, nullptr);
    const cJSON* profile = cJSON_GetObjectItem(json, "profile");
    EXPECT_EQ(cJSON_GetObjectItem(profile, "milliseconds")->valueint, 1500);
    const cJSON* rules = cJSON_GetObjectItem(profile, "rules");
    ASSERT_EQ(cJSON_GetArraySize(rules), 2);
    const cJSON* first = cJSON_GetArrayItem(rules, 0);
    EXPECT_STREQ(cJSON_GetObjectItem(first, "table")->valuestring, "a\"\\\n\x01\xef\xbf\xbd");
    EXPECT_STREQ(cJSON_GetObjectItem(first, "family")->valuestring, "inet");
    cJSON_Delete(json);
}

TEST(JsonText, KeepsUtf8AndReplacesTheRest)
{
    const struct {
        std::string text;
        const char* json;
    } rows[] = {
        {"", "\"\""},
        {"a/\x7f", "\"a/\x7f\""},
        {"\"\\\t\x1f"s, "\"\\\"\\\\\\u0009\\u001f\""},
        {"\0"s, "\"\\u0000\""},
        {"\xc2\x80\xe0\xa0\x80\xf4\x8f\xbf\xbf", "\"\xc2\x80\xe0\xa0\x80\xf4\x8f\xbf\xbf\""},
        {"\x80", "\"\\ufffd\""},
        {"\xc1\xbf", "\"\\ufffd\\ufffd\""},  // overlong
        {"\xe0\x9f\xbf", "\"\\ufffd\\ufffd\\ufffd\""},
        {"\xed\xa0\x80", "\"\\ufffd\\ufffd\\ufffd\""},  // a surrogate
        {"\xf4\x90\x80\x80", "\"\\ufffd\\ufffd\\ufffd\\ufffd\""},
        {"\xe2\x82", "\"\\ufffd\\ufffd\""},  // cut
        {"\xff", "\"\\ufffd\""}};
    for (const auto& row : rows) {
        std::string json;
        vxi::append_json_text(json, row.text);
        EXPECT_EQ(json, row.json);
    }
}

}  // namespace
