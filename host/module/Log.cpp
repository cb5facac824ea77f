// Switches of the trace log and the general log.
#include <wx/log.h>

#include <vector>

#include "LuaBoundary.h"
#include "Module.h"
#include "vxa_core/host.h"
#include "vxi/engine.h"

namespace vxa {

namespace {

using VxaCore::Host::LogRecord;

struct Captured {
    std::vector<LogRecord> records;
    std::uint64_t dropped = 0;
};

bool check_switch(lua_State* L, int index)
{
    luaL_checktype(L, index, LUA_TBOOLEAN);
    return lua_toboolean(L, index) != 0;
}

int Trace(lua_State* L)
{
    std::size_t length = 0;
    const char* pattern = luaL_checklstring(L, 1, &length);
    luaL_argcheck(L, length > 0, 1, "a trace category or pattern expected");
    const bool on = check_switch(L, 2);
    Failure failure;
    const bool switched = Guarded(failure, [&] {
        const wxString text = wxString::FromUTF8(pattern, length);
        if (text.empty())
            failure.Set("a trace category or pattern must be UTF-8");
        else
            VxaCore::Host::SwitchTrace(text, on);
    });
    if (!switched) return luaL_error(L, "%s", failure.text);
    return 0;
}

int Verbose(lua_State* L)
{
    VxaCore::Host::SetVerbose(check_switch(L, 1));
    return 0;
}

int LogTo(lua_State* L)
{
    const char* path = lua_isnoneornil(L, 1) ? "" : check_path(L, 1);
    Failure failure;
    const bool opened = Guarded(failure, [&] {
        std::string error;
        if (!VxaCore::Host::LogTo(path, error)) failure.Set(error);
    });
    return PushOutcome(L, opened, failure);
}

int Capture(lua_State* L)
{
    VxaCore::Host::CaptureLog(check_switch(L, 1));
    return 0;
}

// With the fields of the record's JSON line.
void PushRecord(lua_State* L, const LogRecord& record)
{
    lua_createtable(L, 0, record.trace ? 7 : 4);
    SetNumber(L, "time", record.time_s);
    SetText(L, "kind", record.trace ? "trace" : "log");
    SetText(L, record.trace ? "category" : "level", record.label);
    SetText(L, "message", record.message);
    if (!record.trace) return;
    SetText(L, "file", record.file);
    SetNumber(L, "line", record.line);
    SetText(L, "function", record.function);
}

int PushCaptured(lua_State* L)
{
    auto* taken = NewHolder<Captured>(L);
    Failure failure;
    if (!Guarded(failure, [&] { taken->records = VxaCore::Host::TakeCaptured(taken->dropped); }))
        return luaL_error(L, "%s", failure.text);
    lua_createtable(L, static_cast<int>(taken->records.size()), 0);
    int row = 0;
    for (const LogRecord& record : taken->records) {
        PushRecord(L, record);
        lua_rawseti(L, -2, ++row);
    }
    lua_pushnumber(L, static_cast<lua_Number>(taken->dropped));
    return 2;
}

// Problems for which no driver call fails belong to the cycle in whose log they are.
void LogDriverProblem(const char* message)
{
    Failure lost;
    Guarded(lost, [&] { wxLogError("%s", message); });
}

constexpr luaL_Reg kFunctions[] = {
    {"trace", Trace},     {"verbose", Verbose},       {"log_to", LogTo},
    {"capture", Capture}, {"captured", PushCaptured}, {nullptr, nullptr},
};

}  // namespace

void OpenLog(lua_State* L)
{
    RegisterHolder<Captured>(L);
    vxi_set_message_handler(LogDriverProblem);
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
