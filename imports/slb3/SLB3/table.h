// A Lua table filled from C++.
#pragma once

#include "SLB3/config.h"
#include "SLB3/internal/boundary.h"
#include "SLB3/value.h"

namespace SLB3 {

// Made by Namespace. Every call leaves the stack as it was; all work from coroutines.
//
// A table object must not outlive the state (or coroutine) that it was made with.
//
// The Lua table hangs from a registry entry, keyed by this object's address. The
// destructor removes it. Where Lua raises by longjmp, destructors do not run; so a call
// below that raises removes the entry first, and the object is of no further use then.
// Only an error raised by something else while a Table is alive leaves its entry, until
// the next Table at the same address replaces it. An error passed on this way keeps its
// value, but a memory error arrives with the status of other errors.
class Table {
public:
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;
    ~Table() { release(); }

    // Stores a value under `name`, pushed as Value<T> does; a dot in the name is an
    // ordinary character. `__newindex` of the table is honoured. Returns the table
    // itself, for chains. [-0, +0, e]
    template <typename T>
    Table& set(const char* name, T value)
    {
        auto store = [&](lua_State* L) {
            lua_rawgetp(L, LUA_REGISTRYINDEX, this);
            if (!lua_istable(L, -1))
                luaL_error(L, "a namespace is used after an error or with another Lua state");
            Value<T>::Push(L, value);
            lua_setfield(L, -2, name);
            return 0;
        };
        if (!lua_checkstack(m_state, LUA_MINSTACK)) {
            release();
            luaL_error(m_state, "stack overflow (no room to fill a table)");
        }
        if (internal::RunProtected(m_state, store) != LUA_OK) {
            release();
            lua_error(m_state);
        }
        return *this;
    }

protected:
    // Holds nothing yet.
    explicit Table(lua_State* L) : m_state(L) {}

    // Takes the table on top. [-1, +0, m]
    void hold(lua_State* L)
    {
        lua_rawsetp(L, LUA_REGISTRYINDEX, this);
        m_held = true;
    }

private:
    // Setting an existing key to nil allocates nothing. [-0, +0, -]
    void release()
    {
        if (!m_held) return;
        m_held = false;
        lua_pushnil(m_state);
        lua_rawsetp(m_state, LUA_REGISTRYINDEX, this);
    }

    lua_State* m_state;
    bool m_held = false;
};

}  // namespace SLB3
