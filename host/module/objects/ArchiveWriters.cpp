// Diagnostic archive writers: vxa.ZipOutputStream and its methods.
#include "Module.h"
#include "VxaCore/ZipOutputStream.h"
#include "boundary/Exceptions.h"
#include "boundary/HostObject.h"
#include "boundary/Values.h"
#include "vxa_core/archive.h"

namespace vxa {

namespace {

using VxaCore::CZipOutputStream;
using VxaCore::Host::AddedEntry;

CZipOutputStream& CheckArchive(lua_State* L)
{
    return CheckHostObject<CZipOutputStream>(L, 1, "SLB.wx.ZipOutputStream object expected");
}

int MakeArchive(lua_State* L)
{
    using Archive = CZipOutputStream::Archive;
    const auto* file = TestPendingFile(L, 1);
    const char* path = file ? nullptr : CheckPath(L, 1);
    auto* owner = PushHostObject<CZipOutputStream>(L);
    const bool is_made = SucceedsOrPushError(
        L, [&] { owner->Construct(file ? Archive::Create(*file) : Archive::Create(path)); });
    return is_made ? 1 : kErrorResults;
}

void PushEntry(lua_State* L, const AddedEntry& entry)
{
    lua_createtable(L, 0, 5);
    SetString(L, "name", entry.name);
    SetNumber(L, "bytes", static_cast<lua_Number>(entry.bytes));
    SetString(L, "sha256", entry.sha256);
    SetNumber(L, "seconds", entry.seconds);
    SetBoolean(L, "ok", entry.is_complete);
}

int ArchiveEntries(lua_State* L)
{
    PushArray(L, CheckArchive(L).archive().Entries(), PushEntry);
    return 1;
}

int ArchiveAdd(lua_State* L)
{
    CZipOutputStream& archive = CheckArchive(L);
    const std::string_view name = CheckBytes(L, 2);
    const std::string_view bytes = CheckBytes(L, 3);
    return PushSuccess(L, [&] { archive.archive().AddBytes(std::string(name), bytes); });
}

int ArchiveClose(lua_State* L)
{
    CZipOutputStream& archive = CheckArchive(L);
    return PushSuccess(L, [&] { archive.archive().Close(); });
}

}  // namespace

void OpenArchiveWriters(lua_State* L)
{
    RegisterHolder<Owner<CZipOutputStream>>(L);
    SLB3::Register<CZipOutputStream>(L);
    lua_pushcfunction(L, MakeArchive);
    lua_setfield(L, -2, "ZipOutputStream");
}

}  // namespace vxa

SLB3_IMPLEMENTATION(VxaCore::CZipOutputStream, archive)
{
    archive.set("add", vxa::ArchiveAdd)
        .set("entries", vxa::ArchiveEntries)
        .set("close", vxa::ArchiveClose);
}
