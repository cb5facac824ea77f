// What every native function accepts as a driver handle and as a host object.

#include "LuaArgs.h"

#include <gtest/gtest.h>

#include "HostRecording.h"
#include "SLB3/slb.h"
#include "VxaCore/ZipOutputStream.h"

SLB3_IMPLEMENTATION(VxaCore::CDom, binding)
{
    (void)binding;
}
SLB3_IMPLEMENTATION(VxaCore::CZipOutputStream, binding)
{
    (void)binding;
}

namespace {

template <auto Check>
int CheckSecond(lua_State* L)
{
    lua_pushlightuserdata(L, Check(L, 2));
    return 1;
}

int s_object;  // its address stands for whatever is passed

void PushHandle(lua_State* L, void* handle, std::size_t size = sizeof(void*))
{
    void* block = lua_newuserdata(L, size);
    if (size >= sizeof handle) *static_cast<void**>(block) = handle;
    luaL_newmetatable(L, "vxi_handle_t*");
    lua_setmetatable(L, -2);
}

void PushForeign(lua_State* L)
{
    lua_newuserdata(L, 64);
    luaL_newmetatable(L, "FILE*");
    lua_setmetatable(L, -2);
}

template <typename T>
void PushObject(lua_State* L)
{
    SLB3::Value<T*>::Push(L, reinterpret_cast<T*>(&s_object));
}

template <typename T>
void PushConst(lua_State* L)
{
    SLB3::Value<const T*>::Push(L, reinterpret_cast<const T*>(&s_object));
}

const struct {
    const char* name;
    void (*push)(lua_State*);
} kValues[] = {
    {"nothing", [](lua_State*) {}},
    {"nil", [](lua_State* L) { lua_pushnil(L); }},
    {"boolean", [](lua_State* L) { lua_pushboolean(L, 1); }},
    {"number", [](lua_State* L) { lua_pushnumber(L, 1); }},
    {"text", [](lua_State* L) { lua_pushliteral(L, "vxi_handle_t*"); }},
    {"table", [](lua_State* L) { lua_newtable(L); }},
    {"table with the metatable",
     [](lua_State* L) {
         lua_newtable(L);
         luaL_newmetatable(L, "vxi_handle_t*");
         lua_setmetatable(L, -2);
     }},
    {"light userdata", [](lua_State* L) { lua_pushlightuserdata(L, &s_object); }},
    {"bare userdata", [](lua_State* L) { lua_newuserdata(L, 64); }},
    {"foreign userdata", PushForeign},
    {"short handle", [](lua_State* L) { PushHandle(L, nullptr, 1); }},
    {"handle", [](lua_State* L) { PushHandle(L, &s_object); }},
    {"closed handle", [](lua_State* L) { PushHandle(L, nullptr); }},
    {"document", PushObject<VxaCore::CDom>},
    {"constant document", PushConst<VxaCore::CDom>},
    {"archive", PushObject<VxaCore::CZipOutputStream>},
    {"constant archive", PushConst<VxaCore::CZipOutputStream>},
};

constexpr const char* kClosed = "vxi handle already closed";

const struct {
    lua_CFunction check;
    const char* expected;  // the error for a wrong value
    const char* accepts;   // the value that is taken
    const char* closed;    // the error for a closed handle; empty: passed on as null
} kChecks[] = {
    {CheckSecond<fc::CheckOpenDriverHandle>, "vxi handle expected", "handle", kClosed},
    {CheckSecond<fc::CheckDriverHandle>, "vxi handle expected", "handle", ""},
    {CheckSecond<fc::CheckDom>, "CDom object expected", "document", "CDom object expected"},
    {CheckSecond<fc::CheckZipOutputStream>, "CZipOutputStream object expected", "archive",
     "CZipOutputStream object expected"},
};

TEST(LuaArgs, EachCheckTakesItsOwnValuesOnly)
{
    lua_State* L = luaL_newstate();
    for (const auto& check : kChecks)
        for (const auto& value : kValues) {
            const std::string name = value.name;
            SCOPED_TRACE(std::string(check.expected) + ": " + name);
            lua_settop(L, 0);
            lua_pushcfunction(L, check.check);
            lua_pushnil(L);
            value.push(L);
            const int status = lua_pcall(L, lua_gettop(L) - 1, 1, 0);
            const bool closed = name == "closed handle";
            const std::string text = closed                  ? check.closed
                                     : name == check.accepts ? ""
                                                             : check.expected;
            if (text.empty()) {
                ASSERT_EQ(status, LUA_OK);
                EXPECT_EQ(lua_touserdata(L, -1), closed ? nullptr : &s_object);
            } else {
                ASSERT_EQ(status, LUA_ERRRUN);
                EXPECT_EQ(lua_tostring(L, -1), "bad argument #2 to '?' (" + text + ")");
            }
        }
    lua_close(L);
}

}  // namespace
