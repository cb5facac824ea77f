// Host documents: vxa.Dom and its methods.
#include <errno.h>

#include <cmath>
#include <variant>

#include "Module.h"
#include "VxaCore/Dom.h"
#include "boundary/Exceptions.h"
#include "boundary/HostObject.h"
#include "boundary/Values.h"
#include "vxa_core/document.h"
#include "vxa_core/text.h"

namespace vxa {

namespace {

using VxaCore::CDom;
using VxaCore::Host::DocumentValue;
using VxaCore::Host::Event;
using VxaCore::Host::EventList;

CDom& CheckDocument(lua_State* L)
{
    return CheckHostObject<CDom>(L, 1, "SLB.Dom object expected");
}

int MakeDocument(lua_State* L)
{
    const char* directory = lua_isnoneornil(L, 1) ? nullptr : CheckPath(L, 1);
    auto* owner = PushHostObject<CDom>(L);
    const bool is_made = SucceedsOrPushError(L, [&] {
        owner->Construct(directory ? CDom::Store::InDirectory(directory) : CDom::Store::InMemory());
    });
    return is_made ? 1 : kErrorResults;
}

std::string_view CheckText(lua_State* L, int index)
{
    const std::string_view text = CheckBytes(L, index);
    if (!VxaCore::Host::IsPlainUtf8(text))
        luaL_argerror(L, index, "UTF-8 string without NUL bytes expected");
    return text;
}

// Pushes the results of get. [-0, +(1|3), m]
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
        return PushError(l, "the value is a list or an object, which scripts cannot read", EINVAL);
    }
};

int DocumentGet(lua_State* L)
{
    CDom& document = CheckDocument(L);
    const std::string_view key = CheckText(L, 2);
    auto* value = NewHolder<DocumentValue>(L);
    CallOrRaise(L, [&] { *value = document.store().Get(std::string(key)); });
    return std::visit(PushValue{L}, *value);
}

// The value argument of set, checked before anything is allocated for it.
struct Argument {
    int type;
    bool truth;
    double number;
    std::string_view text;
};

Argument CheckValue(lua_State* L, int index)
{
    Argument value{lua_type(L, index), lua_toboolean(L, index) != 0, 0, {}};
    if (value.type == LUA_TNUMBER) {
        value.number = lua_tonumber(L, index);
        luaL_argcheck(L, std::isfinite(value.number), index, "finite number expected");
    } else if (value.type == LUA_TSTRING) {
        value.text = CheckText(L, index);
    } else if (value.type != LUA_TBOOLEAN && value.type != LUA_TNIL) {
        luaL_argerror(L, index, "boolean, number, string or nil expected");
    }
    return value;
}

DocumentValue ToDocumentValue(const Argument& argument)
{
    switch (argument.type) {
        case LUA_TBOOLEAN:
            return argument.truth;
        case LUA_TNUMBER:
            return argument.number;
        case LUA_TSTRING:
            return std::string(argument.text);
        default:
            return std::monostate();
    }
}

int DocumentSet(lua_State* L)
{
    CDom& document = CheckDocument(L);
    const std::string_view key = CheckText(L, 2);
    const Argument value = CheckValue(L, 3);
    return PushSuccess(L, [&] { document.store().Set(std::string(key), ToDocumentValue(value)); });
}

void PushEvent(lua_State* L, const Event& event)
{
    lua_createtable(L, 0, 3);
    SetNumber(L, "id", event.id);
    SetString(L, "text", event.text);
    SetNumber(L, "time", event.time_s);
}

int DocumentEvents(lua_State* L)
{
    CDom& document = CheckDocument(L);
    auto* list = NewHolder<EventList>(L);
    if (!SucceedsOrPushError(L, [&] { *list = document.store().Events(); })) return kErrorResults;
    PushArray(L, list->events, PushEvent);
    lua_pushnumber(L, static_cast<lua_Number>(list->unreadable));
    return 2;
}

int DocumentClose(lua_State* L)
{
    CDom& document = CheckDocument(L);
    return PushSuccess(L, [&] { document.store().Close(); });
}

}  // namespace

void OpenDocuments(lua_State* L)
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
