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
    std::size_t unreadable = 0;
};

CDom& check_document(lua_State* L)
{
    return check_host_object<CDom>(L, 1, "SLB.Dom object expected");
}

int MakeDocument(lua_State* L)
{
    const char* directory = lua_isnoneornil(L, 1) ? nullptr : check_path(L, 1);
    auto* owner = PushHostObject<CDom>(L);
    Failure failure;
    const bool made = Guarded(failure, [&] {
        owner->Make(directory ? CDom::Store::InDirectory(directory) : CDom::Store::InMemory());
    });
    return made ? 1 : PushFailure(L, failure);
}

const char* check_text(lua_State* L, int index, std::size_t& length)
{
    const char* text = luaL_checklstring(L, index, &length);
    if (!VxaCore::Host::IsDocumentText({text, length}))
        luaL_argerror(L, index, "UTF-8 text without zero bytes expected");
    return text;
}

struct PushValue {
    lua_State* l;
    int operator()(std::monostate) const { return lua_pushnil(l), 1; }
    int operator()(bool value) const { return lua_pushboolean(l, value), 1; }
    int operator()(double value) const { return lua_pushnumber(l, value), 1; }
    int operator()(const std::string& value) const
    {
        return lua_pushlstring(l, value.data(), value.size()), 1;
    }
    int operator()(const VxaCore::Host::NestedValue&) const
    {
        lua_pushnil(l);
        lua_pushliteral(l, "the value is a list or an object, which scripts cannot read");
        return 2;
    }
};

int DocumentGet(lua_State* L)
{
    CDom& document = check_document(L);
    std::size_t length = 0;
    const char* key = check_text(L, 2, length);
    auto* value = NewHolder<DocumentValue>(L);
    Failure failure;
    if (!Guarded(failure, [&] { *value = document.store().Get({key, length}); }))
        return luaL_error(L, "%s", failure.text);
    return std::visit(PushValue{L}, *value);
}

// The value argument of set, looked at before anything is allocated for it.
struct Argument {
    int type;
    bool truth;
    double number;
    const char* text;
    std::size_t length;
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

DocumentValue ToValue(const Argument& argument)
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

int DocumentSet(lua_State* L)
{
    CDom& document = check_document(L);
    std::size_t length = 0;
    const char* key = check_text(L, 2, length);
    const Argument value = check_value(L, 3);
    Failure failure;
    const bool stored = Guarded(failure, [&] {
        std::string error;
        if (!document.store().Set({key, length}, ToValue(value), error)) failure.Set(error);
    });
    return PushOutcome(L, stored, failure);
}

void PushEvent(lua_State* L, const Event& event)
{
    lua_createtable(L, 0, 3);
    SetNumber(L, "id", event.id);
    SetText(L, "text", event.text);
    SetNumber(L, "time", event.time_s);
}

int DocumentEvents(lua_State* L)
{
    CDom& document = check_document(L);
    auto* list = NewHolder<EventList>(L);
    Failure failure;
    if (!Guarded(failure, [&] { list->events = document.store().Events(list->unreadable); }))
        return PushFailure(L, failure);
    lua_createtable(L, static_cast<int>(list->events.size()), 0);
    int row = 0;
    for (const Event& event : list->events) {
        PushEvent(L, event);
        lua_rawseti(L, -2, ++row);
    }
    lua_pushnumber(L, static_cast<lua_Number>(list->unreadable));
    return 2;
}

int DocumentClose(lua_State* L)
{
    CDom& document = check_document(L);
    Failure failure;
    const bool closed = Guarded(failure, [&] {
        std::string error;
        if (!document.store().Close(error)) failure.Set(error);
    });
    return PushOutcome(L, closed, failure);
}

}  // namespace

void OpenDocument(lua_State* L)
{
    RegisterHolder<Owner<CDom>>(L);
    RegisterHolder<DocumentValue>(L);
    RegisterHolder<EventList>(L);
    SLB3::Register<CDom>(L);
    lua_pushcfunction(L, MakeDocument);
    lua_setfield(L, -2, "Dom");
}

}  // namespace vxa

SLB3_IMPLEMENTATION(VxaCore::CDom, document)
{
    document.set("get", vxa::DocumentGet)
        .set("set", vxa::DocumentSet)
        .set("events", vxa::DocumentEvents)
        .set("close", vxa::DocumentClose);
}
