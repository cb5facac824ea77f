// The two stores against the plainest reference there is: two ordered maps, every text
// converted at every call.

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <lua.hpp>

#include "ConnMetrics/ConnMetrics.h"
#include "ConnMetrics/Store.h"
#include "RecordingDriver.h"

namespace {

constexpr std::size_t kMostKeys = 10000;

// As the C library reads multibyte text; empty where it cannot.
std::wstring Decode(const std::string& bytes)
{
    std::wstring text(bytes.size() + 1, L'\0');
    const std::size_t length = std::mbstowcs(text.data(), bytes.c_str(), text.size());
    text.resize(length == static_cast<std::size_t>(-1) ? 0 : length);
    return text;
}

// One row as it is reported: the value of its only line, and the count.
struct Row {
    std::string value;
    double count;
};

class Reference {
public:
    void Add(const std::string& key, const std::string& value, double count)
    {
        const std::uint32_t times = Truncate(count);
        if (times != 0) dropped_fed += Merge({{Decode(key), {value, times}}}, &m_working);
    }

    void Update(std::int64_t now)
    {
        if (now - m_last <= 60) return;
        dropped_published += Merge(m_working, &m_finished);
        m_working.clear();
        m_last = now;
    }

    std::vector<Row> Take()
    {
        std::vector<Row> rows;
        for (const auto& entry : m_finished)
            rows.push_back({entry.second.value, static_cast<double>(entry.second.count)});
        m_finished.clear();
        return rows;
    }

    int dropped_fed = 0;
    int dropped_published = 0;

private:
    struct Entry {
        std::string value;
        std::uint32_t count;
    };
    using Map = std::map<std::wstring, Entry>;

    static std::uint32_t Truncate(double count)
    {
        if (!(std::fabs(count) < 9.2e18)) return 0;
        return static_cast<std::uint32_t>(static_cast<std::int64_t>(count));
    }

    // How many keys found no room.
    static int Merge(const Map& from, Map* into)
    {
        int dropped = 0;
        for (const auto& [key, entry] : from) {
            const auto found = into->find(key);
            if (found != into->end())
                found->second.count += entry.count;
            else if (into->size() < kMostKeys)
                into->emplace(key, entry);
            else
                ++dropped;
        }
        return dropped;
    }

    Map m_working;
    Map m_finished;
    std::int64_t m_last = 0;
};

class Store : public ::testing::TestWithParam<const char*> {
protected:
    static constexpr std::int64_t kStartS = 1000000000;

    void SetUp() override
    {
        ASSERT_NE(std::setlocale(LC_ALL, GetParam()), nullptr) << GetParam();
        // Publishes and forgets what the module was loaded with.
        SetTime(kStartS - 1000000);
        g_last_fb_time = 0;
        Update();
        Take();
        SetTime(kStartS);
        Update();
    }
    void TearDown() override
    {
        lua_close(m_l);
        driver::SetClock(0);
        std::setlocale(LC_ALL, "C");
    }

    void SetTime(std::int64_t now)
    {
        m_now = now;
        driver::SetClock(static_cast<std::uint64_t>(now) * 1000000 + 999999);
    }

    void Add(const std::string& key, const std::string& value, double count)
    {
        const std::string text = value.empty() ? value : "v\t" + value;
        lua_pushcfunction(m_l, AddToConnMetrics);
        lua_pushlstring(m_l, key.data(), key.size());
        lua_pushlstring(m_l, text.data(), text.size());
        lua_pushnumber(m_l, count);
        Call(3, 0);
        m_reference.Add(key, value, count);
    }

    void Update()
    {
        lua_pushcfunction(m_l, UpdateConnMetrics);
        Call(0, 0);
        m_reference.Update(m_now);
    }

    std::vector<Row> Take()
    {
        lua_pushcfunction(m_l, GetConnMetrics);
        Call(0, 1);
        std::vector<Row> rows(lua_rawlen(m_l, -1));
        for (std::size_t i = 0; i < rows.size(); ++i) {
            lua_rawgeti(m_l, -1, static_cast<int>(i + 1));
            lua_getfield(m_l, -1, "v");
            lua_getfield(m_l, -2, "count");
            rows[i] = {lua_isnil(m_l, -2) ? "" : lua_tostring(m_l, -2), lua_tonumber(m_l, -1)};
            lua_pop(m_l, 3);
        }
        lua_settop(m_l, 0);
        return rows;
    }

    // Compares a report with the reference's; how many rows it has.
    std::size_t ExpectReport()
    {
        const std::vector<Row> rows = Take();
        const std::vector<Row> expected = m_reference.Take();
        EXPECT_EQ(rows.size(), expected.size());
        for (std::size_t i = 0; i < std::min(rows.size(), expected.size()) && !HasFailure(); ++i)
            EXPECT_TRUE(rows[i].value == expected[i].value && rows[i].count == expected[i].count)
                << "row " << i << ": " << rows[i].value << " x " << rows[i].count << " instead of "
                << expected[i].value << " x " << expected[i].count;
        return rows.size();
    }

    Reference m_reference;
    std::int64_t m_now = 0;

private:
    void Call(int arguments, int results)
    {
        if (lua_pcall(m_l, arguments, results, 0) != LUA_OK) FAIL() << lua_tostring(m_l, -1);
    }

    lua_State* m_l = luaL_newstate();
};

using Random = std::mt19937;

std::uint32_t Below(Random& random, std::uint32_t limit)
{
    return static_cast<std::uint32_t>(random() % limit);
}

// Keys of every kind. The same number gives the same key; several kinds meet in one entry.
std::string Key(std::uint32_t i)
{
    const std::string number = std::to_string(i);
    const std::string keys[] = {
        "\xc3\xbc" + number,                 // UTF-8
        number + "\xff",                     // no text in any encoding
        std::to_string(i + 1) + '\0' + "x",  // ends at the NUL
        number + '\0' + "\xff",              // what follows the NUL does not matter
        i % 64 == 4 ? "" : "10.0.0.1:" + number,
        i % 64 == 5 ? std::string("\0x", 2) : "\t" + number + "\n",
        "\xf0\x9f\x98\x80" + number,  // beyond 16 bits
        "\xed\xa0\x80" + number,      // half a surrogate pair
        "\x7f" + number,
        std::string(i % 300, 'a') + number,
        std::string(i % 3 == 0 ? 10000 : 9, i % 2 == 0 ? 'k' : 'l') + (i % 5 == 0 ? "\xff" : ""),
        number,
    };
    return keys[i % (sizeof keys / sizeof *keys)];
}

double Count(Random& random)
{
    constexpr double kCounts[] = {0,    2.9,     -1,   -0.9,        4294967295.0, 4294967296.0,
                                  -2.5, 1e300,   5e18, -5e18 - 4e9, 1e19,         0.5,
                                  NAN,  INFINITY};
    return Below(random, 8) == 0 ? kCounts[Below(random, sizeof kCounts / sizeof *kCounts)]
                                 : 1 + Below(random, 100);
}

std::int64_t Step(Random& random)
{
    constexpr std::int64_t kStepsS[] = {0, 1, 59, 60, 61, 62, 100, -1, -61, -100};
    return kStepsS[Below(random, sizeof kStepsS / sizeof *kStepsS)];
}

TEST_P(Store, RandomSteps)
{
    Random random(20240611);
    std::uint32_t kinds = 100;  // how many different keys this stretch knows
    for (int i = 0; i < 100000 && !HasFailure(); ++i) {
        if (Below(random, 5000) == 0) {
            constexpr std::uint32_t kStretches[] = {3, 100, 5000, 30000};
            kinds = kStretches[Below(random, 4)];
        }
        const std::string value = Below(random, 50) == 0 ? "" : std::to_string(i);
        Add(Key(Below(random, kinds)), value, Count(random));
        // More keys than a store keeps, and the same ones in another order.
        if (i % 10000 == 9999)
            for (std::uint32_t key = 0; key < 10300; ++key)
                Add((i % 20000 < 10000 ? "k" : "\xc3\xa4") + std::to_string(key * 7 % 10300), "x",
                    2);
        if (Below(random, 1000) == 0) {
            SetTime(m_now + Step(random));
            Update();
        }
        if (Below(random, 3000) == 0) ExpectReport();
    }
    SetTime(m_now + 1000);
    Update();
    ExpectReport();
    EXPECT_EQ(ExpectReport(), 0u) << "a report empties the store";
    EXPECT_GT(m_reference.dropped_fed, 0) << "the working store was never full";
    EXPECT_GT(m_reference.dropped_published, 0) << "the finished store was never full";
}

INSTANTIATE_TEST_SUITE_P(, Store, ::testing::Values("C", "C.UTF-8"),
                         [](const auto& locale) { return locale.param[1] == '\0' ? "C" : "Utf8"; });

}  // namespace
