// Files that get their name when they are complete: vxa.temporary and its methods.
#include "vxa_core/pending_file.h"

#include <memory>

#include "LuaBoundary.h"
#include "Module.h"

namespace vxa {

namespace {

using VxaCore::Host::Existing;
using VxaCore::Host::PendingFile;

using Pending = std::unique_ptr<PendingFile>;  // null once it is closed

constexpr char kType[] = "vxa_file_t*";

Pending& check_open(lua_State* L, int index)
{
    auto& file = *static_cast<Pending*>(luaL_checkudata(L, index, kType));
    if (!file) luaL_argerror(L, index, "the file is closed");
    return file;
}

int MakeTemporary(lua_State* L)
{
    const char* path = check_path(L, 1);
    auto* file = new (lua_newuserdata(L, sizeof(Pending))) Pending();
    luaL_setmetatable(L, kType);
    Failure failure;
    const bool made = Guarded(failure, [&] { *file = std::make_unique<PendingFile>(path); });
    return made ? 1 : PushFailure(L, failure);
}

int Publish(lua_State* L)
{
    Pending& file = check_open(L, 1);
    const auto existing = lua_toboolean(L, 2) ? Existing::kReplaced : Existing::kKept;
    Failure failure;
    const bool done = Guarded(failure, [&] {
        failure.Set(file->Publish(existing));
        file.reset();
    });
    return PushOutcome(L, done, failure);
}

// Also when the collector finds it. A file that was not published is gone then.
int Close(lua_State* L)
{
    static_cast<Pending*>(luaL_checkudata(L, 1, kType))->reset();
    return 0;
}

constexpr luaL_Reg kMethods[] = {
    {"publish", Publish},
    {"close", Close},
    {nullptr, nullptr},
};

}  // namespace

const PendingFile* test_pending_file(lua_State* L, int index)
{
    return luaL_testudata(L, index, kType) ? check_open(L, index).get() : nullptr;
}

void open_pending_file(lua_State* L)
{
    RegisterClass(L, kType, kMethods, Close);
    lua_pushcfunction(L, MakeTemporary);
    lua_setfield(L, -2, "temporary");
}

}  // namespace vxa
