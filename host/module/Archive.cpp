// Diagnostic archives: vxa.ZipOutputStream and its methods, and reading them again.
#include "vxa_core/archive.h"

#include <vector>

#include "HostObject.h"
#include "Module.h"
#include "VxaCore/ZipOutputStream.h"
#include "vxa_core/archive_reader.h"

namespace vxa {

namespace {

using VxaCore::CZipOutputStream;
using VxaCore::Host::AddedEntry;
using VxaCore::Host::ArchiveEntry;

using EntryList = std::vector<ArchiveEntry>;

// More than any table of a driver takes; a script's memory holds it twice for a moment.
constexpr double kMostEntryBytes = 256.0 * 1024 * 1024;

CZipOutputStream& check_archive(lua_State* L)
{
    return check_host_object<CZipOutputStream>(L, 1, "SLB.wx.ZipOutputStream object expected");
}

int MakeArchive(lua_State* L)
{
    using Archive = CZipOutputStream::Archive;
    const auto* file = test_pending_file(L, 1);
    const char* path = file ? nullptr : check_path(L, 1);
    auto* owner = PushHostObject<CZipOutputStream>(L);
    Failure failure;
    const bool made = Guarded(
        failure, [&] { owner->Make(file ? Archive::Create(*file) : Archive::Create(path)); });
    return made ? 1 : PushFailure(L, failure);
}

int ArchiveClose(lua_State* L)
{
    CZipOutputStream& archive = check_archive(L);
    Failure failure;
    const bool closed = Guarded(failure, [&] {
        std::string error;
        if (!archive.archive().Close(error)) failure.Set(error);
    });
    return PushOutcome(L, closed, failure);
}

int ArchiveEntries(lua_State* L)
{
    const std::vector<AddedEntry>& entries = check_archive(L).archive().Entries();
    lua_createtable(L, static_cast<int>(entries.size()), 0);
    int row = 0;
    for (const AddedEntry& entry : entries) {
        lua_createtable(L, 0, 4);
        SetText(L, "name", entry.name);
        SetNumber(L, "bytes", static_cast<lua_Number>(entry.bytes));
        SetNumber(L, "seconds", entry.seconds);
        lua_pushboolean(L, entry.complete);
        lua_setfield(L, -2, "ok");
        lua_rawseti(L, -2, ++row);
    }
    return 1;
}

void PushEntry(lua_State* L, const ArchiveEntry& entry)
{
    lua_createtable(L, 0, 4);
    SetText(L, "name", entry.name);
    SetNumber(L, "bytes", static_cast<lua_Number>(entry.bytes));
    SetNumber(L, "packed_bytes", static_cast<lua_Number>(entry.packed_bytes));
    lua_pushboolean(L, entry.text);
    lua_setfield(L, -2, "text");
}

int ZipEntries(lua_State* L)
{
    const auto* file = test_pending_file(L, 1);
    const char* path = file ? nullptr : check_path(L, 1);
    auto* list = NewHolder<EntryList>(L);
    Failure failure;
    if (!Guarded(failure, [&] {
            *list = file ? VxaCore::Host::ListArchive(*file) : VxaCore::Host::ListArchive(path);
        }))
        return PushFailure(L, failure);
    lua_createtable(L, static_cast<int>(list->size()), 0);
    int row = 0;
    for (const ArchiveEntry& entry : *list) {
        PushEntry(L, entry);
        lua_rawseti(L, -2, ++row);
    }
    return 1;
}

int ZipRead(lua_State* L)
{
    const char* path = check_path(L, 1);
    std::size_t length = 0;
    const char* name = luaL_checklstring(L, 2, &length);
    const double most_bytes = luaL_optnumber(L, 3, kMostEntryBytes);
    luaL_argcheck(L, most_bytes >= 0 && most_bytes <= kMostEntryBytes, 3,
                  "a number of bytes from 0 to 268435456 expected");
    auto* bytes = NewHolder<std::string>(L);
    Failure failure;
    if (!Guarded(failure, [&] {
            *bytes = VxaCore::Host::ReadArchiveEntry(path, {name, length},
                                                     static_cast<std::uint64_t>(most_bytes));
        }))
        return PushFailure(L, failure);
    lua_pushlstring(L, bytes->data(), bytes->size());
    std::string().swap(*bytes);  // not when the collector comes to it
    return 1;
}

constexpr luaL_Reg kFunctions[] = {
    {"zip_entries", ZipEntries},
    {"zip_read", ZipRead},
    {nullptr, nullptr},
};

}  // namespace

void OpenArchive(lua_State* L)
{
    RegisterHolder<EntryList>(L);
    luaL_setfuncs(L, kFunctions, 0);
    RegisterHolder<Owner<CZipOutputStream>>(L);
    SLB3::Register<CZipOutputStream>(L);
    lua_pushcfunction(L, MakeArchive);
    lua_setfield(L, -2, "ZipOutputStream");
}

}  // namespace vxa

SLB3_IMPLEMENTATION(VxaCore::CZipOutputStream, archive)
{
    archive.set("entries", vxa::ArchiveEntries).set("close", vxa::ArchiveClose);
}
