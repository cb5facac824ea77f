// A Lua table filled from C++.
#pragma once

#include "SLB3/config.h"
#include "SLB3/internal/boundary.h"
#include "SLB3/value.h"

namespace SLB3 {

// Made by Namespace and subtable(). Every call but push() leaves the stack as it was;
// all work from coroutines.
//
// A table object must not outlive the state (or coroutine) that it was made with.
//
// Memory: the tables behind one Namespace and its subtables hang from one registry
// entry, keyed by the Namespace's address. The destructor removes it. Where Lua raises
// by longjmp, destructors do not run; so a call below that raises removes the entry
// before, and the Namespace and its subtables are of no further use then. Only an error
// raised by something else while a Namespace is alive leaves its entry, until the next
// Namespace at the same address replaces it. An error passed on this way keeps its
// value, but a memory error arrives with the status of other errors.
//
// A value that has a destructor itself (a std::string, an object by value) is copied
// by the caller, and that copy is lost when the call raises by longjmp: pass a C string
// or a pointer.
class Table {
public:
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;
    ~Table() { release(); }

    // Stores a value under `name`, pushed as Value<T> does; a dot in the name is an
    // ordinary character. A null `const char*` removes the field. `__newindex` of the
    // table is honoured. Returns the table itself, for chains. [-0, +0, e]
    template <typename T>
    Table& set(const char* name, T value)
    {
        protect([&](lua_State* L) {
            push(L);
            Value<T>::Push(L, value);
            rawSet(L, name);
        });
        return *this;
    }

    // Stores a new table under `name` and returns it, to be filled and closed. The
    // object belongs to the Namespace that the chain began with. [-0, +0, e]
    Table& subtable(const char* name)
    {
        Table* child = nullptr;
        protect([&](lua_State* L) {
            push(L);
            lua_newtable(L);
            child = newChild(L);
            rawSet(L, name);
        });
        return *child;
    }

    // The table that this one is a subtable of; for others the table itself. [-0, +0, -]
    Table& close() { return m_parent != nullptr ? *m_parent : *this; }

    // Pushes the table on this state, which may be another coroutine. Raises only when
    // the table object is of no use any more. [-0, +1, v]
    void push(lua_State* L) const
    {
        lua_rawgetp(L, LUA_REGISTRYINDEX, m_root);
        if (!lua_istable(L, -1))
            luaL_error(L, "a namespace is used after an error or with another Lua state");
        lua_rawgetp(L, -1, this);
        lua_remove(L, -2);
    }

protected:
    // Holds nothing yet.
    explicit Table(lua_State* L) : m_state(L), m_parent(nullptr), m_root(this), m_held(false) {}

    // Takes the table on top as the root of a chain. [-1, +0, m]
    void hold(lua_State* L)
    {
        lua_newtable(L);
        lua_insert(L, -2);
        lua_rawsetp(L, -2, this);
        lua_rawsetp(L, LUA_REGISTRYINDEX, this);
        m_held = true;
    }

    // Takes the table on top into the chain of `root`. [-1, +0, m]
    void holdIn(lua_State* L, Table& root)
    {
        m_root = &root;
        lua_rawgetp(L, LUA_REGISTRYINDEX, m_root);
        lua_insert(L, -2);
        lua_rawsetp(L, -2, this);
        lua_pop(L, 1);
    }

    // Removes the chain's registry entry. Setting an existing key to nil allocates
    // nothing. [-0, +0, -]
    void release()
    {
        if (!m_held) return;
        m_held = false;
        lua_pushnil(m_state);
        lua_rawsetp(m_state, LUA_REGISTRYINDEX, this);
    }

    // Runs `body(lua_State*)`, which leaves the stack as it was, and passes an error on
    // after the registry entry is gone. [-0, +0, e]
    template <typename Body>
    void protect(Body&& body)
    {
        auto run = [&body](lua_State* L) {
            body(L);
            return 0;
        };
        if (!lua_checkstack(m_state, LUA_MINSTACK)) {
            m_root->release();
            luaL_error(m_state, "stack overflow (no room to fill a table)");
        }
        if (internal::RunProtected(m_state, run) != LUA_OK) {
            m_root->release();
            lua_error(m_state);
        }
    }

private:
    explicit Table(Table& parent)
        : m_state(parent.m_state), m_parent(&parent), m_root(parent.m_root), m_held(false)
    {
    }

    // Lua's memory, so that a skipped destructor costs nothing: the object lives as
    // long as the chain's registry entry. Its own destructor has nothing to do. The new
    // table is on top. [-0, +0, m]
    Table* newChild(lua_State* L)
    {
        lua_rawgetp(L, LUA_REGISTRYINDEX, m_root);
        Table* child = new (lua_newuserdata(L, sizeof(Table))) Table(*this);
        lua_rawseti(L, -2, static_cast<int>(lua_rawlen(L, -2)) + 1);
        lua_pushvalue(L, -2);
        lua_rawsetp(L, -2, child);
        lua_pop(L, 1);
        return child;
    }

    // Stores the value on top in the table below it, and pops it. [-1, +0, e]
    static void rawSet(lua_State* L, const char* name) { lua_setfield(L, -2, name); }

    lua_State* m_state;
    Table* m_parent;  // null but for subtables
    Table* m_root;    // the key of the chain's registry entry
    bool m_held;      // only ever true of a root
};

}  // namespace SLB3
