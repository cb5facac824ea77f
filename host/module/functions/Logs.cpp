// Control of the trace log and the general log: vxa.trace, verbose, log_to, capture, captured.
#include <wx/log.h>

#include <optional>
#include <stdexcept>

#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Holder.h"
#include "boundary/Values.h"
#include "vxa_core/log.h"
#include "vxi/engine.h"

namespace vxa {

namespace {

using VxaCore::Host::CapturedRecords;
using VxaCore::Host::LogRecord;

bool CheckBoolean(lua_State* L, int index)
{
    luaL_checktype(L, index, LUA_TBOOLEAN);
    return lua_toboolean(L, index) != 0;
}

int Trace(lua_State* L)
{
    const std::string_view pattern = CheckBytes(L, 1);
    luaL_argcheck(L, !pattern.empty(), 1, "a trace category or pattern expected");
    const bool on = CheckBoolean(L, 2);
    CallOrRaise(L, [&] {
        const wxString wide = wxString::FromUTF8(pattern.data(), pattern.size());
        if (wide.empty()) throw std::runtime_error("a trace category or pattern must be UTF-8");
        VxaCore::Host::SwitchTrace(wide, on);
    });
    return 0;
}

int Verbose(lua_State* L)
{
    VxaCore::Host::SetVerbose(CheckBoolean(L, 1));
    return 0;
}

int LogTo(lua_State* L)
{
    const char* path = lua_isnoneornil(L, 1) ? "" : CheckPath(L, 1);
    return PushSuccess(L, [&] { VxaCore::Host::LogTo(path); });
}

int Capture(lua_State* L)
{
    VxaCore::Host::CaptureLog(CheckBoolean(L, 1));
    return 0;
}

// Pushes a table with the fields of the record's JSON line. [-0, +1, m]
void PushRecord(lua_State* L, const LogRecord& record)
{
    lua_createtable(L, 0, record.trace ? 7 : 4);
    SetNumber(L, "time", record.time_s);
    SetString(L, "kind", record.trace ? "trace" : "log");
    SetString(L, record.trace ? "category" : "level", record.label);
    SetString(L, "message", record.message);
    if (!record.trace) return;
    SetString(L, "file", record.file);
    SetNumber(L, "line", record.line);
    SetString(L, "function", record.function);
}

int Captured(lua_State* L)
{
    auto* captured = NewHolder<std::optional<CapturedRecords>>(L);
    CallOrRaise(L, [&] { *captured = VxaCore::Host::TakeCaptured(); });
    PushArray(L, (*captured)->records, PushRecord);
    lua_pushnumber(L, static_cast<lua_Number>((*captured)->dropped));
    return 2;
}

// Reports problems for which no driver call fails.
void LogDriverProblem(const char* message)
{
    ErrorMessage lost;
    Succeeds([&] { wxLogError("%s", message); }, lost);
}

constexpr luaL_Reg kFunctions[] = {
    {"trace", Trace},     {"verbose", Verbose},   {"log_to", LogTo},
    {"capture", Capture}, {"captured", Captured}, {nullptr, nullptr},
};

}  // namespace

void OpenLogs(lua_State* L)
{
    RegisterHolder<std::optional<CapturedRecords>>(L);
    vxi_set_message_handler(LogDriverProblem);
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
