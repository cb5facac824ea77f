// Reading zip archives: vxa.zip_entries, vxa.zip_read, and vxa.zip_reader with its methods.
#include <memory>
#include <optional>
#include <vector>

#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Holder.h"
#include "boundary/Values.h"
#include "vxa_core/archive_reader.h"

namespace vxa {

namespace {

using VxaCore::Host::ArchiveEntry;

using EntryList = std::vector<ArchiveEntry>;

// Larger than any driver table; while it is pushed, the bytes are in memory twice.
constexpr double kMostEntryBytes = 256.0 * 1024 * 1024;

void PushEntry(lua_State* L, const ArchiveEntry& entry)
{
    lua_createtable(L, 0, 4);
    SetString(L, "name", entry.name);
    SetNumber(L, "bytes", static_cast<lua_Number>(entry.bytes));
    SetNumber(L, "packed_bytes", static_cast<lua_Number>(entry.packed_bytes));
    SetBoolean(L, "text", entry.text);
}

int ZipEntries(lua_State* L)
{
    using VxaCore::Host::ListArchive;
    const auto* file = TestPendingFile(L, 1);
    const char* path = file ? nullptr : CheckPath(L, 1);
    auto* list = NewHolder<EntryList>(L);
    if (!SucceedsOrPushError(L, [&] { *list = file ? ListArchive(*file) : ListArchive(path); }))
        return kErrorResults;
    PushArray(L, *list, PushEntry);
    return 1;
}

int ZipRead(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    const std::string_view name = CheckBytes(L, 2);
    const double most_bytes = luaL_optnumber(L, 3, kMostEntryBytes);
    luaL_argcheck(L, most_bytes >= 0 && most_bytes <= kMostEntryBytes, 3,
                  "a number of bytes from 0 to 268435456 expected");
    auto* bytes = NewHolder<std::string>(L);
    const bool is_read = SucceedsOrPushError(L, [&] {
        *bytes = VxaCore::Host::ReadArchiveEntry(path, std::string(name),
                                                 static_cast<std::uint64_t>(most_bytes));
    });
    if (!is_read) return kErrorResults;
    PushAndFree(L, *bytes);
    return 1;
}

// ---- zip_reader ---------------------------------------------------------------------------

using ReaderHolder = std::unique_ptr<VxaCore::Host::ArchiveReader>;  // null once it is closed
using NextEntry = std::optional<ArchiveEntry>;

constexpr char kReaderType[] = "vxa_zip_reader_t*";

ReaderHolder& CheckReader(lua_State* L)
{
    auto& reader = *static_cast<ReaderHolder*>(luaL_checkudata(L, 1, kReaderType));
    luaL_argcheck(L, reader, 1, "the reader is closed");
    return reader;
}

int MakeReader(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    auto* reader = new (lua_newuserdata(L, sizeof(ReaderHolder))) ReaderHolder();
    luaL_setmetatable(L, kReaderType);
    const auto open = [&] { *reader = std::make_unique<VxaCore::Host::ArchiveReader>(path); };
    return SucceedsOrPushError(L, open) ? 1 : kErrorResults;
}

// The next entry; false after the last; or nil and a message.
int ReaderNext(lua_State* L)
{
    ReaderHolder& reader = CheckReader(L);
    auto* entry = NewHolder<NextEntry>(L);
    if (!SucceedsOrPushError(L, [&] { *entry = reader->Next(); })) return kErrorResults;
    if (*entry)
        PushEntry(L, **entry);
    else
        lua_pushboolean(L, 0);
    return 1;
}

int ReaderSha256(lua_State* L)
{
    ReaderHolder& reader = CheckReader(L);
    auto* digest = NewHolder<std::string>(L);
    const auto most_bytes = static_cast<std::uint64_t>(kMostEntryBytes);
    if (!SucceedsOrPushError(L, [&] { *digest = reader->Sha256(most_bytes); }))
        return kErrorResults;
    PushAndFree(L, *digest);
    return 1;
}

// Also for the collector.
int ReaderClose(lua_State* L)
{
    static_cast<ReaderHolder*>(luaL_checkudata(L, 1, kReaderType))->reset();
    return 0;
}

constexpr luaL_Reg kReaderMethods[] = {
    {"next", ReaderNext},
    {"sha256", ReaderSha256},
    {"close", ReaderClose},
    {nullptr, nullptr},
};

constexpr luaL_Reg kFunctions[] = {
    {"zip_entries", ZipEntries},
    {"zip_read", ZipRead},
    {"zip_reader", MakeReader},
    {nullptr, nullptr},
};

}  // namespace

void OpenArchiveReaders(lua_State* L)
{
    RegisterHolder<EntryList>(L);
    RegisterHolder<NextEntry>(L);
    RegisterHolder<std::string>(L);
    RegisterClass(L, kReaderType, kReaderMethods, ReaderClose);
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
