// One health check cycle: CheckSystemHealthMetrics.

#include <sys/time.h>

#include <cstring>

#include "FailOpen.h"
#include "LuaArgs.h"
#include "LuaBoundary.h"
#include "SystemHealth.h"

int syshealth_enabled = 0;
std::uint64_t t_act = 0;
std::uint64_t t_prev = 0;

namespace {

constexpr const char* kSelf = "CheckSystemHealthMetrics";
constexpr unsigned long long kDefaultMinDurationMinutes = 30;
constexpr std::uint64_t kUsPerSecond = 1000000;

// The script's arguments as plain values; the texts belong to Lua.
struct Arguments {
    VxaCore::CDom* dom;
    int state_type;
    const char* state;
    int policy_type;
    const char* policy;
    std::size_t policy_length;
};

struct Sample {
    double run_queue;
    unsigned long long cpus;
    VmstatTable vmstat;
    bool scanned;
    scan_metrics_request scan;
};

// One cycle's own record: what its steps hand on, and what the status line shows.
struct Cycle {
    std::uint64_t now_us;
    double delta_s;
    int activated;
    unsigned long long min_duration_minutes = kDefaultMinDurationMinutes;
    Sample sample{};
    // Of the decision:
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

void Say(const char* message)
{
    fc::Trace(s_TraceEngine, SYSHEALTH_AT(kSelf), "%s", message);
}

// ---- arguments -------------------------------------------------------------------------

// Both string arguments are refused with the same words, which log filters wait for.
bool IsString(int type)
{
    if (type == LUA_TSTRING) return true;
    fc::Trace(s_TraceEngine, SYSHEALTH_AT(kSelf), "incorrect type %d for state string", type);
    return false;
}

// Longer texts with these beginnings count: scripts append the reason to the state.
bool DecodeState(const char* text, int* activated)
{
    const bool is_activated = std::strncmp(text, "Activated", 9) == 0;
    if (!is_activated && std::strncmp(text, "Deactivated", 11) != 0) {
        fc::LogError(SYSHEALTH_AT(kSelf), "incorrect state value %s for state string", text);
        return false;
    }
    *activated = is_activated ? 1 : 0;
    return true;
}

bool CheckArguments(const Arguments& args, int* activated)
{
    return args.dom != nullptr && IsString(args.state_type) && DecodeState(args.state, activated) &&
           IsString(args.policy_type);
}

// ---- configuration ---------------------------------------------------------------------

int ReadConfiguration(const Arguments& args, int activated)
{
    fc::Trace(s_TraceEngine, SYSHEALTH_AT(kSelf), "cloud_config size[%d]:%s ",
              static_cast<int>(args.policy_length), args.policy);
    const int count = args.policy_length == 0
                          ? readSystemHealthConfig(args.dom, activated)
                          : readSystemHealthPolicy(args.dom, activated, args.policy);
    if (!outputCloudConfig()) fc::LogError(SYSHEALTH_AT(kSelf), "Failed to output cloud config");
    return count;
}

// Switches off a threshold that needs a monitored port where none is configured.
bool RejectWithoutPort(ConfigRow row, const char* message)
{
    {
        wxCriticalSectionLocker lock(g_syshealth_cs);
        auto& setting = vxa_syshealth_config[row];
        if (setting.set == 0 || vxa_syshealth_config[kConfPort].set != 0) return false;
        setting.set = 0;
    }
    fc::LogError(SYSHEALTH_AT(kSelf), "%s", message);
    return true;
}

// Any such threshold is a misconfiguration that disables monitoring; all three are told.
bool PortIsConsistent()
{
    const bool refusal = RejectWithoutPort(
        kConfRefusalPct, "SysHealth - Conn Refusal enabled but monitoring port not configured");
    const bool established = RejectWithoutPort(
        kConfEstablished,
        "SysHealth - Conn Established enabled but monitoring port not configured");
    const bool scan_mbytes = RejectWithoutPort(
        kConfScanMbytes, "SysHealth - Scan Mbytes enabled but monitoring port not configured");
    return !refusal && !established && !scan_mbytes;
}

// ---- samples ---------------------------------------------------------------------------

VmstatTable CopyVmstat()
{
    wxCriticalSectionLocker lock(g_syshealth_cs);
    return vxa_syshealth_vmstat_metrics;
}

// Figures read before a failure stay in the table as well.
bool CollectMemory(VmstatTable* vmstat)
{
    *vmstat = CopyVmstat();
    const bool collected = getMemoryMetrics(vmstat->data()) != 0;
    wxCriticalSectionLocker lock(g_syshealth_cs);
    vxa_syshealth_vmstat_metrics = *vmstat;
    return collected;
}

// kActionNormal, or the action that ends the cycle.
int CollectMachine(Sample* sample)
{
    if (queryRunQueueLength(&sample->run_queue) != 0) {
        Say("failed to collect rqLen, exiting");
        return fc::kActionNoLoad;
    }
    sample->cpus = queryCpuCount();
    if (sample->cpus == 0) {
        Say("failed to collect numCpus, exiting");
        return fc::kActionNoLoad;
    }
    if (!CollectMemory(&sample->vmstat)) {
        Say("failed to collect vmstat metrics, exiting");
        return fc::kActionNoMemory;
    }
    return fc::kActionNormal;
}

void CollectScan(Sample* sample)
{
    const ConfigTable config = CopyConfig();
    sample->scanned = config[kConfPort].set != 0 && FetchScanMetrics(config, &sample->scan);
}

// ---- decision --------------------------------------------------------------------------

int CountMetricsOver(const fc::FailOpenState& state, const Cycle& cycle)
{
    if (fc::MustStayInFailOpen(state, cycle.now_us, cycle.min_duration_minutes)) return 0;
    return check_health_metric_thresholds(1.0);
}

// With the lock held.
int DecideLocked(Cycle* cycle)
{
    const fc::FailOpenState state{cycle->activated == 1, t_act};
    const int over = CountMetricsOver(state, *cycle);
    const fc::FailOpenDecision decision =
        fc::DecideFailOpen(state, cycle->now_us, cycle->min_duration_minutes, over);
    if (!state.activated && decision.action == fc::kActionFailOpen)
        fc::Trace(s_TraceEngine, SYSHEALTH_AT(kSelf),
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

const char* StateText(bool activated)
{
    return activated ? "Act" : "Deact";
}

unsigned long long SecondsInFailOpen(const Cycle& cycle)
{
    return cycle.activated == 1 ? (cycle.now_us - cycle.activated_us) / kUsPerSecond : 0;
}

void LogStatusLine(const Cycle& cycle, int action)
{
    const unsigned long long seconds = cycle.now_us / kUsPerSecond;
    const unsigned long long microseconds = cycle.now_us % kUsPerSecond;
    const MetricTable& m = cycle.metrics;
    fc::LogVerbose(
        SYSHEALTH_AT(kSelf),
        "SysHealth: rc=%d tval=%10llu.%06llu delta_t=%4.3f startSt=%s endSt=%s min_dur=%llu "
        "act_dur=%llu port=%d %s=%.3f(%.3f) %s=%.3f(%.3f) %s=%.3f(%.3f) %s=%.3f(%.3f) "
        "%s=%.3f(%.3f) %s=%.3f(%.3f)",
        action, seconds, microseconds, cycle.delta_s, StateText(cycle.activated == 1),
        StateText(cycle.end_activated), cycle.min_duration_minutes * 60, SecondsInFailOpen(cycle),
        cycle.port, m[0].short_name, m[0].value, m[0].threshold, m[1].short_name, m[1].value,
        m[1].threshold, m[2].short_name, m[2].value, m[2].threshold, m[3].short_name, m[3].value,
        m[3].threshold, m[4].short_name, m[4].value, m[4].threshold, m[5].short_name, m[5].value,
        m[5].threshold);
}

// ---- the cycle -------------------------------------------------------------------------

int EvaluateMachine(Cycle* cycle)
{
    const int collected = CollectMachine(&cycle->sample);
    if (collected != fc::kActionNormal) return collected;
    CollectScan(&cycle->sample);
    const int action = JudgeMetrics(cycle);
    LogStatusLine(*cycle, action);
    return action;
}

int CheckHealth(const Arguments& args, Cycle* cycle)
{
    if (!CheckArguments(args, &cycle->activated)) return fc::kActionBadCall;
    const int settings = ReadConfiguration(args, cycle->activated);
    if (!PortIsConsistent() || settings < 1) return fc::kActionDisabled;
    return EvaluateMachine(cycle);
}

// The next cycle's interval starts at this one, whatever path led here. The state first: the
// host's log may raise.
void EndCycle(std::uint64_t now_us, bool disabled)
{
    {
        wxCriticalSectionLocker lock(g_syshealth_cs);
        t_prev = now_us;
        syshealth_enabled = disabled ? 0 : 1;
    }
    fc::Trace(s_TraceEngine, SYSHEALTH_AT(kSelf), "Setting status: %s",
              disabled ? "disabled" : "enabled");
}

int RunCycle(const Arguments& args)
{
    Cycle cycle;
    cycle.now_us = WallClockUs();
    cycle.delta_s = SecondsSincePrevious(cycle.now_us);
    cycle.activated = 0;
    int action = fc::kActionBadCall;
    try {
        action = CheckHealth(args, &cycle);
    } catch (...) {
        EndCycle(cycle.now_us, false);
        throw;
    }
    EndCycle(cycle.now_us, action == fc::kActionDisabled);
    return action;
}

Arguments TakeArguments(lua_State* L)
{
    Arguments args{};
    args.dom = fc::TestDom(L, 1);
    args.state_type = lua_type(L, 2);
    args.policy_type = lua_type(L, 3);
    // Only for strings: lua_tolstring would turn a number in the stack into one.
    if (args.state_type == LUA_TSTRING) args.state = lua_tostring(L, 2);
    if (args.policy_type == LUA_TSTRING) args.policy = lua_tolstring(L, 3, &args.policy_length);
    return args;
}

}  // namespace

int CheckSystemHealthMetrics(lua_State* L)
{
    const Arguments args = TakeArguments(L);
    // The result first: storing the action into it afterwards needs no memory, so an action that
    // has taken effect always reaches the script.
    lua_createtable(L, 0, 1);
    lua_pushboolean(L, 0);
    lua_setfield(L, -2, "action");
    int action = fc::kActionBadCall;
    fc::Guarded(L, [&] { action = RunCycle(args); });
    lua_pushinteger(L, action);
    lua_setfield(L, -2, "action");
    return 1;
}
