// Classes for the tests, and helpers to ask a Lua state.
#pragma once

#include <atomic>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "LuaHost.h"
#include "SLB3/slb.h"

struct Animal {
    int legs = 4;
};

// The first base moves Animal away from the start of a Dog.
struct Collar {
    long tag = 7;
};

struct Dog : Collar, Animal {
    explicit Dog(const char* called) : name(called)
    {
        if (name.empty()) throw std::invalid_argument("a dog needs a name");
        ++alive;
    }
    Dog(const Dog& other) : Collar(other), Animal(other), name(other.name) { ++alive; }
    Dog& operator=(const Dog&) = delete;
    ~Dog() { --alive; }

    std::string Name() const { return name; }
    void Rename(const std::string& called) { name = called; }
    Dog Puppy() const { return Dog((name + " the second, of a family with long names").c_str()); }
    Dog* Self() { return this; }
    const Dog& ConstSelf() const { return *this; }

    std::string name;
    static inline std::atomic<int> alive{0};
};

class Rock;  // never defined: only pointers to it exist

SLB3_DECLARATION(Animal, "Zoo.Animal", policy::NoDelete)
SLB3_DECLARATION_WITH_PARENT(Dog, "Zoo.Dog", policy::Default, Animal)
SLB3_DECLARATION(Rock, "Zoo.Rock", policy::NoDelete)

// Runs a chunk and returns its first result, or its error, as text.
inline std::string Evaluate(lua_State* L, const std::string& chunk)
{
    luaL_loadstring(L, chunk.c_str()) || lua_pcall(L, 0, 1, 0);
    std::size_t size = 0;
    const char* text = luaL_tolstring(L, -1, &size);
    std::string result(text, size);
    lua_pop(L, 2);
    return result;
}

// The test's own state; at its end every object that Lua made is gone.
class LuaTest : public testing::Test {
protected:
    ~LuaTest() override
    {
        host.Close();
        EXPECT_EQ(Dog::alive, 0);
    }
    LuaHost host;
    lua_State* const L = host.L;
};

// Leaves the value of an expression on the stack.
inline void PushValue(lua_State* L, const std::string& expression)
{
    Evaluate(L, "value = " + expression);
    lua_getglobal(L, "value");
}

// Counts the entries of the registry that stand for C++ addresses or references.
inline int CountRegistryReferences(lua_State* L)
{
    int count = 0;
    for (lua_pushnil(L); lua_next(L, LUA_REGISTRYINDEX); lua_pop(L, 1))
        count += lua_type(L, -2) == LUA_TLIGHTUSERDATA || lua_type(L, -2) == LUA_TNUMBER;
    return count;
}
