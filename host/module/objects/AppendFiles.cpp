// Files that grow by whole records: vxa.append_file and its methods.
#include <cstring>
#include <memory>

#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Holder.h"
#include "boundary/Values.h"
#include "vxa_core/append_file.h"

namespace vxa {

namespace {

using VxaCore::Host::AppendFile;

using FileHolder = std::unique_ptr<AppendFile>;  // null once it is closed

constexpr char kType[] = "vxa_append_file_t*";
constexpr lua_Number kMostHeadBytes = 1 << 20;

AppendFile& CheckOpen(lua_State* L)
{
    auto& file = *static_cast<FileHolder*>(luaL_checkudata(L, 1, kType));
    if (!file) luaL_argerror(L, 1, "the file is closed");
    return *file;
}

int OpenAppendFile(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    auto* file = new (lua_newuserdata(L, sizeof(FileHolder))) FileHolder();
    luaL_setmetatable(L, kType);
    return SucceedsOrPushError(L, [&] { *file = std::make_unique<AppendFile>(path); })
               ? 1
               : kErrorResults;
}

int Head(lua_State* L)
{
    const AppendFile& file = CheckOpen(L);
    const lua_Number most_bytes = luaL_checknumber(L, 2);
    luaL_argcheck(L, most_bytes >= 0 && most_bytes <= kMostHeadBytes, 2,
                  "a number of bytes up to 1048576 expected");
    auto* bytes = NewHolder<std::string>(L);
    const auto read = [&] { *bytes = file.Head(static_cast<std::size_t>(most_bytes)); };
    if (!SucceedsOrPushError(L, read)) return kErrorResults;
    PushAndFree(L, *bytes);
    return 1;
}

// Pushes what the function returns, or nil and the message if it throws.
template <typename Function>
int PushCount(lua_State* L, Function&& function)
{
    std::uint64_t count = 0;
    if (!SucceedsOrPushError(L, [&] { count = function(); })) return kErrorResults;
    lua_pushnumber(L, static_cast<lua_Number>(count));
    return 1;
}

int CutPartialLine(lua_State* L)
{
    AppendFile& file = CheckOpen(L);
    return PushCount(L, [&] { return file.CutPartialLine(); });
}

int Write(lua_State* L)
{
    AppendFile& file = CheckOpen(L);
    const std::string_view record = CheckBytes(L, 2);
    return PushSuccess(L, [&] { file.Write(record); });
}

int Sync(lua_State* L)
{
    AppendFile& file = CheckOpen(L);
    return PushSuccess(L, [&] { file.Sync(); });
}

int Size(lua_State* L)
{
    const AppendFile& file = CheckOpen(L);
    return PushCount(L, [&] { return file.Size(); });
}

int HasName(lua_State* L)
{
    lua_pushboolean(L, CheckOpen(L).HasName());
    return 1;
}

int Rename(lua_State* L)
{
    AppendFile& file = CheckOpen(L);
    const char* suffix = luaL_checkstring(L, 2);
    luaL_argcheck(L, std::strchr(suffix, '/') == nullptr, 2, "a suffix without '/' expected");
    return PushSuccess(L, [&] { file.Rename(suffix); });
}

// is_appended_to(path)
int IsAppendedTo(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    bool is_locked = false;
    if (!SucceedsOrPushError(L, [&] { is_locked = VxaCore::Host::IsAppendedTo(path); }))
        return kErrorResults;
    lua_pushboolean(L, is_locked);
    return 1;
}

// Also for the collector.
int Close(lua_State* L)
{
    static_cast<FileHolder*>(luaL_checkudata(L, 1, kType))->reset();
    return 0;
}

constexpr luaL_Reg kMethods[] = {
    {"head", Head},     {"cut_partial_line", CutPartialLine},
    {"write", Write},   {"sync", Sync},
    {"size", Size},     {"has_name", HasName},
    {"rename", Rename}, {"close", Close},
    {nullptr, nullptr},
};

}  // namespace

void OpenAppendFiles(lua_State* L)
{
    RegisterHolder<std::string>(L);
    RegisterClass(L, kType, kMethods, Close);
    lua_pushcfunction(L, OpenAppendFile);
    lua_setfield(L, -2, "append_file");
    lua_pushcfunction(L, IsAppendedTo);
    lua_setfield(L, -2, "is_appended_to");
}

}  // namespace vxa
