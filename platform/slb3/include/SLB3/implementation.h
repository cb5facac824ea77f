// Registering classes and their methods.
//
//     SLB3_IMPLEMENTATION(Dog, dog)                 // at global scope, in one source
//     {
//         dog.constructor<const char*>()
//             .set("bark", &Dog::Bark)
//             .setMetamethod("__len", &Dog::Age);
//     }
#pragma once

#include "SLB3/config.h"
#include "SLB3/declaration.h"
#include "SLB3/namespace.h"
#include "SLB3/value.h"

namespace SLB3 {
namespace internal {

// `__gc` and `__eq` carry the class's metatable as their upvalue: scripts can call
// them with anything, and finding the metatable by name would need memory just when
// an instance is to be freed. [-0, +0, -]
inline ObjHeader* OwnObject(lua_State* L, int index)
{
    if (lua_type(L, index) != LUA_TUSERDATA || !lua_getmetatable(L, index)) return nullptr;
    const bool own = lua_rawequal(L, -1, lua_upvalueindex(1)) != 0;
    lua_pop(L, 1);
    if (!own || lua_rawlen(L, index) < sizeof(ObjHeader)) return nullptr;
    return static_cast<ObjHeader*>(lua_touserdata(L, index));
}

template <typename T>
int CollectObject(lua_State* L)
{
    typedef typename Wrapper<T>::Policy::template Implementation<T> Implementation;
    ObjHeader* object = OwnObject(L, 1);
    if (object != nullptr && object->type == kInstance) {
        void* instance = Unpack(*object);
        object->type = kInvalid;
        Implementation::Destroy(instance);
    }
    return 0;
}

inline int SameObject(lua_State* L)
{
    ObjHeader* left = OwnObject(L, 1);
    ObjHeader* right = OwnObject(L, 2);
    const void* object = left != nullptr ? Unpack(*left) : nullptr;
    // What is gone, or was null from the start, is the same as nothing else.
    lua_pushboolean(L, object != nullptr && right != nullptr && object == Unpack(*right));
    return 1;
}

// `__call` of the class table, which is the first argument.
template <typename T, typename... Args>
int ConstructObject(lua_State* L)
{
    auto make = [](auto&&... args) { return T(std::forward<decltype(args)>(args)...); };
    return Invoke<T, Args...>(L, 2, make, std::index_sequence_for<Args...>());
}

class Metatable : public Table {
public:
    explicit Metatable(lua_State* L) : Table(L) {}
    using Table::holdIn;
};

// What SLB3_IMPLEMENTATION fills: the class table that scripts see, and the metatable
// of the objects. Each call is [-0, +0, e] and returns the class itself.
template <typename T>
class Class : public Namespace {
public:
    explicit Class(lua_State* L) : Namespace(L), m_metatable(L) {}

    // Makes the class table callable: a new instance from these arguments.
    template <typename... Args>
    Class& constructor()
    {
        static_assert(Wrapper<T>::Policy::kInstances,
                      "scripts hold only pointers to a class of the policy NoDelete");
        protect([this](lua_State* L) {
            push(L);
            lua_createtable(L, 0, 1);
            lua_pushcfunction(L, (&ConstructObject<T, Args...>));
            lua_setfield(L, -2, "__call");
            lua_setmetatable(L, -2);
        });
        return *this;
    }

    // A field of the class table: what objects answer to as a method.
    template <typename V>
    Class& set(const char* name, V value)
    {
        Namespace::set(name, value);
        return *this;
    }

    // A field of the objects' metatable. It may replace those made at registration;
    // `__class` must stay.
    template <typename V>
    Class& setMetamethod(const char* name, V value)
    {
        m_metatable.set(name, value);
        return *this;
    }

    // Opens both tables; the metatable is in the registry and recognised from here on.
    void open(lua_State* L)
    {
        const char* name = Wrapper<T>::GetName();
        luaL_newmetatable(L, name);
        lua_pushstring(L, name);
        lua_setfield(L, -2, "__class");
        Namespace::open(L, name);
        push(L);
        lua_setfield(L, -2, "__index");
        setOwn(L, "__eq", SameObject);
        if constexpr (Wrapper<T>::Policy::kInstances) setOwn(L, "__gc", CollectObject<T>);
        m_metatable.holdIn(L, *this);
    }

private:
    static void setOwn(lua_State* L, const char* name, lua_CFunction function)
    {
        lua_pushvalue(L, -1);
        lua_pushcclosure(L, function, 1);
        lua_setfield(L, -2, name);
    }

    Metatable m_metatable;
};

// Whether the registry has the class; an error when the name belongs to a metatable
// of something else. [-0, +0, v]
inline bool IsRegistered(lua_State* L, const char* name)
{
    PushRegistered(L, name);
    const bool found = !lua_isnil(L, -1);
    if (found && !(lua_istable(L, -1) && IsClassMetatable(L, -1)))
        luaL_error(L, "the name '%s' is taken by a metatable that is no SLB3 class", name);
    lua_pop(L, 1);
    return found;
}

// Takes a half-registered class out of the registry. The name and an error value are
// on top. [-2, +1, m]
inline void Unregister(lua_State* L)
{
    lua_insert(L, -2);
    lua_pushvalue(L, -1);
    lua_rawget(L, LUA_REGISTRYINDEX);
    const bool published = !lua_isnil(L, -1);
    lua_pop(L, 1);
    if (published) {
        lua_pushnil(L);
        lua_rawset(L, LUA_REGISTRYINDEX);
    } else {
        lua_pop(L, 1);
    }
}

}  // namespace internal

template <typename T>
void Register(lua_State* L)
{
    const char* name = Wrapper<T>::GetName();
    luaL_checkstack(L, 8, "no room to register a class");
    if (internal::IsRegistered(L, name)) return;
    // Pushed beforehand: removing the class again must not need memory.
    lua_pushstring(L, name);
    int status = LUA_OK;
    {
        internal::Class<T> registered(L);
        auto body = [&registered](lua_State* S) {
            registered.open(S);
            internal::Guarded(S, [&registered] { Wrapper<T>::Register(registered); });
            return 0;
        };
        status = internal::RunProtected(L, body);
    }
    if (status != LUA_OK) {
        internal::Unregister(L);
        lua_error(L);
    }
    lua_pop(L, 1);
}

}  // namespace SLB3

#define SLB3_IMPLEMENTATION(Type, Variable) \
    void SLB3::Wrapper<Type>::Register(SLB3::internal::Class<Type>& Variable)
