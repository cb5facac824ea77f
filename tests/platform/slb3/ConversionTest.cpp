#include <cstring>
#include <functional>

#include "Zoo.h"

namespace {

using Found = std::pair<const void*, bool>;

using Conversion = LuaTest;

// Of the value on top.
template <typename T>
Found Convert(lua_State* L)
{
    const int top = lua_gettop(L);
    const std::pair<T*, bool> found = SLB3::internal::GetOrConvertPtr<T>(L, -1);
    EXPECT_EQ(lua_gettop(L), top);
    EXPECT_EQ((SLB3::internal::GetOrConvertPtr<const T>(L, -1)),
              (std::pair<const T*, bool>(found.first, found.second)));
    return found;
}

// What a library leaves that was built against other SLB3 headers: the same block, but
// its list of base classes may look otherwise.
void PushOfOtherHeaders(lua_State* L, Dog* dog)
{
    SLB3::Value<Dog*>::Push(L, dog);
    auto* object = static_cast<SLB3::internal::ObjHeader*>(lua_touserdata(L, -1));
    object->flags = 1;
    object->parents = reinterpret_cast<const SLB3::internal::ParentRef*>(1);
}

TEST_F(Conversion, TakesObjectsAsTheirClassAndItsParent)
{
    Dog dog("rex");
    Animal* const animal = &dog;
    ASSERT_NE(static_cast<void*>(animal), static_cast<void*>(&dog));
    const struct {
        const char* pushed;
        std::function<void()> push;
        Found dog, animal;
    } cases[] = {
        {"T*", [&] { SLB3::Value<Dog*>::Push(L, &dog); }, {&dog, false}, {animal, false}},
        {"const T&", [&] { SLB3::Value<const Dog&>::Push(L, dog); }, {&dog, true}, {animal, true}},
        {"const null", [&] { SLB3::Value<const Dog*>::Push(L, {}); }, {{}, true}, {{}, true}},
        {"parent", [&] { SLB3::Value<Animal*>::Push(L, animal); }, {{}, false}, {animal, false}},
        {"other headers", [&] { PushOfOtherHeaders(L, &dog); }, {&dog, false}, {{}, false}},
    };
    for (const auto& c : cases) {
        c.push();
        EXPECT_EQ(Convert<Dog>(L), c.dog) << c.pushed;
        EXPECT_EQ(Convert<Animal>(L), c.animal) << c.pushed;
        EXPECT_EQ(Convert<Rock>(L), Found(nullptr, false)) << c.pushed;
    }
    SLB3::Value<Dog>::Push(L, dog);
    const auto [copy, is_const] = SLB3::internal::GetOrConvertPtr<Dog>(L, -1);
    EXPECT_EQ(copy->name, "rex");
    EXPECT_NE(copy, &dog);
    EXPECT_FALSE(is_const);
    EXPECT_EQ(Convert<Animal>(L), Found(static_cast<Animal*>(copy), false));
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

TEST_F(Conversion, NeverLooksIntoAnythingElse)
{
    SLB3::Register<Dog>(L);
    SLB3::Register<Rock>(L);
    lua_register(L, "block", PushBlock);
    ASSERT_EQ(Evaluate(L,
                       "local rex, registry = Zoo.Dog('rex'), debug.getregistry() "
                       "dogs = getmetatable(rex) "
                       "function marked(mark) dogs.__class = mark return rex end "
                       "numbered = {__class = 4711} registry[4711] = numbered "
                       "scripted = setmetatable({}, {__index = function() os.exit(1) end})"),
              "nil");
    const char* const values[] = {
        "nil",
        "'Zoo.Dog'",
        "setmetatable({}, dogs)",
        "io.stdout",
        "block(24, nil)",
        "block(24, {})",
        "block(24, {__class = 'Zoo.Dog'})",
        "block(24, {__class = 'nowhere'})",
        "block(24, numbered)",  // a number may stand for a metatable in the registry too
        "block(24, scripted)",
        "block(0, dogs)",  // too small for an object
        "block(23, dogs)",
        "marked('Zoo.Rock')",  // a class whose mark a script has changed
        "marked(nil)",
    };
    for (const char* value : values) {
        PushValue(L, value);
        EXPECT_EQ(Convert<Dog>(L), Found(nullptr, true)) << value;
        EXPECT_EQ(Convert<Rock>(L), Found(nullptr, true)) << value;
    }
    EXPECT_EQ(SLB3::internal::GetOrConvertPtr<Dog>(L, 100), (std::pair<Dog*, bool>(nullptr, true)));
}

TEST_F(Conversion, IsIndependentOfWhoMadeTheObject)
{
    // In both orders: whichever library comes first registers the class.
    for (const char* order : {"maker, taker", "taker, maker"}) {
        const LuaHost fresh;
        const std::string chunk = std::string("package.cpath = '") + SLB3_MODULES +
                                  "' local maker = require 'slb3_maker' "
                                  "local taker = require 'slb3_taker' "
                                  "for _, first in ipairs({" +
                                  order +
                                  "}) do first.make() end "
                                  "local held, owned = maker.make() "
                                  "return taker.take(held) .. taker.take(owned) .. "
                                  "maker.take(taker.make()) .. taker.take(taker.make()) .. "
                                  "tostring(pcall(taker.take, io.stdout))";
        EXPECT_EQ(Evaluate(fresh.L, chunk), "makermakertakertakerfalse") << order;
    }
}

// The product, the stand-ins and a library built with the original, in both load orders.
TEST_F(Conversion, IsIndependentOfWhichLibraryMadeTheObject)
{
    const char* const load_original = "original = require 'slb3_original' theirs = original.make()";
    const char* const load_ours = "require 'fc' vxa = require 'vxa' ours = vxa.Dom()";
    for (const bool first : {true, false}) {
        LuaHost fresh;
        ASSERT_EQ(fresh.Run("package.cpath = package.cpath .. ';" SLB3_MODULES "'"), "");
        ASSERT_EQ(fresh.Run(first ? load_original : load_ours), "");
        ASSERT_EQ(fresh.Run(first ? load_ours : load_original), "");
        EXPECT_EQ(fresh.Run("local check = SLB.filter.CheckSystemHealthMetrics "
                            "assert(check(theirs, 'Deactivated', '').action ~= 6) "
                            "assert(check(ours, 'Deactivated', '').action ~= 6) "
                            "assert(original.take(ours)) "
                            "if SLB.Dom then assert(SLB.Dom.set(theirs, 'key', 1)) end "
                            "assert(not pcall(original.take, vxa.ZipOutputStream('/dev/null')))"),
                  "");
    }
}

}  // namespace
