#include "Zoo.h"

namespace {

int Answer(lua_State* L)
{
    lua_pushliteral(L, "answer");
    return 1;
}

using Namespace = LuaTest;

TEST_F(Namespace, FindsOrMakesItsTable)
{
    const struct {
        const char* before;
        const char* name;
        const char* check;  // a Lua expression that must be true afterwards
    } walks[] = {
        {"", "", "mark == 1"},
        {"_G._G = nil", "_G", "mark == 1 and rawget(_ENV, '_G') == nil"},
        {"", "A.", "A.mark == 1 and next(A) == 'mark'"},
        {"", ".A..B", "A.B.mark == 1"},
        {"A = {x = 1}; old = A", "A.B", "old == A and A.x == 1 and A.B.mark == 1"},
        {"A = {B = 'text'}", "A.B.C", "A.B.C.mark == 1"},
        {"A = io.stdout", "A", "type(A) == 'table' and A.mark == 1"},
        // Scripts that forbid undeclared globals, or fake them.
        {"setmetatable(_G, {__index = error, __newindex = error})", "A.B", "A.B.mark == 1"},
        {"setmetatable(_G, {__index = function() return os end})", "A", "A ~= os and A.mark == 1"},
    };
    for (const auto& walk : walks) {
        SCOPED_TRACE(std::string(walk.before) + " | " + walk.name);
        const LuaHost fresh;
        ASSERT_EQ(Evaluate(fresh.L, walk.before), "nil");
        const int references = CountRegistryReferences(fresh.L);
        {
            SLB3::Namespace space(fresh.L, walk.name);
            space.set("mark", 1);
            EXPECT_EQ(CountRegistryReferences(fresh.L), references + 1);
            EXPECT_EQ(lua_gettop(fresh.L), 0);
        }
        EXPECT_EQ(CountRegistryReferences(fresh.L), references);
        EXPECT_EQ(Evaluate(fresh.L, std::string("return ") + walk.check), "true");
    }
}

TEST_F(Namespace, TakesComponentsOfAnyLength)
{
    for (const std::size_t length : {255, 256, 100000}) {
        const std::string part(length, 'x');
        SLB3::Namespace(L, (part + "." + part + "y").c_str()).set("mark", 1);
        const std::string x = "('x'):rep(" + std::to_string(length) + ")";
        EXPECT_EQ(Evaluate(L, "return _G[" + x + "][" + x + " .. 'y'].mark"), "1");
    }
}

TEST_F(Namespace, StoresEveryKindOfValue)
{
    const char* no_text = nullptr;
    SLB3::Namespace(L, "T")
        .set("yes", true)
        .set("big", 0x8000000000000000u)
        .set("string", std::string("a\0b", 3))
        .set("gone", 1)
        .set("gone", no_text)
        .set("dotted.name", "one field")
        .set("answer", Answer)
        .set("rock", static_cast<Rock*>(nullptr));
    EXPECT_EQ(Evaluate(L,
                       "return T.yes == true and T.big == 2^63 and T.string == 'a\\0b' "
                       "and T['dotted.name'] == 'one field' and T.answer() == 'answer' "
                       "and T.gone == nil and T.rock == nil and T.dotted == nil"),
              "true");
    EXPECT_EQ(Evaluate(L, "return debug.getupvalue(T.answer, 1)"), "nil");
}

// From a coroutine, and while a script drops the table.
TEST_F(Namespace, NestsSubtables)
{
    Evaluate(L, "T = {sub = {old = 1}}");
    lua_State* thread = lua_newthread(L);
    {
        SLB3::Namespace space(thread, "T");
        SLB3::Table& sub = space.subtable("sub");
        sub.set("a", 1).subtable("deep").set("b", 2).close().set("c", 3).close().set("d", 4);
        Evaluate(L, "U = T T = nil collectgarbage()");  // the chain keeps its tables and itself
        sub.set("e", 5);
        EXPECT_EQ(&sub.close(), &space.close());
        space.push(L);
    }
    lua_getglobal(L, "U");
    EXPECT_TRUE(lua_rawequal(L, -1, -2));
    EXPECT_EQ(lua_gettop(thread), 0);
    EXPECT_EQ(Evaluate(L,
                       "local s = U.sub return T == nil and s.old == nil and s.a == 1 and "
                       "s.deep.b == 2 and s.c == 3 and U.d == 4 and s.e == 5"),
              "true");
}

// An error of the table's own __newindex goes on as it is; the namespace is then spent.
TEST_F(Namespace, GivesUpItsReferenceBeforeAnErrorLeaves)
{
    Evaluate(L, "T = setmetatable({}, {__newindex = function() error({code = 7}) end})");
    const int references = CountRegistryReferences(L);
    static SLB3::Namespace* space;
    SLB3::Namespace made(L, "T");
    space = &made;
    const auto fill = [](lua_State*) {
        space->set("a", 1);
        return 0;
    };
    lua_pushcfunction(L, fill);
    EXPECT_EQ(lua_pcall(L, 0, 0, 0), LUA_ERRRUN);
    lua_getfield(L, -1, "code");
    EXPECT_EQ(lua_tointeger(L, -1), 7);
    EXPECT_EQ(CountRegistryReferences(L), references);
    lua_pushcfunction(L, fill);
    ASSERT_EQ(lua_pcall(L, 0, 0, 0), LUA_ERRRUN);
    EXPECT_STREQ(lua_tostring(L, -1),
                 "a namespace is used after an error or with another Lua state");
}

}  // namespace
