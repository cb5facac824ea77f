// The SLB3 subset: objects, namespaces, and objects of the original library.
#include <cstring>
#include <stdexcept>

#include <gtest/gtest.h>

#include "LuaHost.h"
#include "SLB3/slb.h"

class Rock;  // never defined: only pointers are used
class Pond;
SLB3_DECLARATION(Rock, "Zoo.Rock", policy::NoDelete)
SLB3_DECLARATION(Pond, "Zoo.Pond", policy::NoDelete)

namespace {

Rock* const s_rock = reinterpret_cast<Rock*>(64);

int IsRock(lua_State* L)
{
    const auto found = SLB3::internal::GetOrConvertPtr<Rock>(L, 1);
    lua_pushboolean(L, found.first != nullptr);
    lua_pushboolean(L, found.second);
    return lua_gettop(L) - 1;
}

// block(SIZE, METATABLE): a userdata that is not an object.
int PushBlock(lua_State* L)
{
    const auto size = static_cast<std::size_t>(lua_tointeger(L, 1));
    std::memset(lua_newuserdata(L, size), 0xA5, size);
    lua_pushvalue(L, 2);
    lua_setmetatable(L, -2);
    return 1;
}

TEST(Slb3, OnlyObjectsOfTheClassAreTaken)
{
    LuaHost host;
    SLB3::Namespace(host.l, "Zoo")
        .set("rock", s_rock)
        .set("pond", reinterpret_cast<Pond*>(s_rock))
        .set("constant", static_cast<const Rock*>(s_rock))
        .set("none", static_cast<const Rock*>(nullptr))
        .set("isRock", IsRock)
        .set(
            "answer", +[] { return 42; })
        .set(
            "throw", +[]() -> int { throw std::runtime_error("100% broken"); })
        .set("block", PushBlock);
    EXPECT_EQ(host.Run(R"(
        local block, rocks, registry = Zoo.block, getmetatable(Zoo.rock), debug.getregistry()
        local numbered = { __class = 4711 }
        registry[4711] = numbered
        local scripted = setmetatable({}, { __index = function() os.exit(1) end })
        local cases = {  -- a value, whether it is a Rock, whether it is const
            { Zoo.rock, true, false }, { Zoo.constant, true, true }, { Zoo.none, false, true },
            { Zoo.pond, false, false }, { 7, false, true }, { setmetatable({}, rocks), false, true },
            { io.stdout, false, true }, { block(24, nil), false, true },
            { block(24, { __class = "Zoo.Rock" }), false, true },
            { block(24, numbered), false, true }, { block(24, scripted), false, true },
            { block(23, rocks), false, true },
        }
        for i, case in ipairs(cases) do
            local is_rock, is_const = Zoo.isRock(case[1])
            assert(is_rock == case[2] and is_const == case[3], i)
        end
        assert(Zoo.rock.answer() == 42 and Zoo.rock.isRock == nil)
        assert(Zoo.answer(1, {}) == 42 and select("#", Zoo.answer()) == 1)
        assert(select(2, pcall(Zoo.throw)) == "100% broken")
        rocks.__class = "Zoo.Pond"
        assert(not Zoo.isRock(Zoo.rock)))"),
              "");
}

TEST(Slb3, NamespacesAreFoundOrMadeWhateverScriptsDid)
{
    for (const char* before : {"SLB = {x = 1} old = SLB", "SLB = 'string'", "SLB = {filter = 1}",
                               // Scripts that forbid undeclared globals.
                               "setmetatable(_G, {__index = error, __newindex = error})"})
        EXPECT_EQ(LuaHost().Run(std::string(before) + R"( require "fc"
            assert(rawget(_G, "SLB").filter.GetSysHealthEnabled)
            local old = rawget(_G, "old")
            assert(not old or old == SLB and old.x == 1))"),
                  "");
}

// In both load orders.
TEST(Slb3, ObjectsOfTheOriginalAreExchanged)
{
    const std::string theirs = "original = require 'slb3_original' theirs = original.make() ";
    const std::string ours = "require 'fc' vxa = require 'vxa' ours = vxa.Dom() ";
    EXPECT_EQ(LuaHost().Run("debug.getregistry()['SLB.Dom'] = {} require 'vxa'"),
              "the name 'SLB.Dom' is taken by a metatable that is not an SLB3 class");
    for (const bool first : {true, false}) {
        LuaHost host;
        ASSERT_EQ(host.Run("package.cpath = package.cpath .. ';" SLB3_MODULES "'"), "");
        ASSERT_EQ(host.Run(first ? theirs + ours : ours + theirs), "");
        EXPECT_EQ(host.Run("local check = SLB.filter.CheckSystemHealthMetrics "
                           "assert(check(theirs, 'Deactivated', '').action ~= 6) "
                           "assert(check(ours, 'Deactivated', '').action ~= 6) "
                           "assert(original.take(ours)) "
                           "if SLB.Dom then assert(SLB.Dom.set(theirs, 'key', 1)) end "
                           "assert(not pcall(original.take, vxa.ZipOutputStream('/dev/null')))"),
                  "");
    }
}

}  // namespace

SLB3_IMPLEMENTATION(Rock, rock)
{
    rock.set(
        "answer", +[] { return 42; });
}

SLB3_IMPLEMENTATION(Pond, pond)
{
    static_cast<void>(pond);
}
