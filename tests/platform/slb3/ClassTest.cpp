#include <cstring>
#include <thread>

#include "Zoo.h"

struct alignas(64) Brick {
    long weight = 5;
};
SLB3_DECLARATION(Brick, "Brick", policy::Default)
SLB3_IMPLEMENTATION(Brick, brick)
{
    brick.constructor<>();
}

namespace {

using Classes = LuaTest;

TEST_F(Classes, RegisterAtTheFirstPushAndOnce)
{
    SLB3::Value<Rock*>::Push(L, reinterpret_cast<Rock*>(64));
    EXPECT_NE(luaL_testudata(L, 1, "Zoo.Rock"), nullptr);
    EXPECT_EQ(Evaluate(L, "Zoo.Rock.own = 1 class = Zoo.Rock"), "nil");
    SLB3::Register<Rock>(L);
    EXPECT_EQ(Evaluate(L, "return class == Zoo.Rock and Zoo.Rock.own == 1"), "true");
    EXPECT_EQ(lua_gettop(L), 1);
}

// A script that collects by hand finds the object gone, not freed memory.
TEST_F(Classes, CollectInstancesOnce)
{
    SLB3::Value<Dog>::Push(L, Dog("rex"));
    lua_setglobal(L, "dog");
    EXPECT_EQ(Evaluate(L, "return dog:name()"), "rex");
    EXPECT_EQ(Dog::alive, 1);
    std::memset(lua_newuserdata(L, 4096), 0xA5, 4096);
    lua_newtable(L);
    lua_setmetatable(L, -2);
    lua_setglobal(L, "foreign");
    const std::string text = Evaluate(L,
                                      "local gc = getmetatable(dog).__gc "
                                      "gc(dog) gc(dog) gc(io.stdout) gc(foreign) gc() gc(Zoo) "
                                      "return dog:name()");
    EXPECT_NE(text.find("Zoo.Dog object expected"), std::string::npos) << text;
    EXPECT_EQ(Dog::alive, 0);
    EXPECT_EQ(Evaluate(L, "return getmetatable(dog).__eq(foreign, dog)"), "false");
}

TEST_F(Classes, AlignInstances)
{
    for (int i = 0; i < 50; ++i) {
        SLB3::Value<Brick>::Push(L, Brick());
        const Brick* brick = SLB3::internal::GetOrConvertPtr<Brick>(L, -1).first;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(brick) % alignof(Brick), 0u);
        EXPECT_EQ(brick->weight, 5);
        lua_newuserdata(L, 8);
        luaL_checkstack(L, 4, nullptr);
    }
}

TEST_F(Classes, RefuseANameTakenByAnotherLibrary)
{
    luaL_newmetatable(L, "Zoo.Rock");
    const auto push = [](lua_State* S) {
        SLB3::Value<Rock*>::Push(S, reinterpret_cast<Rock*>(64));
        return 1;
    };
    lua_pushcfunction(L, push);
    EXPECT_EQ(lua_pcall(L, 0, 1, 0), LUA_ERRRUN);
    EXPECT_STREQ(lua_tostring(L, -1),
                 "the name 'Zoo.Rock' is taken by a metatable that is no SLB3 class");
}

TEST_F(Classes, WorkInTwoStatesAtOnce)
{
    const auto work = [] {
        const LuaHost own;
        for (int i = 0; i < 100; ++i) {
            SLB3::Register<Dog>(own.L);
            SLB3::Namespace(own.L, "Z").set("dog", Dog("rex")).set("name", &Dog::Name);
            EXPECT_EQ(Evaluate(own.L, "return Z.name(Z.dog:puppy():self()):sub(1, 3)"), "rex");
        }
    };
    std::thread first(work);
    std::thread second(work);
    first.join();
    second.join();
}

}  // namespace
