// Parsing the JSON values of a long string one by one: vxa.parse_json.
#include "Module.h"
#include "boundary/Holder.h"
#include "vxa_core/json.h"

namespace vxa {

namespace {

using VxaCore::Host::JsonItem;

// Stack indices of the arguments of ParseJson.
constexpr int kText = 1;
constexpr int kPosition = 2;
constexpr int kNull = 3;
constexpr int kObjectMetatable = 4;

void PushJson(lua_State* L, const cJSON* item);

// [-0, +1, m]
void PushArray(lua_State* L, const cJSON* array)
{
    lua_newtable(L);
    int index = 0;
    for (const cJSON* element = array->child; element; element = element->next) {
        PushJson(L, element);
        lua_rawseti(L, -2, ++index);
    }
}

// [-0, +1, m]
void PushObject(lua_State* L, const cJSON* object)
{
    lua_newtable(L);
    for (const cJSON* member = object->child; member; member = member->next) {
        lua_pushstring(L, member->string);
        PushJson(L, member);
        lua_rawset(L, -3);
    }
    lua_pushvalue(L, kObjectMetatable);
    lua_setmetatable(L, -2);
}

// cJSON parses at most 1000 nested values (CJSON_NESTING_LIMIT). [-0, +1, m]
void PushJson(lua_State* L, const cJSON* item)
{
    luaL_checkstack(L, 4, "JSON is nested too deeply");
    if (cJSON_IsArray(item))
        PushArray(L, item);
    else if (cJSON_IsObject(item))
        PushObject(L, item);
    else if (cJSON_IsString(item))
        lua_pushstring(L, item->valuestring);
    else if (cJSON_IsNumber(item))
        lua_pushnumber(L, item->valuedouble);
    else if (cJSON_IsBool(item))
        lua_pushboolean(L, cJSON_IsTrue(item));
    else
        lua_pushvalue(L, kNull);
}

// parse_json(text, position, null, object): the position after the value, and the value; nothing
// if there is none.
int ParseJson(lua_State* L)
{
    std::size_t length = 0;
    const char* text = luaL_checklstring(L, kText, &length);
    const double position = luaL_checknumber(L, kPosition);
    luaL_argcheck(L, position >= 1 && position <= static_cast<double>(length) + 1, kPosition,
                  "a position in the string expected");
    luaL_checkany(L, kNull);
    luaL_checktype(L, kObjectMetatable, LUA_TTABLE);
    lua_settop(L, kObjectMetatable);
    auto* item = NewHolder<JsonItem>(L);
    const char* end = nullptr;
    const std::size_t skipped = static_cast<std::size_t>(position) - 1;
    item->reset(cJSON_ParseWithLengthOpts(text + skipped, length - skipped, &end, false));
    if (!*item) return 0;
    lua_pushnumber(L, static_cast<lua_Number>(end - text + 1));
    PushJson(L, item->get());
    item->reset();  // now: a long string has many values
    return 2;
}

constexpr luaL_Reg kFunctions[] = {
    {"parse_json", ParseJson},
    {nullptr, nullptr},
};

}  // namespace

void OpenJsonValues(lua_State* L)
{
    RegisterHolder<JsonItem>(L);
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
