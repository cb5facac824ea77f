// Files that get their name when they are complete: vxa.temporary and its methods.
#include <memory>

#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Values.h"
#include "vxa_core/pending_file.h"

namespace vxa {

namespace {

using VxaCore::Host::IfExists;
using VxaCore::Host::PendingFile;

using FileHolder = std::unique_ptr<PendingFile>;  // null once it is closed

constexpr char kType[] = "vxa_file_t*";

FileHolder& CheckOpen(lua_State* L, int index)
{
    auto& file = *static_cast<FileHolder*>(luaL_checkudata(L, index, kType));
    if (!file) luaL_argerror(L, index, "the file is closed");
    return file;
}

int MakeTemporary(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    auto* file = new (lua_newuserdata(L, sizeof(FileHolder))) FileHolder();
    luaL_setmetatable(L, kType);
    return SucceedsOrPushError(L, [&] { *file = std::make_unique<PendingFile>(path); })
               ? 1
               : kErrorResults;
}

int Write(lua_State* L)
{
    FileHolder& file = CheckOpen(L, 1);
    const std::string_view bytes = CheckBytes(L, 2);
    return PushSuccess(L, [&] { file->Write(bytes); });
}

int Publish(lua_State* L)
{
    FileHolder& file = CheckOpen(L, 1);
    const auto if_exists = lua_toboolean(L, 2) ? IfExists::kReplace : IfExists::kFail;
    return PushSuccess(L, [&] {
        const FileHolder closed_afterwards = std::move(file);
        closed_afterwards->Publish(if_exists);
    });
}

// Also for the collector. A file that was not published is gone then.
int Close(lua_State* L)
{
    static_cast<FileHolder*>(luaL_checkudata(L, 1, kType))->reset();
    return 0;
}

constexpr luaL_Reg kMethods[] = {
    {"write", Write},
    {"publish", Publish},
    {"close", Close},
    {nullptr, nullptr},
};

}  // namespace

PendingFile* TestPendingFile(lua_State* L, int index)
{
    return luaL_testudata(L, index, kType) ? CheckOpen(L, index).get() : nullptr;
}

void OpenTemporaryFiles(lua_State* L)
{
    RegisterClass(L, kType, kMethods, Close);
    lua_pushcfunction(L, MakeTemporary);
    lua_setfield(L, -2, "temporary");
}

}  // namespace vxa
