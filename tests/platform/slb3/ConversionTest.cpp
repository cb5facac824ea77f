#include <cstring>

#include "SharedClass.h"
#include "Zoo.h"

namespace {

template <typename T>
std::pair<T*, bool> Convert(lua_State* L)
{
    const int top = lua_gettop(L);
    const std::pair<T*, bool> found = SLB3::internal::GetOrConvertPtr<T>(L, -1);
    EXPECT_EQ(lua_gettop(L), top);
    EXPECT_EQ((SLB3::internal::GetOrConvertPtr<const T>(L, -1)),
              (std::pair<const T*, bool>(found.first, found.second)));
    return found;
}

template <typename T>
std::pair<T*, bool> Found(const T* pointer, bool is_const)
{
    return std::pair<T*, bool>(const_cast<T*>(pointer), is_const);
}

TEST(Conversion, GivesPointersBack)
{
    const StatePtr state = NewState();
    lua_State* L = state.get();
    Dog dog("rex");
    const Dog& const_dog = dog;
    SLB3::Value<Dog*>::Push(L, &dog);
    EXPECT_EQ(Convert<Dog>(L), Found(&dog, false));
    SLB3::Value<Dog&>::Push(L, dog);
    EXPECT_EQ(Convert<Dog>(L), Found(&dog, false));
    SLB3::Value<const Dog*>::Push(L, &dog);
    EXPECT_EQ(Convert<Dog>(L), Found(&dog, true));
    SLB3::Value<const Dog&>::Push(L, const_dog);
    EXPECT_EQ(Convert<Dog>(L), Found(&dog, true));
    SLB3::Value<const Dog*>::Push(L, nullptr);
    EXPECT_EQ(Convert<Dog>(L), Found<Dog>(nullptr, true));
    SLB3::Value<Dog>::Push(L, dog);
    EXPECT_EQ(Convert<Dog>(L).first->name, "rex");
    EXPECT_FALSE(Convert<Dog>(L).second);
    EXPECT_NE(Convert<Dog>(L).first, &dog);
}

TEST(Conversion, AdjustsToTheDirectParent)
{
    const StatePtr state = NewState();
    lua_State* L = state.get();
    Dog dog("rex");
    Animal* animal = &dog;
    ASSERT_NE(static_cast<void*>(animal), static_cast<void*>(&dog));
    SLB3::Value<Dog*>::Push(L, &dog);
    EXPECT_EQ(Convert<Animal>(L), Found(animal, false));
    SLB3::Value<const Dog*>::Push(L, &dog);
    EXPECT_EQ(Convert<Animal>(L), Found(animal, true));
    SLB3::Value<const Dog*>::Push(L, nullptr);
    EXPECT_EQ(Convert<Animal>(L), Found<Animal>(nullptr, true));
    SLB3::Value<Dog>::Push(L, dog);
    EXPECT_EQ(Convert<Animal>(L).first->legs, 4);
    SLB3::Value<Animal*>::Push(L, animal);
    EXPECT_EQ(Convert<Dog>(L), Found<Dog>(nullptr, false));
}

TEST(Conversion, RefusesObjectsOfOtherClasses)
{
    const StatePtr state = NewState();
    Dog dog("rex");
    SLB3::Value<Dog*>::Push(state.get(), &dog);
    EXPECT_EQ(Convert<Rock>(state.get()), Found<Rock>(nullptr, false));
    SLB3::Value<const Dog*>::Push(state.get(), &dog);
    EXPECT_EQ(Convert<Rock>(state.get()), Found<Rock>(nullptr, false));
}

// Pushes a block that no pointer can be read from, with the value on top as metatable.
void PushBlock(lua_State* L, std::size_t size)
{
    void* block = lua_newuserdata(L, size);
    if (size != 0) std::memset(block, 0xA5, size);
    lua_insert(L, -2);
    lua_setmetatable(L, -2);
}

// Each case is a Lua expression for the metatable of a foreign block; "dogs" is the
// metatable of the real class.
TEST(Conversion, NeverLooksIntoForeignUserdata)
{
    const StatePtr state = NewState();
    lua_State* L = state.get();
    SLB3::Register<Dog>(L);
    SLB3::Register<Rock>(L);
    luaL_newmetatable(L, "vxi_handle_t*");
    luaL_getmetatable(L, "Zoo.Dog");
    lua_setglobal(L, "dogs");
    const char* const metatables[] = {
        "nil",
        "{}",
        "{__class = 'Zoo.Dog'}",
        "{__class = 'Zoo.Rock'}",
        "{__class = 'nowhere'}",
        "{__class = 'vxi_handle_t*'}",
        "{__class = '_LOADED'}",
        "{__class = 1}",
        "{__class = {}}",
        "{__class = false, __index = dogs}",
        "{__class = dogs}",
        "setmetatable({}, {__index = dogs})",
        "setmetatable({}, {__index = function() error('a script ran') end})",
        "{__index = function() error('a script ran') end}",
        "{__eq = function() return true end, __class = 'Zoo.Dog'}",
        "debug.getregistry()['FILE*']",
        "debug.getregistry()['vxi_handle_t*']",
    };
    for (const char* metatable : metatables) {
        for (const std::size_t size : {0, 8, 16, 23, 24, 32, 4096}) {
            Evaluate(L, std::string("value = ") + metatable);
            lua_getglobal(L, "value");
            PushBlock(L, size);
            EXPECT_EQ(Convert<Dog>(L), Found<Dog>(nullptr, true)) << metatable << size;
            // The metatable's owner must not collect a block that it never made.
            lua_pushnil(L);
            lua_setmetatable(L, -2);
            lua_settop(L, 0);
        }
    }
    // The class's own metatable, put on a block too small for an object.
    for (const std::size_t size : {0, 8, 16, 23}) {
        lua_getglobal(L, "dogs");
        PushBlock(L, size);
        EXPECT_EQ(Convert<Dog>(L), Found<Dog>(nullptr, true)) << size;
    }
}

// What a library says that was built against other SLB3 headers: the same block, but
// its list of base classes may look otherwise.
TEST(Conversion, TakesObjectsOfOtherHeaders)
{
    const StatePtr state = NewState();
    lua_State* L = state.get();
    Dog dog("rex");
    SLB3::Value<Dog*>::Push(L, &dog);
    auto* object = static_cast<SLB3::internal::Object*>(lua_touserdata(L, -1));
    object->flags = 1;
    object->parents = reinterpret_cast<const SLB3::internal::ParentRef*>(1);
    EXPECT_EQ(Convert<Dog>(L), Found(&dog, false));
    EXPECT_EQ(Convert<Animal>(L), Found<Animal>(nullptr, false));
}

// A number may stand for the metatable in the registry too.
TEST(Conversion, TakesOnlyStringsForClassNames)
{
    const StatePtr state = NewState();
    lua_State* L = state.get();
    lua_newtable(L);
    lua_pushvalue(L, -1);
    lua_pushinteger(L, luaL_ref(L, LUA_REGISTRYINDEX));
    lua_setfield(L, -2, "__class");
    PushBlock(L, 64);
    EXPECT_EQ(Convert<Dog>(L), Found<Dog>(nullptr, true));
}

TEST(Conversion, RefusesAClassWhoseMarkAScriptChanged)
{
    const StatePtr state = NewState();
    lua_State* L = state.get();
    Dog dog("rex");
    SLB3::Value<Dog*>::Push(L, &dog);
    lua_pushvalue(L, -1);
    lua_setglobal(L, "dog");
    SLB3::Register<Rock>(L);
    for (const char* mark : {"'Zoo.Rock'", "nil", "1", "{}"}) {
        Evaluate(L, std::string("getmetatable(dog).__class = ") + mark);
        EXPECT_EQ(Convert<Dog>(L), Found<Dog>(nullptr, true)) << mark;
        EXPECT_EQ(Convert<Rock>(L), Found<Rock>(nullptr, true)) << mark;
    }
}

TEST(Conversion, RefusesEverythingElse)
{
    const StatePtr state = NewState();
    lua_State* L = state.get();
    SLB3::Register<Dog>(L);
    for (const char* value :
         {"nil", "true", "1", "'Zoo.Dog'", "{__class = 'Zoo.Dog'}", "print", "Zoo.Dog", "io.stdout",
          "coroutine.create(print)", "setmetatable({}, getmetatable(Zoo.Dog('rex')))"}) {
        Evaluate(L, std::string("value = ") + value);
        lua_getglobal(L, "value");
        EXPECT_EQ(Convert<Dog>(L), Found<Dog>(nullptr, true)) << value;
    }
    lua_pushlightuserdata(L, nullptr);
    EXPECT_EQ(Convert<Dog>(L), Found<Dog>(nullptr, true));
    lua_pushlightuserdata(L, L);
    EXPECT_EQ(Convert<Dog>(L), Found<Dog>(nullptr, true));
    EXPECT_EQ(SLB3::internal::GetOrConvertPtr<Dog>(L, 100), Found<Dog>(nullptr, true));
}

TEST(Conversion, IsIndependentOfWhoMadeTheObject)
{
    // In both orders: whichever library comes first registers the class.
    for (const char* order : {"maker, taker", "taker, maker"}) {
        const StatePtr fresh = NewState();
        const std::string chunk = std::string("package.cpath = '") + SLB3_MODULES +
                                  "' local maker = require 'slb3_maker' "
                                  "local taker = require 'slb3_taker' "
                                  "for _, first in ipairs({" +
                                  order +
                                  "}) do first.make() end "
                                  "return table.concat({taker.take(maker.make()), "
                                  "maker.take(taker.make()), taker.take(maker.makeOwned()), "
                                  "maker.take(taker.makeOwned()), taker.take(taker.make()), "
                                  "tostring(pcall(taker.take, io.stdout))}, ' ')";
        EXPECT_EQ(Evaluate(fresh.get(), chunk), "maker taker maker taker taker false") << order;
    }
}

}  // namespace
