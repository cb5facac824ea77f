#include <cstring>
#include <stdexcept>

#include <gtest/gtest.h>

#include "LuaHost.h"
#include "SLB3/slb.h"

class Rock;  // never defined: only pointers to it exist
class Pond;
SLB3_DECLARATION(Rock, "Zoo.Rock", policy::NoDelete)
SLB3_DECLARATION(Pond, "Zoo.Pond", policy::NoDelete)

namespace {

using Found = std::pair<const void*, bool>;

int GetAnswer()
{
    return 42;
}
int Throw()
{
    throw std::runtime_error("100% broken");
}

int IsRock(lua_State* L)
{
    lua_pushboolean(L, SLB3::internal::GetOrConvertPtr<Rock>(L, 1).first != nullptr);
    return 1;
}

// block(SIZE, METATABLE): userdata that no pointer can be read from.
int PushBlock(lua_State* L)
{
    const auto size = static_cast<std::size_t>(lua_tointeger(L, 1));
    std::memset(lua_newuserdata(L, size), 0xA5, size);
    lua_pushvalue(L, 2);
    lua_setmetatable(L, -2);
    return 1;
}

Rock* const s_rock = reinterpret_cast<Rock*>(64);

// The entries of the registry that hold namespaces.
int CountNamespaces(lua_State* L)
{
    int count = 0;
    for (lua_pushnil(L); lua_next(L, LUA_REGISTRYINDEX); lua_pop(L, 1))
        count += lua_type(L, -2) == LUA_TLIGHTUSERDATA;
    return count;
}

// What the value on top is taken for.
template <typename T>
Found Convert(lua_State* L)
{
    const int top = lua_gettop(L);
    const std::pair<T*, bool> found = SLB3::internal::GetOrConvertPtr<T>(L, -1);
    EXPECT_EQ(lua_gettop(L), top);
    return found;
}

template <typename T>
void ExpectConversion(lua_State* L, T* pushed, Found as_rock, Found as_pond)
{
    SLB3::Value<T*>::Push(L, pushed);
    EXPECT_EQ(Convert<Rock>(L), as_rock);
    EXPECT_EQ(Convert<Pond>(L), as_pond);
}

TEST(Slb3, ObjectsAreTakenAsTheirClass)
{
    const LuaHost host;
    ExpectConversion<Rock>(host.L, s_rock, {s_rock, false}, {nullptr, false});
    ExpectConversion<const Rock>(host.L, s_rock, {s_rock, true}, {nullptr, false});
    ExpectConversion<const Rock>(host.L, nullptr, {nullptr, true}, {nullptr, false});
    ExpectConversion<Rock>(host.L, nullptr, {nullptr, true}, {nullptr, true});
    EXPECT_NE(luaL_testudata(host.L, 1, "Zoo.Rock"), nullptr);
}

TEST(Slb3, NothingElseIsLookedInto)
{
    LuaHost host;
    SLB3::Namespace(host.L, "Zoo")
        .set("rock", s_rock)
        .set("isRock", IsRock)
        .set("block", PushBlock);
    SLB3::Register<Pond>(host.L);
    ASSERT_EQ(host.Run("block, registry = Zoo.block, debug.getregistry() "
                       "rocks = getmetatable(Zoo.rock) "
                       "assert(Zoo.isRock(Zoo.rock) and Zoo.rock.isRock == nil) "
                       "function marked(mark) rocks.__class = mark return Zoo.rock end "
                       "numbered = {__class = 4711} registry[4711] = numbered "
                       "scripted = setmetatable({}, {__index = function() os.exit(1) end})"),
              "");
    for (const char* value : {
             "nil",
             "'Zoo.Rock'",
             "setmetatable({}, rocks)",
             "io.stdout",
             "block(24, nil)",
             "block(24, {})",
             "block(24, {__class = 'Zoo.Rock'})",
             "block(24, {__class = 'none'})",
             "block(24, numbered)",  // a number may be a metatable's name in the registry, too
             "block(24, scripted)",
             "block(0, rocks)",  // too small for an object
             "block(23, rocks)",
             "marked('Zoo.Pond')",  // a class whose mark a script has changed
             "marked(nil)",
         })
        EXPECT_EQ(host.Run(std::string("assert(not Zoo.isRock(") + value + "))"), "") << value;
}

TEST(Slb3, NamespacesAreFoundOrMade)
{
    const std::string longest(100000, 'x');
    const struct {
        const char* before;
        std::string name;
        std::string check;  // must be true afterwards
    } walks[] = {
        {"", "", "answer() == 42"},
        {"_G._G = nil", "_G", "answer() == 42 and rawget(_ENV, '_G') == nil"},
        {"", "A.", "A.answer() == 42 and next(A) == 'answer'"},
        {"", ".A..B", "A.B.answer() == 42"},
        {"A = {x = 1}; old = A", "A.B", "old == A and A.x == 1 and A.B.answer() == 42"},
        {"A = {B = 'text'}", "A.B.C", "A.B.C.answer() == 42"},
        {"A = io.stdout", "A", "type(A) == 'table' and A.answer() == 42"},
        {"", longest + ".B", "_ENV[('x'):rep(100000)].B.answer() == 42"},
        // Scripts that forbid undeclared globals, or fake them.
        {"setmetatable(_G, {__index = error, __newindex = error})", "A.B", "A.B.answer() == 42"},
        {"setmetatable(_G, {__index = function() return os end})", "A", "A ~= os"},
    };
    for (const auto& walk : walks) {
        LuaHost host;
        ASSERT_EQ(host.Run(walk.before), "");
        {
            SLB3::Namespace space(host.L, walk.name.c_str());
            space.set("answer", GetAnswer);
            EXPECT_EQ(CountNamespaces(host.L), 1);
            EXPECT_EQ(lua_gettop(host.L), 0);
        }
        EXPECT_EQ(CountNamespaces(host.L), 0);
        EXPECT_EQ(host.Run("assert(" + walk.check + ")"), "") << walk.name.substr(0, 10);
    }
}

// An error of the table's own __newindex goes on as it is; the namespace is then spent.
TEST(Slb3, AnErrorTakesTheNamespaceOutOfTheRegistry)
{
    LuaHost host;
    host.Run("T = setmetatable({}, {__newindex = function(_, name) error(name, 0) end})");
    static SLB3::Namespace* space;
    SLB3::Namespace made(host.L, "T");
    space = &made;
    for (const char* expected :
         {"a.b", "a namespace is used after an error or with another Lua state"}) {
        lua_pushcfunction(host.L, [](lua_State*) {
            space->set("a.b", 1);
            return 0;
        });
        ASSERT_EQ(lua_pcall(host.L, 0, 0, 0), LUA_ERRRUN);
        EXPECT_STREQ(lua_tostring(host.L, -1), expected);
        EXPECT_EQ(CountNamespaces(host.L), 0);
    }
}

TEST(Slb3, FunctionsHaveTheirTypeWithThem)
{
    LuaHost host;
    SLB3::Namespace(host.L, "F").set("answer", GetAnswer).set("throw", Throw).set("c", PushBlock);
    EXPECT_EQ(host.Run("assert(F.answer(1, {}) == 42 and select('#', F.answer()) == 1)"), "");
    EXPECT_EQ(host.Run("error(select(2, pcall(F.throw)), 0)"), "100% broken");
    const auto info_of = [&](const char* value) {
        host.Run(std::string("value = ") + value);
        lua_getglobal(host.L, "value");
        return SLB3::GetInfo(host.L, -1);
    };
    const SLB3::BaseInfo* const info = info_of("F.answer");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->type(), SLB3::BaseInfo::kType_function);
    EXPECT_EQ(info->num_args(), 0);
    EXPECT_STREQ(info->type_returned()->name(), "int");
    for (const char* value : {"1", "print", "F.c", "io.lines('/proc/self/status')",
                              "(function(a, b) return function() return a, b end end)(1, "
                              "select(2, debug.getupvalue(F.answer, 2)))"})
        EXPECT_EQ(info_of(value), nullptr) << value;
    std::memset(lua_newuserdata(host.L, 16), 0xA5, 16);
    lua_pushvalue(host.L, -1);
    lua_pushcclosure(host.L, lua_error, 2);
    EXPECT_EQ(SLB3::GetInfo(host.L, -1), nullptr);
}

int PushRock(lua_State* L)
{
    SLB3::Namespace(L, "A.component_that_is_longer_than_forty_characters").set("f", GetAnswer);
    SLB3::Value<Rock*>::Push(L, s_rock);
    return 1;
}

TEST(Slb3, ANameTakenByAnotherLibraryIsRefused)
{
    const LuaHost host;
    luaL_newmetatable(host.L, "Zoo.Rock");
    lua_pushcfunction(host.L, PushRock);
    EXPECT_EQ(lua_pcall(host.L, 0, 1, 0), LUA_ERRRUN);
    EXPECT_STREQ(lua_tostring(host.L, -1),
                 "the name 'Zoo.Rock' is taken by a metatable that is not an SLB3 class");
}

TEST(Slb3, RunningOutOfMemoryLeavesNothingBehind)
{
    for (long allowed = 0, failed = 1; failed; ++allowed) {
        LuaHost host;
        lua_pushcfunction(host.L, PushRock);
        const std::string error = host.CallFailing(0, allowed);
        failed = host.HasFailed();
        EXPECT_EQ(error, failed ? "not enough memory" : "");
        EXPECT_TRUE(failed || allowed > 20) << "nothing failed";
        EXPECT_EQ(CountNamespaces(host.L), 0);
        lua_pushcfunction(host.L, PushRock);
        ASSERT_EQ(lua_pcall(host.L, 0, 1, 0), LUA_OK) << lua_tostring(host.L, -1);
        EXPECT_EQ(Convert<Rock>(host.L), Found(s_rock, false));
        EXPECT_EQ(host.Close(), 0u);
    }
}

// The product, the stand-ins and a library built with the original, in both load orders.
TEST(Slb3, ObjectsOfTheOriginalAreExchanged)
{
    const char* const load_original = "original = require 'slb3_original' theirs = original.make()";
    const char* const load_ours = "require 'fc' vxa = require 'vxa' ours = vxa.Dom()";
    for (const bool first : {true, false}) {
        LuaHost host;
        ASSERT_EQ(host.Run("package.cpath = package.cpath .. ';" SLB3_MODULES "'"), "");
        ASSERT_EQ(host.Run(first ? load_original : load_ours), "");
        ASSERT_EQ(host.Run(first ? load_ours : load_original), "");
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
    rock.set("answer", GetAnswer);
}

SLB3_IMPLEMENTATION(Pond, pond)
{
    static_cast<void>(pond);
}
