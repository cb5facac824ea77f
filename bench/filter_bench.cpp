// Benchmarks of the health monitor's functions, and what they are measured against.

#include <cstdio>
#include <cstring>
#include <string>

#include "Environment.h"
#include "LuaBench.h"
#include "vxi/engine.h"

namespace {

using lua_bench::Die;
using lua_bench::Measure;

constexpr int kCallsPerLoop = 1000;

// The first where the engine can count a port, otherwise the second.
constexpr const char* kPortPolicy =
    "{\"SYS_CONF_CONN_REFUSAL_PORT\": 8080, \"SYS_THR_CONN_REFUSAL_PCT\": {\"value\": 90}, "
    "\"SYS_THR_CONN_EST_PER_CPU\": {\"value\": 9000000}, "
    "\"SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU\": {\"value\": 90000}, "
    "\"SYS_THR_RUNQ\": {\"value\": 200}, \"SYS_THR_FREE_MEM\": {\"value\": 1}}";
constexpr const char* kPlainPolicy =
    "{\"SYS_THR_RUNQ\": {\"value\": 200}, \"SYS_THR_FREE_MEM\": {\"value\": 1}}";

// Why the linux engine cannot count a port here; empty if it can.
std::string s_linux_problem;

std::string FindScanProblem(vxi_handle_ops_s* handle)
{
    vxi_capability_s rows[16];
    const int count = vxi_capabilities(handle, rows, 16);
    for (int i = 0; i < count && i < 16; ++i)
        if (std::strcmp(rows[i].name, "scan-metrics") == 0)
            return rows[i].available != 0 ? "" : rows[i].detail;
    return "the engine does not report scan-metrics";
}

void PrepareLua()
{
    lua_bench::Open();
    lua_pushstring(lua_bench::State(), kPortPolicy);
    lua_setglobal(lua_bench::State(), "port_policy");
    lua_pushstring(lua_bench::State(), s_linux_problem.empty() ? kPortPolicy : kPlainPolicy);
    lua_setglobal(lua_bench::State(), "policy");
}

void FindLinuxProblem()
{
    const char* const namespace_error = environment::EnterNetworkNamespace();
    vxi_handle_ops_s* handle = vxi_open();
    s_linux_problem = !handle ? vxi_open_error() : FindScanProblem(handle);
    if (s_linux_problem.empty() && *namespace_error != '\0')
        s_linux_problem = std::string("no network namespace: ") + namespace_error;
    vxi_close(handle);
}

// Configures the engine here: the module does so only until a first fetch succeeds, for one engine,
// and here two take turns.
void MonitorPort(const char* engine)
{
    constexpr int kPort = 8080;
    static scan_monitor_config config{};
    config.version = 1;
    config.inbound[kPort / 32] = UINT32_C(1) << (kPort % 32);
    vxi_engine_select(engine);
    vxi_handle_ops_s* handle = vxi_open();
    if (vxi_set_scan_monitoring(handle, &config) != 0) Die("scan monitoring could not be set");
    vxi_close(handle);
}

constexpr const char* kCycle =
    "local action = filter.CheckSystemHealthMetrics(doc, 'Deactivated', policy).action "
    "assert(action == 0 or action == 1, action)";

void ReadCommand(const char* command)
{
    FILE* pipe = popen(command, "re");
    if (!pipe) Die("popen");
    char line[256];
    while (std::fgets(line, sizeof line, pipe)) benchmark::DoNotOptimize(line);
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
    state.SetLabel(s_linux_problem.empty() ? "one port counted by nf_tables"
                                           : "no port: " + s_linux_problem);
}

void OwnWork(benchmark::State& state)
{
    environment::UseCommands(environment::Commands::kFixed);
    Measure(state, kCycle);
    environment::UseCommands(environment::Commands::kReal);
}

void SimulatedCycle(benchmark::State& state)
{
    vxi_engine_select("sim");
    environment::UseCommands(environment::Commands::kSimulated);
    Measure(
        state,
        "local action = filter.CheckSystemHealthMetrics(doc, 'Deactivated', port_policy).action "
        "assert(action == 0 or action == 1, action)");
    environment::UseCommands(environment::Commands::kReal);
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
    environment::Prepare();
    FindLinuxProblem();
    MonitorPort("sim");
    if (s_linux_problem.empty()) MonitorPort("linux");
    vxi_engine_select("linux");
    PrepareLua();
    benchmark::RunSpecifiedBenchmarks();
    lua_bench::Close();
    return 0;
}
