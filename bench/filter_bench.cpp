// Speed of the filter module under Lua, each figure beside what it is measured against.
// bench/run runs this program and prints the table of ratios.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <lua.hpp>

#include "Stage.h"
#include "vxi/engine.h"

namespace {

constexpr int kCallsPerLoop = 1000;

// The policies: with a port where the engine can count, else without.
constexpr const char* kPortPolicy =
    "{\"SYS_CONF_CONN_REFUSAL_PORT\": 8080, \"SYS_THR_CONN_REFUSAL_PCT\": {\"value\": 90}, "
    "\"SYS_THR_CONN_EST_PER_CPU\": {\"value\": 9000000}, "
    "\"SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU\": {\"value\": 90000}, "
    "\"SYS_THR_RUNQ\": {\"value\": 200}, \"SYS_THR_FREE_MEM\": {\"value\": 1}}";
constexpr const char* kPlainPolicy =
    "{\"SYS_THR_RUNQ\": {\"value\": 200}, \"SYS_THR_FREE_MEM\": {\"value\": 1}}";

lua_State* s_lua;
std::string s_linux_note;

[[noreturn]] void Die(const char* what)
{
    std::fprintf(stderr, "filter_bench: %s\n", what);
    std::exit(1);
}

int Empty(lua_State*)
{
    return 0;
}

void RunChunk(const char* chunk)
{
    if (luaL_dostring(s_lua, chunk) != 0) Die(lua_tostring(s_lua, -1));
    lua_settop(s_lua, 0);
}

// Whether scan counters can be had here; else why not.
std::string LinuxScanNote(vxi_handle_ops_s* handle)
{
    vxi_capability_s rows[16];
    const int count = vxi_capabilities(handle, rows, 16);
    for (int i = 0; i < count && i < 16; ++i)
        if (std::strcmp(rows[i].name, "scan-metrics") == 0)
            return rows[i].available != 0 ? "" : rows[i].detail;
    return "the engine does not tell";
}

void PrepareLua()
{
    s_lua = luaL_newstate();
    luaL_openlibs(s_lua);
    lua_pushcfunction(s_lua, Empty);
    lua_setglobal(s_lua, "empty");
    RunChunk("package.cpath = '" LIBRARY_DIR
             "/?.so' vxa = require 'vxa' require 'fc' "
             "doc, filter = vxa.Dom(), SLB.filter");
    lua_pushstring(s_lua, kPortPolicy);
    lua_setglobal(s_lua, "port_policy");
    lua_pushstring(s_lua, s_linux_note.empty() ? kPortPolicy : kPlainPolicy);
    lua_setglobal(s_lua, "policy");
}

void FindOutWhatLinuxDelivers()
{
    const char* const namespace_error = stage::EnterNetworkNamespace();
    vxi_handle_ops_s* handle = vxi_open();
    s_linux_note = handle == nullptr ? vxi_open_error() : LinuxScanNote(handle);
    if (s_linux_note.empty() && *namespace_error != '\0')
        s_linux_note = std::string("no network namespace of its own: ") + namespace_error;
    vxi_close(handle);
}

// The module sends its configuration until a first fetch succeeds, to one engine; here two
// engines take turns.
void MonitorPort(const char* engine)
{
    constexpr int port = 8080;
    static scan_monitor_config config{};
    config.version = 1;
    config.inbound[port / 32] = UINT32_C(1) << (port % 32);
    vxi_engine_select(engine);
    vxi_handle_ops_s* handle = vxi_open();
    if (vxi_set_scan_monitoring(handle, &config) != 0) Die("scan monitoring cannot be set");
    vxi_close(handle);
}

// Runs a compiled chunk once per iteration.
void Measure(benchmark::State& state, const char* chunk, long calls_per_chunk = 1)
{
    if (luaL_loadstring(s_lua, chunk) != 0) Die(lua_tostring(s_lua, -1));
    for (auto _ : state) {
        lua_pushvalue(s_lua, -1);
        if (lua_pcall(s_lua, 0, 0, 0) != 0) Die(lua_tostring(s_lua, -1));
    }
    lua_settop(s_lua, 0);
    state.SetItemsProcessed(state.iterations() * calls_per_chunk);
}

constexpr const char* kCycle =
    "local action = filter.CheckSystemHealthMetrics(doc, 'Deactivated', policy).action "
    "assert(action == 0 or action == 1, action)";

void ReadCommand(const char* command)
{
    FILE* pipe = popen(command, "re");
    if (pipe == nullptr) Die("popen");
    char line[256];
    while (std::fgets(line, sizeof line, pipe) != nullptr) benchmark::DoNotOptimize(line);
    pclose(pipe);
}

void BareCommands(benchmark::State& state)
{
    for (auto _ : state) {
        ReadCommand("uptime");
        ReadCommand("nproc");
    }
}

void BareNproc(benchmark::State& state)
{
    for (auto _ : state) ReadCommand("nproc");
}

void WholeCycle(benchmark::State& state)
{
    Measure(state, kCycle);
    state.SetLabel(s_linux_note.empty() ? "one port counted by nf_tables"
                                        : "no port: " + s_linux_note);
}

void OwnWork(benchmark::State& state)
{
    stage::UseCommands(stage::Commands::kCanned);
    Measure(state, kCycle);
    stage::UseCommands(stage::Commands::kReal);
}

void SimulatedCycle(benchmark::State& state)
{
    vxi_engine_select("sim");
    stage::UseCommands(stage::Commands::kSimulated);
    Measure(
        state,
        "local action = filter.CheckSystemHealthMetrics(doc, 'Deactivated', port_policy).action "
        "assert(action == 0 or action == 1, action)");
    stage::UseCommands(stage::Commands::kReal);
    vxi_engine_select("linux");
}

void MetricsQuery(benchmark::State& state)
{
    Measure(state, "filter.GetSysHealthMetrics()");
}

void CallLoop(benchmark::State& state, const char* function)
{
    const std::string chunk = std::string("local f = ") + function + " for i = 1, " +
                              std::to_string(kCallsPerLoop) + " do f() end";
    Measure(state, chunk.c_str(), kCallsPerLoop);
}

void EmptyCall(benchmark::State& state)
{
    CallLoop(state, "empty");
}

void EnabledCall(benchmark::State& state)
{
    CallLoop(state, "filter.GetSysHealthEnabled");
}

void PortCall(benchmark::State& state)
{
    CallLoop(state, "filter.GetScanMetricPort");
}

BENCHMARK(BareCommands)->UseRealTime();
BENCHMARK(WholeCycle)->UseRealTime();
BENCHMARK(OwnWork)->UseRealTime();
BENCHMARK(EmptyCall)->UseRealTime();
BENCHMARK(EnabledCall)->UseRealTime();
BENCHMARK(PortCall)->UseRealTime();
BENCHMARK(BareNproc)->UseRealTime();
BENCHMARK(MetricsQuery)->UseRealTime();
BENCHMARK(SimulatedCycle)->UseRealTime();

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    stage::Prepare();
    FindOutWhatLinuxDelivers();
    MonitorPort("sim");
    if (s_linux_note.empty()) MonitorPort("linux");
    vxi_engine_select("linux");
    PrepareLua();
    benchmark::RunSpecifiedBenchmarks();
    lua_close(s_lua);
    return 0;
}
