// Host documents: vxa.Dom and its methods.
#include <cmath>
#include <variant>
#include <vector>

#include "HostObject.h"
#include "Module.h"
#include "VxaCore/Dom.h"
#include "vxa_core/document.h"
#include "vxa_core/files.h"

namespace vxa {

namespace {

using VxaCore::CDom;
using VxaCore::Host::DocumentValue;
using VxaCore::Host::Event;

struct EventList {
    std::vector<Event> events;
    size_t unreadable = 0;
};

CDom& check_document(lua_State* L)
{
    return check_host_object<CDom>(L, 1, "SLB.Dom object expected");
}

int make_document(lua_State* L)
{
    const char* directory = lua_isnoneornil(L, 1) ? nullptr : check_path(L, 1);
    auto* owner = push_host_object<CDom>(L);
    Failure failure;
    const bool made = guarded(failure, [&] {
        owner->make(directory ? CDom::Store::InDirectory(directory) : CDom::Store::InMemory());
    });
    return made ? 1 : push_failure(L, failure);
}

const char* check_text(lua_State* L, int index, size_t& length)
{
    const char* text = luaL_checklstring(L, index, &length);
    if (!VxaCore::Host::IsDocumentText({text, length}))
        luaL_argerror(L, index, "UTF-8 text without zero bytes expected");
    return text;
}

struct PushValue {
    lua_State* L;
    int operator()(std::monostate) const { return lua_pushnil(L), 1; }
    int operator()(bool value) const { return lua_pushboolean(L, value), 1; }
    int operator()(double value) const { return lua_pushnumber(L, value), 1; }
    int operator()(const std::string& value) const
    {
        return lua_pushlstring(L, value.data(), value.size()), 1;
    }
    int operator()(const VxaCore::Host::NestedValue&) const
    {
        lua_pushnil(L);
        lua_pushliteral(L, "the value is a list or an object, which scripts cannot read");
        return 2;
    }
};

int document_get(lua_State* L)
{
    CDom& document = check_document(L);
    size_t length = 0;
    const char* key = check_text(L, 2, length);
    auto* value = new_holder<DocumentValue>(L);
    Failure failure;
    if (!guarded(failure, [&] { *value = document.store().Get({key, length}); }))
        return luaL_error(L, "%s", failure.text);
    return std::visit(PushValue{L}, *value);
}

// The value argument of set, looked at before anything is allocated for it.
struct Argument {
    int type;
    bool truth;
    double number;
    const char* text;
    size_t length;
};

Argument check_value(lua_State* L, int index)
{
    Argument value{lua_type(L, index), lua_toboolean(L, index) != 0, 0, nullptr, 0};
    if (value.type == LUA_TNUMBER) {
        value.number = lua_tonumber(L, index);
        luaL_argcheck(L, std::isfinite(value.number), index, "finite number expected");
    } else if (value.type == LUA_TSTRING) {
        value.text = check_text(L, index, value.length);
    } else if (value.type != LUA_TBOOLEAN && value.type != LUA_TNIL) {
        luaL_argerror(L, index, "boolean, number, text or nil expected");
    }
    return value;
}

DocumentValue to_value(const Argument& argument)
{
    switch (argument.type) {
        case LUA_TBOOLEAN:
            return argument.truth;
        case LUA_TNUMBER:
            return argument.number;
        case LUA_TSTRING:
            return std::string(argument.text, argument.length);
        default:
            return std::monostate();
    }
}

int document_set(lua_State* L)
{
    CDom& document = check_document(L);
    size_t length = 0;
    const char* key = check_text(L, 2, length);
    const Argument value = check_value(L, 3);
    Failure failure;
    const bool stored = guarded(failure, [&] {
        std::string error;
        if (!document.store().Set({key, length}, to_value(value), error)) failure.set(error);
    });
    return push_outcome(L, stored, failure);
}

void push_event(lua_State* L, const Event& event)
{
    lua_createtable(L, 0, 3);
    set_number(L, "id", event.id);
    set_text(L, "text", event.text);
    set_number(L, "time", event.time_s);
}

int document_events(lua_State* L)
{
    CDom& document = check_document(L);
    auto* list = new_holder<EventList>(L);
    Failure failure;
    if (!guarded(failure, [&] { list->events = document.store().Events(list->unreadable); }))
        return push_failure(L, failure);
    lua_createtable(L, static_cast<int>(list->events.size()), 0);
    int row = 0;
    for (const Event& event : list->events) {
        push_event(L, event);
        lua_rawseti(L, -2, ++row);
    }
    lua_pushnumber(L, static_cast<lua_Number>(list->unreadable));
    return 2;
}

int document_close(lua_State* L)
{
    CDom& document = check_document(L);
    Failure failure;
    const bool closed = guarded(failure, [&] {
        std::string error;
        if (!document.store().Close(error)) failure.set(error);
    });
    return push_outcome(L, closed, failure);
}

}  // namespace

void open_document(lua_State* L)
{
    register_holder<Owner<CDom>>(L);
    register_holder<DocumentValue>(L);
    register_holder<EventList>(L);
    SLB3::Register<CDom>(L);
    lua_pushcfunction(L, make_document);
    lua_setfield(L, -2, "Dom");
}

}  // namespace vxa

SLB3_IMPLEMENTATION(VxaCore::CDom, document)
{
    document.set("get", vxa::document_get)
        .set("set", vxa::document_set)
        .set("events", vxa::document_events)
        .set("close", vxa::document_close);
}
