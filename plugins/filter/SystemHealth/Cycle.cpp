// Health check cycle.

#include "Cycle.h"

#include <sys/time.h>

#include <algorithm>
#include <cfloat>
#include <cstdio>
#include <cstring>

#include <wx/log.h>

#include "Collectors.h"
#include "Config.h"
#include "ConfigLog.h"
#include "FailOpen.h"
#include "HealthTrace.h"
#include "Lock.h"
#include "LuaArgs.h"
#include "LuaBoundary.h"
#include "Metrics.h"
#include "ScanRates.h"

int syshealth_enabled = 0;
std::uint64_t t_act = 0;
std::uint64_t t_prev = 0;

namespace fc {
namespace {

constexpr const char* kFunction = "CheckSystemHealthMetrics";
constexpr std::uint64_t kUsPerSecond = 1000000;

// The script's arguments; the strings belong to Lua.
struct Arguments {
    VxaCore::CDom* dom;
    int state_type;
    const char* state;
    int policy_type;
    const char* policy;
    std::size_t policy_length;
};

struct MachineSample {
    double run_queue;
    unsigned long long cpus;
    VmstatTable vmstat;
    bool scanned;
    scan_metrics_request scan;
};

// What the steps of one cycle pass on, and what its status line shows.
struct Cycle {
    std::uint64_t now_us;
    double delta_s;
    int activated;
    unsigned long long min_duration_minutes = kDefaultMinDurationMinutes;
    MachineSample sample{};
    // Result of the decision:
    bool end_activated = false;
    std::uint64_t activated_us = 0;
    int port = 0;
    MetricTable metrics{};
};

std::uint64_t WallClockUs()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<std::uint64_t>(now.tv_sec) * kUsPerSecond +
           static_cast<std::uint64_t>(now.tv_usec);
}

double SecondsSincePrevious(std::uint64_t now_us)
{
    wxCriticalSectionLocker lock(g_syshealth_cs);
    return t_prev != 0 ? static_cast<double>(now_us - t_prev) / 1000000.0 : 0.0;
}

void TraceStep(const char* message)
{
    Trace(s_TraceEngine, SYSHEALTH_AT(kFunction), "%s", message);
}

// ---- arguments -------------------------------------------------------------------------

// Emits the same message for both string arguments; log filters match it.
bool IsString(int type)
{
    if (type == LUA_TSTRING) return true;
    Trace(s_TraceEngine, SYSHEALTH_AT(kFunction), "incorrect type %d for state string", type);
    return false;
}

// Accepts longer strings with these beginnings.
bool DecodeState(const char* state, int* activated)
{
    const bool is_activated = std::strncmp(state, "Activated", 9) == 0;
    if (!is_activated && std::strncmp(state, "Deactivated", 11) != 0) {
        LogError(SYSHEALTH_AT(kFunction), "incorrect state value %s for state string", state);
        return false;
    }
    *activated = is_activated ? 1 : 0;
    return true;
}

bool CheckArguments(const Arguments& args, int* activated)
{
    return args.dom && IsString(args.state_type) && DecodeState(args.state, activated) &&
           IsString(args.policy_type);
}

// ---- configuration ---------------------------------------------------------------------

int ReadConfiguration(const Arguments& args, int activated)
{
    Trace(s_TraceEngine, SYSHEALTH_AT(kFunction), "cloud_config size[%d]:%s ",
          static_cast<int>(args.policy_length), args.policy);
    const int count = args.policy_length == 0
                          ? readSystemHealthConfig(args.dom, activated)
                          : readSystemHealthPolicy(args.dom, activated, args.policy);
    if (!outputCloudConfig()) LogError(SYSHEALTH_AT(kFunction), "Failed to output cloud config");
    return count;
}

// ---- samples ---------------------------------------------------------------------------

VmstatTable CopyVmstat()
{
    wxCriticalSectionLocker lock(g_syshealth_cs);
    return vxa_syshealth_vmstat_metrics;
}

// Values read before a failure are stored as well.
bool CollectMemory(VmstatTable* vmstat)
{
    *vmstat = CopyVmstat();
    const bool collected = getMemoryMetrics(vmstat->data()) != 0;
    wxCriticalSectionLocker lock(g_syshealth_cs);
    vxa_syshealth_vmstat_metrics = *vmstat;
    return collected;
}

// Returns kActionNormal, or the action that ends the cycle.
int CollectMachine(MachineSample* sample)
{
    if (queryRunQueueLength(&sample->run_queue) != 0) {
        TraceStep("failed to collect rqLen, exiting");
        return kActionNoLoad;
    }
    sample->cpus = queryCpuCount();
    if (sample->cpus == 0) {
        TraceStep("failed to collect numCpus, exiting");
        return kActionNoLoad;
    }
    if (!CollectMemory(&sample->vmstat)) {
        TraceStep("failed to collect vmstat metrics, exiting");
        return kActionNoMemory;
    }
    return kActionNormal;
}

void CollectScan(MachineSample* sample)
{
    const ConfigTable config = CopyConfig();
    sample->scanned = config[kSettingPort].set != 0 && FetchScanMetrics(config, &sample->scan);
}

// ---- decision --------------------------------------------------------------------------

int CountMetricsOver(const FailOpenState& state, const Cycle& cycle)
{
    if (MustStayInFailOpen(state, cycle.now_us, cycle.min_duration_minutes)) return 0;
    return check_health_metric_thresholds(1.0);
}

// Call with the lock held.
int DecideLocked(Cycle* cycle)
{
    const FailOpenState state{cycle->activated == 1, t_act};
    const int over = CountMetricsOver(state, *cycle);
    const FailOpenDecision decision =
        DecideFailOpen(state, cycle->now_us, cycle->min_duration_minutes, over);
    if (!state.activated && decision.action == kActionFailOpen)
        Trace(s_TraceEngine, SYSHEALTH_AT(kFunction),
              "SysHealth transitioning to Fail-Open, metrics over threshold = %d", over);
    t_act = decision.activated_us;
    cycle->end_activated = decision.end_activated;
    cycle->activated_us = decision.activated_us;
    return decision.action;
}

int JudgeMetrics(Cycle* cycle)
{
    wxCriticalSectionLocker lock(g_syshealth_cs);
    if (cycle->sample.scanned) UpdateScanRates(cycle->sample.scan, cycle->delta_s);
    applyMetricConfigs(&cycle->min_duration_minutes);
    calculateHealthMetrics(cycle->sample.run_queue, cycle->sample.cpus, cycle->delta_s);
    const int action = DecideLocked(cycle);
    cycle->port = initial_monitored_port;
    cycle->metrics = health_metrics;
    return action;
}

// ---- status ----------------------------------------------------------------------------

const char* StateName(bool activated)
{
    return activated ? "Act" : "Deact";
}

unsigned long long SecondsInFailOpen(const Cycle& cycle)
{
    return cycle.activated == 1 ? (cycle.now_us - cycle.activated_us) / kUsPerSecond : 0;
}

// The metrics' part of the status line. It needs no memory: the decision has taken effect by then,
// and its action must reach the script.
struct MetricsStatus {
    // A name and two numbers, which have up to DBL_MAX_10_EXP + 1 digits.
    static constexpr int kMetricSize = 64 + 2 * (DBL_MAX_10_EXP + 1);
    char string[kMetricCount * kMetricSize] = "";

    explicit MetricsStatus(const MetricTable& metrics)
    {
        char* end = string;
        for (const auto& metric : metrics) {
            const int length = std::snprintf(end, kMetricSize, " %s=%.3f(%.3f)", metric.short_name,
                                             metric.value, metric.threshold);
            end += std::clamp(length, 0, kMetricSize - 1);
        }
    }
};

void LogStatusLine(const Cycle& cycle, int action)
{
    if (!wxLog::GetVerbose()) return;
    const unsigned long long seconds = cycle.now_us / kUsPerSecond;
    const unsigned long long microseconds = cycle.now_us % kUsPerSecond;
    LogVerbose(SYSHEALTH_AT(kFunction),
               "SysHealth: rc=%d tval=%10llu.%06llu delta_t=%4.3f startSt=%s endSt=%s min_dur=%llu "
               "act_dur=%llu port=%d%s",
               action, seconds, microseconds, cycle.delta_s, StateName(cycle.activated == 1),
               StateName(cycle.end_activated), cycle.min_duration_minutes * 60,
               SecondsInFailOpen(cycle), cycle.port, MetricsStatus(cycle.metrics).string);
}

// ---- the cycle -------------------------------------------------------------------------

int EvaluateMachine(Cycle* cycle)
{
    const int collected = CollectMachine(&cycle->sample);
    if (collected != kActionNormal) return collected;
    CollectScan(&cycle->sample);
    const int action = JudgeMetrics(cycle);
    LogStatusLine(*cycle, action);
    return action;
}

int CheckHealth(const Arguments& args, Cycle* cycle)
{
    if (!CheckArguments(args, &cycle->activated)) return kActionBadCall;
    const int settings = ReadConfiguration(args, cycle->activated);
    if (RejectThresholdsWithoutPort() || settings < 1) return kActionDisabled;
    return EvaluateMachine(cycle);
}

// Called at the end of every cycle. Stores the state before it traces: the host's log may throw.
void EndCycle(std::uint64_t now_us, bool disabled)
{
    {
        wxCriticalSectionLocker lock(g_syshealth_cs);
        t_prev = now_us;
        syshealth_enabled = disabled ? 0 : 1;
    }
    Trace(s_TraceEngine, SYSHEALTH_AT(kFunction), "Setting status: %s",
          disabled ? "disabled" : "enabled");
}

int RunCycle(const Arguments& args)
{
    Cycle cycle;
    cycle.now_us = WallClockUs();
    cycle.delta_s = SecondsSincePrevious(cycle.now_us);
    cycle.activated = 0;
    int action = kActionBadCall;
    try {
        action = CheckHealth(args, &cycle);
    } catch (...) {
        EndCycle(cycle.now_us, false);
        throw;
    }
    EndCycle(cycle.now_us, action == kActionDisabled);
    return action;
}

Arguments TakeArguments(lua_State* L)
{
    Arguments args{};
    args.dom = TestDom(L, 1);
    args.state_type = lua_type(L, 2);
    args.policy_type = lua_type(L, 3);
    // Only for strings: lua_tolstring changes a number on the stack to a string.
    if (args.state_type == LUA_TSTRING) args.state = lua_tostring(L, 2);
    if (args.policy_type == LUA_TSTRING) args.policy = lua_tolstring(L, 3, &args.policy_length);
    return args;
}

}  // namespace
}  // namespace fc

int CheckSystemHealthMetrics(lua_State* L)
{
    const fc::Arguments args = fc::TakeArguments(L);
    // Makes the result first: storing the action in it later needs no memory, so that an action
    // that has taken effect always reaches the script.
    lua_createtable(L, 0, 1);
    lua_pushboolean(L, 0);
    lua_setfield(L, -2, "action");
    int action = fc::kActionBadCall;
    fc::Guarded(L, [&] { action = fc::RunCycle(args); });
    lua_pushinteger(L, action);
    lua_setfield(L, -2, "action");
    return 1;
}
