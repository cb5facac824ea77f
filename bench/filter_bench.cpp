// Speed of the filter module under Lua, each figure beside what it is measured against.
// bench/run runs this program and prints the table of ratios.

#include <cstdio>
#include <cstring>
#include <string>

#include "LuaBench.h"
#include "Stage.h"
#include "vxi/engine.h"

namespace {

using lua_bench::Die;
using lua_bench::Measure;

constexpr int kCallsPerLoop = 1000;

// The policies: with a port where the engine can count, else without.
constexpr const char* kPortPolicy =
    "{\"SYS_CONF_CONN_REFUSAL_PORT\": 8080, \"SYS_THR_CONN_REFUSAL_PCT\": {\"value\": 90}, "
    "\"SYS_THR_CONN_EST_PER_CPU\": {\"value\": 9000000}, "
    "\"SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU\": {\"value\": 90000}, "
    "\"SYS_THR_RUNQ\": {\"value\": 200}, \"SYS_THR_FREE_MEM\": {\"value\": 1}}";
constexpr const char* kPlainPolicy =
    "{\"SYS_THR_RUNQ\": {\"value\": 200}, \"SYS_THR_FREE_MEM\": {\"value\": 1}}";

std::string s_linux_note;

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
    lua_bench::Open();
    lua_pushstring(lua_bench::State(), kPortPolicy);
    lua_setglobal(lua_bench::State(), "port_policy");
    lua_pushstring(lua_bench::State(), s_linux_note.empty() ? kPortPolicy : kPlainPolicy);
    lua_setglobal(lua_bench::State(), "policy");
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
    lua_bench::Close();
    return 0;
}
