// A Lua table filled from C++.
#pragma once

#include "SLB3/config.h"
#include "SLB3/internal/boundary.h"
#include "SLB3/value.h"

namespace SLB3 {

// Base of Namespace. Every call leaves the stack unchanged and can be made from a coroutine. Must
// not outlive the state (or coroutine) that it was made with.
//
// The Lua table is in the registry under this object's address; the destructor removes it. If Lua
// raises with longjmp, the destructor does not run; so a call below that raises removes the entry
// first, and the object cannot be used after that. If anything else raises an error while a Table
// is alive, its entry stays until the next Table at the same address replaces it. Errors keep their
// value, but a memory error gets the status of other errors.
class Table {
public:
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;
    ~Table() { Release(); }

    // Sets the field `name`, with the table's `__newindex` if it has one, to the value that
    // Value<T> pushes. A dot in the name is an ordinary character. Returns this table, for
    // chaining. [-0, +0, e]
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
            Release();
            luaL_error(m_state, "stack overflow (no room to fill a table)");
        }
        if (internal::RunProtected(m_state, store) != LUA_OK) {
            Release();
            lua_error(m_state);
        }
        return *this;
    }

protected:
    // Refers to no table yet.
    explicit Table(lua_State* L) : m_state(L) {}

    // Pops the table to refer to. [-1, +0, m]
    void Hold(lua_State* L)
    {
        lua_rawsetp(L, LUA_REGISTRYINDEX, this);
        m_isHeld = true;
    }

private:
    // Setting an existing field to nil does not allocate. [-0, +0, -]
    void Release()
    {
        if (!m_isHeld) return;
        m_isHeld = false;
        lua_pushnil(m_state);
        lua_rawsetp(m_state, LUA_REGISTRYINDEX, this);
    }

    lua_State* m_state;
    bool m_isHeld = false;
};

}  // namespace SLB3
