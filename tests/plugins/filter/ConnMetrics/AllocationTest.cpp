// C++ runs out of memory, in the module and in the libraries below it: every allocation of
// a call fails in its turn, alone and with all that follow. The call raises an error that
// tells so or does its whole work; nothing is half done, lost, counted twice or leaked.

#include <malloc.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <lua.hpp>

#include "ConnMetrics/ConnMetrics.h"
#include "RecordingDriver.h"

namespace {

constexpr long kUnlimited = -1;
constexpr long kMaxAllocations = 5000;

long s_left = kUnlimited;
bool s_for_good = false;
bool s_failed = false;

bool IsRefused()
{
    if (s_left == kUnlimited) return false;
    if (s_left > 0) {
        --s_left;
        return false;
    }
    s_left = s_for_good ? 0 : kUnlimited;
    return s_failed = true;
}

}  // namespace

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

// A sanitizer's own malloc stays in place: operator new alone fails.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    void* const block = IsRefused() ? nullptr : std::malloc(size != 0 ? size : 1);
    return block != nullptr ? block : throw std::bad_alloc();
}

[[gnu::noinline]] void* operator new[](std::size_t size)
{
    return operator new(size);
}

[[gnu::noinline]] void operator delete(void* block) noexcept
{
    std::free(block);
}

[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept
{
    std::free(block);
}

[[gnu::noinline]] void operator delete[](void* block) noexcept
{
    std::free(block);
}

[[gnu::noinline]] void operator delete[](void* block, std::size_t) noexcept
{
    std::free(block);
}

#else

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

__attribute__((visibility("default"))) void* malloc(std::size_t size)
{
    return IsRefused() ? nullptr : __libc_malloc(size);
}

__attribute__((visibility("default"))) void* aligned_alloc(std::size_t alignment, std::size_t size)
{
    return IsRefused() ? nullptr : __libc_memalign(alignment, size);
}

// Lua relies on it that a block can always be made smaller.
__attribute__((visibility("default"))) void* realloc(void* block, std::size_t size)
{
    const bool grows = block == nullptr || malloc_usable_size(block) < size;
    return grows && IsRefused() ? nullptr : __libc_realloc(block, size);
}
}

#endif

namespace {

struct Outcome {
    bool succeeded;
    std::string error;
};

// Calls once with the n-th allocation failing; without n, with none.
template <typename Call>
Outcome CallWith(long n, bool for_good, Call call)
{
    // Room that the error needs is there before.
    std::string error;
    error.reserve(256);
    bool succeeded = false;
    s_failed = false;
    s_for_good = for_good;
    s_left = n;
    try {
        succeeded = call(&error);
    } catch (const std::exception& e) {
        error.assign(e.what());
    }
    s_left = kUnlimited;
    return {succeeded, error};
}

// Sweeps a call; before each, prepare(), after each, check(whether it succeeded).
template <typename Call>
void Sweep(bool for_good, const std::function<void()>& prepare, Call call,
           const std::function<void(bool)>& check)
{
    for (long n = 0;; ++n) {
        SCOPED_TRACE(n);
        ASSERT_LT(n, kMaxAllocations);
        prepare();
        const Outcome outcome = CallWith(n, for_good, call);
        const bool failed = s_failed;
        if (!outcome.succeeded) {
            EXPECT_TRUE(failed) << outcome.error;
            EXPECT_TRUE(outcome.error.find("bad_alloc") != std::string::npos ||
                        outcome.error.find("not enough memory") != std::string::npos)
                << outcome.error;
        }
        check(outcome.succeeded);
        if (!failed || testing::Test::HasFailure()) return;
    }
}

class Allocation : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override
    {
        ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
        // The C library loads a locale's conversion at its first use, and does without it for
        // good when that fails.
        ASSERT_EQ(std::mbstowcs(nullptr, "\xc3\xbc", 0), 1u);
        lua_register(L, "add", AddToConnMetrics);
        lua_register(L, "update", UpdateConnMetrics);
        lua_register(L, "get", GetConnMetrics);
        g_last_fb_time = 0;
        Publish();
        Report();
    }
    void TearDown() override
    {
        lua_close(L);
        driver::SetClock(0);
        std::setlocale(LC_ALL, "C");
    }

    void Publish()
    {
        m_now_s += 61;
        driver::SetClock(m_now_s * 1000000);
        lua_getglobal(L, "update");
        ASSERT_EQ(lua_pcall(L, 0, 0, 0), LUA_OK);
    }

    // Rows as "TEXT x COUNT", and the number of rows first.
    std::vector<std::string> Report()
    {
        std::vector<std::string> lines;
        lua_getglobal(L, "get");
        EXPECT_EQ(lua_pcall(L, 0, 1, 0), LUA_OK);
        for (std::size_t i = 1; i <= lua_rawlen(L, -1); ++i) {
            lua_rawgeti(L, -1, static_cast<int>(i));
            lua_getfield(L, -1, "v");
            lua_getfield(L, -2, "count");
            lines.push_back((lua_isnil(L, -2) ? "" : lua_tostring(L, -2)) + std::string(" x ") +
                            std::to_string(static_cast<int>(lua_tonumber(L, -1))));
            lua_pop(L, 3);
        }
        lua_settop(L, 0);
        return lines;
    }

    // add(key, "v\tTEXT", 7), ready to be called.
    void PushAdd(const std::string& key, const std::string& text)
    {
        lua_settop(L, 0);
        lua_getglobal(L, "add");
        lua_pushlstring(L, key.data(), key.size());
        lua_pushstring(L, ("v\t" + text).c_str());
        lua_pushnumber(L, 7);
    }

    bool CallPushed(int arguments, int results, std::string* error)
    {
        if (lua_pcall(L, arguments, results, 0) == LUA_OK) return true;
        error->assign(lua_tostring(L, -1));
        return false;
    }

    lua_State* L = luaL_newstate();

private:
    std::uint64_t m_now_s = 1000000000;
};

using Lines = std::vector<std::string>;

TEST_P(Allocation, FeedingCountsWholeOrNotAtAll)
{
    const std::string long_text(5000, 'x');
    const struct {
        std::string key;
        std::string text;
        bool known;
    } cases[] = {
        {"plain", "first", false},
        {"plain", "first", true},
        {"\xc3\xbc key", "\xc3\xbc", false},
        {"\xc3\xbc key", "\xc3\xbc", true},
        {"", "nothing", false},
        {std::string(4000, 'k'), long_text, false},
        {std::string("plain\0x", 7), "cut", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key.substr(0, 20));
        std::string error;
        Sweep(
            GetParam(),
            [&] {
                Publish();
                Report();
                PushAdd(c.key, c.text);
                if (!c.known) return;
                ASSERT_TRUE(CallPushed(3, 0, &error));
                PushAdd(c.key, "later");
            },
            [&](std::string* text) { return CallPushed(3, 0, text); },
            [&](bool counted) {
                // Feeding goes on as if nothing had been.
                PushAdd(c.key, "second");
                EXPECT_TRUE(CallPushed(3, 0, &error)) << error;
                Publish();
                const int times = 1 + (counted ? 1 : 0) + (c.known ? 1 : 0);
                const std::string first = counted || c.known ? c.text : "second";
                EXPECT_EQ(Report(), Lines{first + " x " + std::to_string(7 * times)});
            });
        if (HasFailure()) return;
    }
}

// 300 rows of every kind, published or not.
void FeedMany(const std::function<void(const std::string&, const std::string&)>& feed)
{
    for (int i = 0; i < 3; ++i) {
        feed("plain " + std::to_string(i), "t" + std::to_string(i));
        feed("\xc3\xbc " + std::to_string(i), "\xc3\xbc" + std::string(600, 'y'));
    }
}

TEST_P(Allocation, ReportsComeWholeOrLater)
{
    std::string error;
    const auto feed = [&](const std::string& key, const std::string& text) {
        PushAdd(key, text);
        ASSERT_TRUE(CallPushed(3, 0, &error)) << error;
    };
    FeedMany(feed);
    Publish();
    const Lines expected = Report();
    ASSERT_EQ(expected.size(), 6u);
    Sweep(
        GetParam(),
        [&] {
            FeedMany(feed);
            Publish();
            lua_gc(L, LUA_GCCOLLECT, 0);
            lua_getglobal(L, "get");
        },
        [&](std::string* text) { return CallPushed(0, 1, text); },
        [&](bool delivered) {
            if (delivered) {
                EXPECT_EQ(lua_rawlen(L, -1), expected.size());
            }
            lua_settop(L, 0);
            EXPECT_EQ(Report(), delivered ? Lines{} : expected);
        });
}

TEST_P(Allocation, PublicationNeedsNone)
{
    std::string error;
    const auto feed = [&](const std::string& key, const std::string& text) {
        PushAdd(key, text);
        ASSERT_TRUE(CallPushed(3, 0, &error)) << error;
    };
    // Into an empty store, and into one that knows the keys and others.
    FeedMany(feed);
    feed("only at first", "1");
    const Outcome first = CallWith(0, GetParam(), [&](std::string*) { return Publish(), true; });
    EXPECT_TRUE(first.succeeded);
    FeedMany(feed);
    feed("only then", "2");
    const Outcome second = CallWith(0, GetParam(), [&](std::string*) { return Publish(), true; });
    EXPECT_TRUE(second.succeeded);
    EXPECT_FALSE(s_failed);
    EXPECT_EQ(Report().size(), 8u);
}

INSTANTIATE_TEST_SUITE_P(, Allocation, ::testing::Bool(), [](const auto& mode) {
    return mode.param ? "FromTheNthOn" : "TheNthAlone";
});

}  // namespace
