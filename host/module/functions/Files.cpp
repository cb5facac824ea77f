// Files that may belong to other users: vxa.mkdir, vxa.file_kind, vxa.file_status, vxa.same_file,
// vxa.read_file, vxa.read_tail, vxa.replace_file, vxa.remove_file; and the lines of the settings
// file: vxa.conf_line.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Holder.h"
#include "boundary/Values.h"
#include "vxa_core/files.h"
#include "vxa_core/pending_file.h"

namespace vxa {

namespace {

int MakeDirectory(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    return PushSuccess(L, [&] { VxaCore::Host::MakeDirectories(path); });
}

int FileKind(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    const char* kind = nullptr;
    if (!SucceedsOrPushError(L, [&] { kind = VxaCore::Host::FileKind(path); }))
        return kErrorResults;
    lua_pushstring(L, kind);
    return 1;
}

int FileStatus(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    VxaCore::Host::FileStatus status{};
    if (!SucceedsOrPushError(L, [&] { status = VxaCore::Host::GetFileStatus(path); }))
        return kErrorResults;
    lua_createtable(L, 0, 3);
    SetString(L, "kind", status.kind);
    SetNumber(L, "owner", status.owner);
    SetNumber(L, "mode", status.mode);
    return 1;
}

// Without links and dots; of a file that does not exist, the name that it would have.
std::filesystem::path FullName(const char* path)
{
    return std::filesystem::weakly_canonical(std::filesystem::absolute(path));
}

int IsSameFile(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    const char* other = CheckPath(L, 2);
    bool is_same = false;
    if (!SucceedsOrPushError(L, [&] { is_same = FullName(path) == FullName(other); }))
        return kErrorResults;
    lua_pushboolean(L, is_same ? 1 : 0);
    return 1;
}

// [-0, +0, v]
std::size_t CheckMostBytes(lua_State* L, int index)
{
    const lua_Number most_bytes = luaL_checknumber(L, index);
    luaL_argcheck(L, most_bytes >= 0 && most_bytes <= 1e9, index,
                  "a number of bytes up to 1e9 expected");
    return static_cast<std::size_t>(most_bytes);
}

// read_file(path, most_bytes)
int ReadFile(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    const std::size_t most_bytes = CheckMostBytes(L, 2);
    auto* bytes = NewHolder<std::string>(L);
    const auto read = [&] { *bytes = VxaCore::Host::ReadFile(path, most_bytes); };
    if (!SucceedsOrPushError(L, read)) return kErrorResults;
    PushAndFree(L, *bytes);
    return 1;
}

// read_tail(path, most_bytes): the last bytes of the file, and the number of bytes before them.
int ReadTail(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    const std::size_t most_bytes = CheckMostBytes(L, 2);
    auto* bytes = NewHolder<std::string>(L);
    std::uint64_t skipped = 0;
    const bool is_read = SucceedsOrPushError(L, [&] {
        VxaCore::Host::FileTail tail = VxaCore::Host::ReadTail(path, most_bytes);
        skipped = tail.skipped;
        *bytes = std::move(tail.bytes);
    });
    if (!is_read) return kErrorResults;
    PushAndFree(L, *bytes);
    lua_pushnumber(L, static_cast<lua_Number>(skipped));
    return 2;
}

// replace_file(path, bytes [, is_public])
int ReplaceFile(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    const std::string_view bytes = CheckBytes(L, 2);
    const mode_t mode = lua_toboolean(L, 3) ? 0644 : 0600;
    return PushSuccess(L, [&] { VxaCore::Host::ReplaceFile(path, bytes, mode); });
}

int RemoveFile(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    return PushSuccess(L, [&] { VxaCore::Host::RemoveFile(path); });
}

// The filter module reads the settings with fgets(3) into a buffer of this size: each piece of a
// longer line counts as a line.
constexpr std::size_t kLineBuffer = 1024;

// Returns what one call of fgets would read from the start of `rest`.
std::string_view FirstLine(std::string_view rest)
{
    const std::size_t newline = rest.substr(0, kLineBuffer - 1).find('\n');
    return rest.substr(0, newline == rest.npos ? kLineBuffer - 1 : newline + 1);
}

// conf_line(text, at): the line that begins at the offset `at` (from 1) up to its first NUL, the
// number after its first "=" (nil if there is none), the offset of the next line, and the position
// in the line after the number.
int ConfLine(lua_State* L)
{
    const std::string_view text = CheckBytes(L, 1);
    const lua_Number at = luaL_checknumber(L, 2);
    luaL_argcheck(L, at >= 1 && at <= static_cast<lua_Number>(text.size()), 2,
                  "an offset within the string expected");
    const std::size_t begin = static_cast<std::size_t>(at) - 1;
    const std::string_view taken = FirstLine(text.substr(begin));
    char line[kLineBuffer];
    line[taken.copy(line, sizeof line - 1)] = '\0';
    lua_pushstring(L, line);
    const char* value = std::strchr(line, '=');
    char* end = nullptr;
    const float number = value ? std::strtof(value + 1, &end) : 0;
    const bool has_number = value && end != value + 1;
    if (has_number)
        lua_pushnumber(L, number);
    else
        lua_pushnil(L);
    lua_pushnumber(L, static_cast<lua_Number>(begin + taken.size() + 1));
    if (!has_number) return 3;
    lua_pushnumber(L, static_cast<lua_Number>(end - line + 1));
    return 4;
}

constexpr luaL_Reg kFunctions[] = {
    {"mkdir", MakeDirectory},      {"file_kind", FileKind},
    {"file_status", FileStatus},   {"same_file", IsSameFile},
    {"read_file", ReadFile},       {"read_tail", ReadTail},
    {"replace_file", ReplaceFile}, {"remove_file", RemoveFile},
    {"conf_line", ConfLine},       {nullptr, nullptr},
};

}  // namespace

void OpenFiles(lua_State* L)
{
    RegisterHolder<std::string>(L);
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
