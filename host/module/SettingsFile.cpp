// Reading files of settings as the filter module reads them.
#include <errno.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "LuaBoundary.h"
#include "Module.h"
#include "vxa_core/files.h"

namespace vxa {

namespace {

// The filter module reads its file with fgets into a buffer of this size: a longer line
// comes in pieces, each of which counts as a line.
constexpr std::size_t kPieceBuffer = 1024;

// The bytes that one call of fgets would take from the front of `rest`.
std::string_view FirstPiece(std::string_view rest)
{
    const std::size_t newline = rest.substr(0, kPieceBuffer - 1).find('\n');
    return rest.substr(0, newline == rest.npos ? kPieceBuffer - 1 : newline + 1);
}

// ConfLine(text, at): the line that begins at the offset `at` (from 1) up to its first NUL,
// the number after its first "=" (nil when there is none), and the offset of the next line.
int ConfLine(lua_State* L)
{
    std::size_t length = 0;
    const char* text = luaL_checklstring(L, 1, &length);
    const lua_Number at = luaL_checknumber(L, 2);
    luaL_argcheck(L, at >= 1 && at <= static_cast<lua_Number>(length), 2,
                  "an offset within the string expected");
    const std::size_t begin = static_cast<std::size_t>(at) - 1;
    const std::string_view piece = FirstPiece({text + begin, length - begin});
    char line[kPieceBuffer];
    line[piece.copy(line, sizeof line - 1)] = '\0';
    lua_pushstring(L, line);
    const char* value = std::strchr(line, '=');
    char* end = nullptr;
    const float number = value ? std::strtof(value + 1, &end) : 0;
    if (value && end != value + 1)
        lua_pushnumber(L, number);
    else
        lua_pushnil(L);
    lua_pushnumber(L, static_cast<lua_Number>(begin + piece.size() + 1));
    return 3;
}

// read_file(path, kMostBytes): the bytes; or nil, what was wrong and its errno.
int read_file(lua_State* L)
{
    const char* path = check_path(L, 1);
    const lua_Number most = luaL_checknumber(L, 2);
    luaL_argcheck(L, most >= 0 && most <= 1e9, 2, "a number of bytes up to 1e9 expected");
    auto* bytes = NewHolder<std::string>(L);
    Failure failure;
    int cause = ENOMEM;
    const bool done = Guarded(failure, [&] {
        failure.Set(VxaCore::Host::ReadFile(path, static_cast<std::size_t>(most), *bytes));
        cause = errno;
    });
    if (!done) {
        PushFailure(L, failure);
        lua_pushnumber(L, cause);
        return 3;
    }
    lua_pushlstring(L, bytes->data(), bytes->size());
    return 1;
}

constexpr luaL_Reg kFunctions[] = {
    {"conf_line", ConfLine},
    {"read_file", read_file},
    {nullptr, nullptr},
};

}  // namespace

void OpenSettingsFile(lua_State* L)
{
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
