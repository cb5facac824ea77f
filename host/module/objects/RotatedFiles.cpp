// Logs of bounded size: vxa.rotated_file and its methods.
#include <memory>

#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Holder.h"
#include "boundary/Values.h"
#include "vxa_core/rotated_file.h"

namespace vxa {

namespace {

using VxaCore::Host::RotatedFile;

using FileHolder = std::unique_ptr<RotatedFile>;  // null once it is closed

constexpr char kType[] = "vxa_rotated_file_t*";
constexpr lua_Number kMostBytes = 1e15;
constexpr lua_Number kMostKept = 1000;

RotatedFile& CheckOpen(lua_State* L)
{
    auto& file = *static_cast<FileHolder*>(luaL_checkudata(L, 1, kType));
    if (!file) luaL_argerror(L, 1, "the file is closed");
    return *file;
}

lua_Number CheckCount(lua_State* L, int index, lua_Number most)
{
    const lua_Number count = luaL_checknumber(L, index);
    luaL_argcheck(L, count >= 0 && count <= most, index, "out of bounds");
    return count;
}

// rotated_file(path, head, most_bytes, kept, compressed)
int OpenRotatedFile(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    const std::string_view head = CheckBytes(L, 2);
    const VxaCore::Host::RotationLimits limits{
        static_cast<std::uint64_t>(CheckCount(L, 3, kMostBytes)),
        static_cast<int>(CheckCount(L, 4, kMostKept)), lua_toboolean(L, 5) != 0};
    auto* file = new (lua_newuserdata(L, sizeof(FileHolder))) FileHolder();
    luaL_setmetatable(L, kType);
    const auto open = [&] {
        *file = std::make_unique<RotatedFile>(path, std::string(head), limits);
    };
    return SucceedsOrPushError(L, open) ? 1 : kErrorResults;
}

// file:write(bytes): true, and why it could not be rotated; or nil and the message
int Write(lua_State* L)
{
    RotatedFile& file = CheckOpen(L);
    const std::string_view record = CheckBytes(L, 2);
    auto* failure = NewHolder<std::string>(L);
    if (!SucceedsOrPushError(L, [&] { *failure = file.Write(record); })) return kErrorResults;
    lua_pushboolean(L, 1);
    if (failure->empty()) return 1;
    PushAndFree(L, *failure);
    return 2;
}

int Sync(lua_State* L)
{
    RotatedFile& file = CheckOpen(L);
    return PushSuccess(L, [&] { file.Sync(); });
}

// file:compress(): whether there is more to compress; or nil and the message
int Compress(lua_State* L)
{
    RotatedFile& file = CheckOpen(L);
    bool has_more = false;
    if (!SucceedsOrPushError(L, [&] { has_more = file.Compress(); })) return kErrorResults;
    lua_pushboolean(L, has_more);
    return 1;
}

// Also for the collector.
int Close(lua_State* L)
{
    static_cast<FileHolder*>(luaL_checkudata(L, 1, kType))->reset();
    return 0;
}

constexpr luaL_Reg kMethods[] = {
    {"write", Write}, {"sync", Sync}, {"compress", Compress}, {"close", Close}, {nullptr, nullptr},
};

}  // namespace

void OpenRotatedFiles(lua_State* L)
{
    RegisterHolder<std::string>(L);
    RegisterClass(L, kType, kMethods, Close);
    lua_pushcfunction(L, OpenRotatedFile);
    lua_setfield(L, -2, "rotated_file");
}

}  // namespace vxa
