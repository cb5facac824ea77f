// A Lua state with a counting allocator; see LuaHost.h.
#include "LuaHost.h"

#include <cstdlib>

LuaHost::LuaHost()
{
    l = lua_newstate(Allocate, this);
    luaL_openlibs(l);
    Run("package.cpath = '" LIBRARY_DIR "/?.so'");
}

std::string LuaHost::Run(const std::string& chunk)
{
    std::string error;
    if (luaL_dostring(l, chunk.c_str()) != 0) error = lua_tostring(l, -1);
    lua_settop(l, 0);
    return error;
}

void LuaHost::FailAfter(long allowed)
{
    m_failed &= allowed < 0;
    m_allowed = allowed;
}

std::string LuaHost::CallFailing(int arguments, long allowed)
{
    FailAfter(allowed);
    const int status = lua_pcall(l, arguments, LUA_MULTRET, 0);
    m_allowed = -1;
    std::string error = status != LUA_OK ? lua_tostring(l, -1) : "";
    lua_settop(l, 0);
    return error;
}

std::size_t LuaHost::Close()
{
    if (l) lua_close(l);
    l = nullptr;
    return m_bytes;
}

bool LuaHost::Refuses()
{
    if (m_allowed != 0) {
        if (m_allowed > 0) --m_allowed;
        return false;
    }
    if (!m_failed && on_failure) on_failure();
    m_failed = true;
    return true;
}

void* LuaHost::Allocate(void* self, void* block, std::size_t old_size, std::size_t size)
{
    auto& host = *static_cast<LuaHost*>(self);
    const std::size_t held = block ? old_size : 0;
    if (size > held && host.Refuses()) return nullptr;
    void* const moved = size != 0 ? std::realloc(block, size) : nullptr;
    if (size == 0) std::free(block);
    if (size == 0 || moved) host.m_bytes += size - held;
    return moved;
}
