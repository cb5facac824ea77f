#include <cstring>
#include <thread>

#include "Zoo.h"

namespace {

class Classes : public testing::Test {
protected:
    ~Classes() override
    {
        L.reset();
        EXPECT_EQ(Dog::alive, dogs_before);
    }
    const int dogs_before = Dog::alive;
    StatePtr L = NewState();
};

TEST_F(Classes, RegisterOnce)
{
    SLB3::Register<Dog>(L.get());
    EXPECT_EQ(Evaluate(L.get(), "Zoo.Dog.own = 1 class = Zoo.Dog"), "nil");
    SLB3::Register<Dog>(L.get());
    EXPECT_EQ(Evaluate(L.get(), "return class == Zoo.Dog and Zoo.Dog.own == 1"), "true");
    EXPECT_EQ(lua_gettop(L.get()), 0);
}

TEST_F(Classes, RegisterAtTheFirstPush)
{
    SLB3::Value<Rock*>::Push(L.get(), reinterpret_cast<Rock*>(64));
    EXPECT_NE(luaL_testudata(L.get(), 1, "Zoo.Rock"), nullptr);
    EXPECT_EQ(Evaluate(L.get(), "return type(Zoo.Rock)"), "table");
}

TEST_F(Classes, WorkFromScripts)
{
    SLB3::Register<Dog>(L.get());
    const char* const expressions[] = {
        "Zoo.Dog('rex'):name() == 'rex'",
        "tostring(Zoo.Dog('rex')) == 'rex'",
        "Zoo.Dog('rex') ~= Zoo.Dog('rex')",
        "(function() local d = Zoo.Dog('rex') return d == d:self() end)()",
        "(function() local d = Zoo.Dog('rex') d:rename('bo') return d:name() == 'bo' end)()",
        "Zoo.Dog('rex'):puppy():name():match('^rex the second')",
        "getmetatable(Zoo.Dog('rex')).__class == 'Zoo.Dog'",
        "getmetatable(Zoo.Dog('rex')).__index == Zoo.Dog",
        "not pcall(function() Zoo.Dog('rex'):constSelf():rename('bo') end)",
        "not pcall(Zoo.Dog.name, io.stdout) and not pcall(Zoo.Dog.name)",
    };
    for (const char* expression : expressions)
        EXPECT_EQ(Evaluate(L.get(), std::string("return not not (") + expression + ")"), "true")
            << expression;
}

TEST_F(Classes, HaveACallOnlyWithAConstructor)
{
    SLB3::Register<Rock>(L.get());
    EXPECT_EQ(Evaluate(L.get(), "return getmetatable(Zoo.Rock) == nil"), "true");
}

TEST_F(Classes, LeavePointersAlone)
{
    Dog dog("rex");
    SLB3::Value<Dog*>::Push(L.get(), &dog);
    SLB3::Value<const Dog&>::Push(L.get(), dog);
    lua_settop(L.get(), 0);
    Evaluate(L.get(), "collectgarbage() collectgarbage()");
    EXPECT_EQ(dog.name, "rex");
    EXPECT_EQ(Dog::alive, dogs_before + 1);
}

TEST_F(Classes, CollectInstancesOnce)
{
    {
        const Dog dog("rex");
        SLB3::Value<Dog>::Push(L.get(), dog);
    }
    lua_setglobal(L.get(), "dog");
    EXPECT_EQ(Evaluate(L.get(), "return dog:name()"), "rex");
    EXPECT_EQ(Dog::alive, dogs_before + 1);
    std::memset(lua_newuserdata(L.get(), 4096), 0xA5, 4096);
    lua_newtable(L.get());
    lua_setmetatable(L.get(), -2);
    lua_setglobal(L.get(), "foreign");
    // A script that collects by hand finds the object gone, not freed memory.
    const std::string text =
        Evaluate(L.get(),
                 "local gc = getmetatable(dog).__gc "
                 "gc(dog) gc(dog) gc(io.stdout) gc(foreign) gc(nil) gc() gc(Zoo) "
                 "return dog:name()");
    EXPECT_NE(text.find("Zoo.Dog object expected"), std::string::npos) << text;
    EXPECT_EQ(Dog::alive, dogs_before);
    EXPECT_EQ(Evaluate(L.get(), "return getmetatable(dog).__eq(foreign, dog)"), "false");
}

TEST_F(Classes, DestroyNothingThatWasNeverConstructed)
{
    SLB3::Register<Dog>(L.get());
    EXPECT_EQ(Evaluate(L.get(), "return pcall(Zoo.Dog, '')"), "false");
    Evaluate(L.get(), "collectgarbage() collectgarbage()");
    EXPECT_EQ(Dog::alive, dogs_before);
}

TEST_F(Classes, AlignInstances)
{
    for (int i = 0; i < 50; ++i) {
        SLB3::Value<Brick>::Push(L.get(), Brick());
        const Brick* brick = SLB3::internal::GetOrConvertPtr<Brick>(L.get(), -1).first;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(brick) % alignof(Brick), 0u);
        EXPECT_EQ(brick->weight, 5);
        lua_newuserdata(L.get(), 8);
        luaL_checkstack(L.get(), 4, nullptr);
    }
}

TEST_F(Classes, RefuseANameTakenByAnotherLibrary)
{
    luaL_newmetatable(L.get(), "Zoo.Rock");
    lua_settop(L.get(), 0);
    const auto push = [](lua_State* S) {
        SLB3::Value<Rock*>::Push(S, reinterpret_cast<Rock*>(64));
        return 1;
    };
    lua_pushcfunction(L.get(), push);
    EXPECT_EQ(lua_pcall(L.get(), 0, 1, 0), LUA_ERRRUN);
    EXPECT_STREQ(lua_tostring(L.get(), -1),
                 "the name 'Zoo.Rock' is taken by a metatable that is no SLB3 class");
}

TEST_F(Classes, WorkInTwoStatesAtOnce)
{
    const auto work = [] {
        const StatePtr own = NewState();
        for (int i = 0; i < 100; ++i) {
            SLB3::Register<Dog>(own.get());
            SLB3::Namespace(own.get(), "Z").set("dog", Dog("rex")).set("name", &Dog::Name);
            EXPECT_EQ(Evaluate(own.get(), "return Z.name(Z.dog:puppy():self()):sub(1, 3)"), "rex");
        }
    };
    std::thread first(work);
    std::thread second(work);
    first.join();
    second.join();
}

}  // namespace
