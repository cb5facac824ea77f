#include "LuaHost.h"

#include <cstdlib>
#include <map>

#include "Sandbox.h"

const char* const kLoadModules =
    "require 'fc'\n"
    "vxa = require 'vxa'\n"
    "filter, doc, handle = SLB.filter, vxa.Dom(), assert(vxa.open())\n";

LuaHost::LuaHost()
{
    L = lua_newstate(Allocate, this);
    luaL_openlibs(L);
    Run("package.cpath = '" LIBRARY_DIR "/?.so'");
}

LuaHost::~LuaHost()
{
    Close();
}

std::string LuaHost::Run(const std::string& chunk)
{
    std::string error;
    if (luaL_dostring(L, chunk.c_str()) != 0) error = lua_tostring(L, -1);
    lua_settop(L, 0);
    return error;
}

void LuaHost::FailAfter(long allowed, bool for_good)
{
    m_failing = true;
    m_failed = false;
    m_for_good = for_good;
    m_allowed = allowed;
}

std::size_t LuaHost::Close()
{
    if (L != nullptr) lua_close(L);
    L = nullptr;
    return m_bytes;
}

bool LuaHost::Refuses()
{
    if (!m_failing || m_allowed-- > 0) return false;
    m_failing = m_for_good;
    m_failed = true;
    return true;
}

void* LuaHost::Allocate(void* self, void* block, std::size_t old_size, std::size_t size)
{
    auto& host = *static_cast<LuaHost*>(self);
    const std::size_t held = block != nullptr ? old_size : 0;
    if (size > held && host.Refuses()) return nullptr;
    host.m_bytes += size - held;
    if (size != 0) return std::realloc(block, size);
    std::free(block);
    return nullptr;
}

std::string ArgumentsFor(const std::string& function)
{
    static const std::map<std::string, std::string> arguments = {
        {"EnableNativeFirewall", "return 1"},
        {"DisableNativeFirewall", "return 1"},
        {"AddDriverDiagnostics", "return doc, handle, vxa.ZipOutputStream('/dev/null')"},
        {"setup_tbtrace", "return handle"},
        {"AddToConnMetrics", "return tostring({}), 'name\\tvalue', 1"},
        {"UpdateConnMetrics", "return"},
        {"GetConnMetrics", "return"},
        {"CheckSystemHealthMetrics",
         "return doc, 'Deactivated', '{\"SYS_CONF_CONN_REFUSAL_PORT\": 80, "
         "\"SYS_THR_CONN_REFUSAL_PCT\": {\"value\": 50}}'"},
        {"GetSysHealthMetrics", "return"},
        {"GetSysHealthEnabled", "return"},
        {"GetScanMetricPort", "return"},
    };
    const auto found = arguments.find(function);
    return found != arguments.end() ? found->second : "";
}

void FakeMachine()
{
    sandbox::SetOutput("uptime", " 10:00:00 up 1 day, load average: 0.52, 0.58, 0.59\n");
    sandbox::SetOutput("nproc", "4\n");
    sandbox::SetMeminfo("MemTotal: 1000000 kB\nMemFree: 250000 kB\nBuffers: 1 kB\n");
}
