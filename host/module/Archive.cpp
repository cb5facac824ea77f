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
using VxaCore::Host::ArchiveEntry;

using EntryList = std::vector<ArchiveEntry>;

// More than any table of a driver takes; a script's memory holds it twice for a moment.
constexpr double kMostEntryBytes = 256.0 * 1024 * 1024;

CZipOutputStream& check_archive(lua_State* L)
{
    return check_host_object<CZipOutputStream>(L, 1, "SLB.wx.ZipOutputStream object expected");
}

int make_archive(lua_State* L)
{
    using Archive = CZipOutputStream::Archive;
    const auto* file = test_pending_file(L, 1);
    const char* path = file ? nullptr : check_path(L, 1);
    auto* owner = push_host_object<CZipOutputStream>(L);
    Failure failure;
    const bool made = guarded(
        failure, [&] { owner->make(file ? Archive::Create(*file) : Archive::Create(path)); });
    return made ? 1 : push_failure(L, failure);
}

int archive_close(lua_State* L)
{
    CZipOutputStream& archive = check_archive(L);
    Failure failure;
    const bool closed = guarded(failure, [&] {
        std::string error;
        if (!archive.archive().Close(error)) failure.set(error);
    });
    return push_outcome(L, closed, failure);
}

void push_entry(lua_State* L, const ArchiveEntry& entry)
{
    lua_createtable(L, 0, 4);
    set_text(L, "name", entry.name);
    set_number(L, "bytes", static_cast<lua_Number>(entry.bytes));
    set_number(L, "packed_bytes", static_cast<lua_Number>(entry.packed_bytes));
    lua_pushboolean(L, entry.text);
    lua_setfield(L, -2, "text");
}

int zip_entries(lua_State* L)
{
    const auto* file = test_pending_file(L, 1);
    const char* path = file ? nullptr : check_path(L, 1);
    auto* list = new_holder<EntryList>(L);
    Failure failure;
    if (!guarded(failure, [&] {
            *list = file ? VxaCore::Host::ListArchive(*file) : VxaCore::Host::ListArchive(path);
        }))
        return push_failure(L, failure);
    lua_createtable(L, static_cast<int>(list->size()), 0);
    int row = 0;
    for (const ArchiveEntry& entry : *list) {
        push_entry(L, entry);
        lua_rawseti(L, -2, ++row);
    }
    return 1;
}

int zip_read(lua_State* L)
{
    const char* path = check_path(L, 1);
    size_t length = 0;
    const char* name = luaL_checklstring(L, 2, &length);
    const double most_bytes = luaL_optnumber(L, 3, kMostEntryBytes);
    luaL_argcheck(L, most_bytes >= 0 && most_bytes <= kMostEntryBytes, 3,
                  "a number of bytes from 0 to 268435456 expected");
    auto* bytes = new_holder<std::string>(L);
    Failure failure;
    if (!guarded(failure, [&] {
            *bytes = VxaCore::Host::ReadArchiveEntry(path, {name, length},
                                                     static_cast<std::uint64_t>(most_bytes));
        }))
        return push_failure(L, failure);
    lua_pushlstring(L, bytes->data(), bytes->size());
    std::string().swap(*bytes);  // not when the collector comes to it
    return 1;
}

constexpr luaL_Reg kFunctions[] = {
    {"zip_entries", zip_entries},
    {"zip_read", zip_read},
    {nullptr, nullptr},
};

}  // namespace

void open_archive(lua_State* L)
{
    register_holder<EntryList>(L);
    luaL_setfuncs(L, kFunctions, 0);
    register_holder<Owner<CZipOutputStream>>(L);
    SLB3::Register<CZipOutputStream>(L);
    lua_pushcfunction(L, make_archive);
    lua_setfield(L, -2, "ZipOutputStream");
}

}  // namespace vxa

SLB3_IMPLEMENTATION(VxaCore::CZipOutputStream, archive)
{
    archive.set("close", vxa::archive_close);
}
