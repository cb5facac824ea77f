#include "Zoo.h"

namespace {

int Answer(lua_State* L)
{
    lua_pushliteral(L, "answer");
    return 1;
}

const struct {
    const char* before;
    const char* name;
    const char* check;  // a Lua expression that must be true afterwards
} kWalks[] = {
    {"", "", "mark == 1"},
    {"", "_G", "mark == 1"},
    {"_G._G = nil", "_G", "mark == 1 and rawget(_ENV, '_G') == nil"},
    {"", "A", "A.mark == 1"},
    {"", "A.B.C", "A.B.C.mark == 1"},
    {"", "A.", "A.mark == 1 and next(A) == 'mark'"},
    {"", ".A..B", "A.B.mark == 1"},
    {"A = {x = 1}; old = A", "A.B", "old == A and A.x == 1 and A.B.mark == 1"},
    {"A = {B = 'text'}", "A.B.C", "A.B.C.mark == 1"},
    {"A = io.stdout", "A", "type(A) == 'table' and A.mark == 1"},
    // Scripts that forbid undeclared globals, or fake them.
    {"setmetatable(_G, {__index = error, __newindex = error})", "A.B", "A.B.mark == 1"},
    {"setmetatable(_G, {__index = function() return os end})", "A", "A ~= os and A.mark == 1"},
};

TEST(Namespace, FindsOrMakesItsTable)
{
    for (const auto& walk : kWalks) {
        SCOPED_TRACE(std::string(walk.before) + " | " + walk.name);
        const StatePtr L = NewState();
        ASSERT_EQ(Evaluate(L.get(), walk.before), "nil");
        const int references = CountRegistryReferences(L.get());
        {
            SLB3::Namespace space(L.get(), walk.name);
            space.set("mark", 1);
            EXPECT_EQ(CountRegistryReferences(L.get()), references + 1);
            EXPECT_EQ(lua_gettop(L.get()), 0);
        }
        EXPECT_EQ(CountRegistryReferences(L.get()), references);
        EXPECT_EQ(Evaluate(L.get(), std::string("return ") + walk.check), "true");
    }
}

TEST(Namespace, TakesComponentsOfAnyLength)
{
    const StatePtr L = NewState();
    for (const std::size_t length : {255, 256, 257, 100000}) {
        const std::string part(length, 'x');
        SLB3::Namespace(L.get(), (part + "." + part + "y").c_str()).set("mark", 1);
        EXPECT_EQ(Evaluate(L.get(), "local x = ('x'):rep(" + std::to_string(length) +
                                        ") return _G[x][x .. 'y'].mark"),
                  "1");
    }
}

TEST(Namespace, StoresEveryKindOfValue)
{
    const StatePtr L = NewState();
    const char* no_text = nullptr;
    SLB3::Namespace(L.get(), "T")
        .set("yes", true)
        .set("int", -3)
        .set("big", 0x8000000000000000u)
        .set("real", 0.5)
        .set("text", "text")
        .set("string", std::string("a\0b", 3))
        .set("gone", 1)
        .set("gone", no_text)
        .set("dotted.name", "one field")
        .set("answer", Answer)
        .set("rock", static_cast<Rock*>(nullptr));
    EXPECT_EQ(Evaluate(L.get(),
                       "return T.yes == true and T.int == -3 and T.big == 2^63 and T.real == 0.5 "
                       "and T.text == 'text' and T.string == 'a\\0b' and T.gone == nil "
                       "and T['dotted.name'] == 'one field' and T.answer() == 'answer' "
                       "and T.rock == nil and T.dotted == nil"),
              "true");
    EXPECT_EQ(Evaluate(L.get(), "return debug.getupvalue(T.answer, 1)"), "nil");
}

TEST(Namespace, HonoursNewindex)
{
    const StatePtr L = NewState();
    Evaluate(L.get(), "T = setmetatable({}, {__newindex = function(t, k, v) seen = k .. v end})");
    SLB3::Namespace(L.get(), "T").set("a", 1);
    EXPECT_EQ(Evaluate(L.get(), "return seen .. tostring(rawget(T, 'a'))"), "a1nil");
}

TEST(Namespace, NestsSubtables)
{
    const StatePtr L = NewState();
    Evaluate(L.get(), "T = {sub = {old = 1}}");
    {
        SLB3::Namespace space(L.get(), "T");
        SLB3::Table& sub = space.subtable("sub");
        sub.set("a", 1).subtable("deep").set("b", 2).close().set("c", 3).close().set("d", 4);
        Evaluate(L.get(), "collectgarbage()");  // the chain keeps its tables and itself
        sub.set("e", 5);
        EXPECT_EQ(&sub.close(), &space.close());
    }
    EXPECT_EQ(Evaluate(L.get(),
                       "local s = T.sub return s.old == nil and s.a == 1 and s.deep.b == 2 and "
                       "s.c == 3 and T.d == 4 and s.e == 5"),
              "true");
}

TEST(Namespace, KeepsItsTableWhenScriptsDropIt)
{
    const StatePtr L = NewState();
    SLB3::Namespace space(L.get(), "T");
    Evaluate(L.get(), "T = nil collectgarbage()");
    space.set("a", 1);
    space.push(L.get());
    lua_setglobal(L.get(), "U");
    EXPECT_EQ(Evaluate(L.get(), "return tostring(T) .. U.a"), "nil1");
}

TEST(Namespace, WorksFromACoroutine)
{
    const StatePtr L = NewState();
    lua_State* thread = lua_newthread(L.get());
    SLB3::Namespace space(thread, "T");
    space.set("a", 1).subtable("s").set("b", 2);
    space.push(L.get());
    lua_getglobal(L.get(), "T");
    EXPECT_TRUE(lua_rawequal(L.get(), -1, -2));
    EXPECT_EQ(lua_gettop(thread), 0);
}

TEST(Namespace, GivesUpItsReferenceBeforeAnErrorLeaves)
{
    const StatePtr L = NewState();
    Evaluate(L.get(), "T = setmetatable({}, {__newindex = function() error({code = 7}) end})");
    const int references = CountRegistryReferences(L.get());
    const auto fill = [](lua_State* S) {
        SLB3::Namespace(S, "T").set("a", 1);
        return 0;
    };
    lua_pushcfunction(L.get(), fill);
    EXPECT_EQ(lua_pcall(L.get(), 0, 0, 0), LUA_ERRRUN);
    lua_getfield(L.get(), -1, "code");
    EXPECT_EQ(lua_tointeger(L.get(), -1), 7);
    EXPECT_EQ(CountRegistryReferences(L.get()), references);
}

TEST(Namespace, SaysSoWhenUsedAfterAnError)
{
    const StatePtr L = NewState();
    Evaluate(L.get(), "T = setmetatable({}, {__newindex = error})");
    static SLB3::Namespace* space;
    SLB3::Namespace made(L.get(), "T");
    space = &made;
    const auto fill = [](lua_State*) {
        space->set("a", 1);
        return 0;
    };
    lua_pushcfunction(L.get(), fill);
    EXPECT_EQ(lua_pcall(L.get(), 0, 0, 0), LUA_ERRRUN);
    lua_pushcfunction(L.get(), fill);
    ASSERT_EQ(lua_pcall(L.get(), 0, 0, 0), LUA_ERRRUN);
    EXPECT_STREQ(lua_tostring(L.get(), -1),
                 "a namespace is used after an error or with another Lua state");
}

}  // namespace
