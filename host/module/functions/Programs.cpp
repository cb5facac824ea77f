// Runs another program, without a shell: vxa.run_program.
#include <array>
#include <cstring>
#include <string_view>

#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Values.h"
#include "vxa_core/program.h"

namespace vxa {

namespace {

constexpr std::size_t kMostArguments = 16;

// The arguments of the program, of which the first is its name; ends with a null pointer.
using Arguments = std::array<const char*, kMostArguments + 1>;

Arguments CheckArguments(lua_State* L, int index)
{
    Arguments arguments{};
    luaL_checktype(L, index, LUA_TTABLE);
    const std::size_t count = lua_rawlen(L, index);
    luaL_argcheck(L, count > 0 && count <= kMostArguments, index, "1 to 16 strings expected");
    for (std::size_t i = 0; i < count; ++i) {
        lua_rawgeti(L, index, static_cast<int>(i) + 1);
        luaL_argcheck(L, lua_type(L, -1) == LUA_TSTRING, index, "1 to 16 strings expected");
        std::size_t length = 0;
        const char* const text = lua_tolstring(L, -1, &length);  // the table keeps it
        luaL_argcheck(L, std::strlen(text) == length, index, "string contains a NUL byte");
        arguments[i] = text;
        lua_pop(L, 1);
    }
    return arguments;
}

// run_program(arguments, input, output)
int RunProgram(lua_State* L)
{
    const Arguments arguments = CheckArguments(L, 1);
    const std::string_view input = CheckBytes(L, 2);
    VxaCore::Host::PendingFile* const output = TestPendingFile(L, 3);
    luaL_argcheck(L, output, 3, "a file from vxa.temporary expected");
    return PushSuccess(
        L, [&] { VxaCore::Host::RunProgram(arguments.data(), input, *output, CaughtSignalName); });
}

constexpr luaL_Reg kFunctions[] = {
    {"run_program", RunProgram},
    {nullptr, nullptr},
};

}  // namespace

void OpenPrograms(lua_State* L)
{
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
