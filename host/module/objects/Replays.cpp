// Records of a run, replayed, and thresholds found in them: vxa.replay, vxa.tune and their methods.
#include "Replay.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Module.h"
#include "Tuner.h"
#include "boundary/Exceptions.h"
#include "boundary/Holder.h"
#include "boundary/Values.h"

namespace vxa {

namespace {

using replay::Outcome;
using replay::Replay;
using replay::Stretch;
using replay::Tuner;

using SettingsByKey = std::map<std::string, double>;
using PolicyList = std::vector<SettingsByKey>;

// The name of the userdata that holds a T; its pointer is null if the record could not be opened.
template <typename T>
constexpr char kType[] = "";
template <>
constexpr char kType<Replay>[] = "vxa_replay_t*";
template <>
constexpr char kType<Tuner>[] = "vxa_tuner_t*";

// What one call reads: some milliseconds.
constexpr std::size_t kEventsPerCall = 10000;
constexpr lua_Number kUsPerSecond = 1e6;

// Returns argument 1; else raises an argument error. [-0, +0, v]
template <typename T>
T& Check(lua_State* L)
{
    const auto& held = *static_cast<std::unique_ptr<T>*>(luaL_checkudata(L, 1, kType<T>));
    if (!held) luaL_argerror(L, 1, "the record is closed");
    return *held;
}

// Pushes a userdata with what `make` returns; or nil and a message if it throws. [-0, +(1|2), m]
template <typename T, typename Make>
int Push(lua_State* L, Make make)
{
    auto* held = new (lua_newuserdata(L, sizeof(std::unique_ptr<T>))) std::unique_ptr<T>();
    luaL_setmetatable(L, kType<T>);
    return SucceedsOrPushError(L, [&] { *held = make(); }) ? 1 : kErrorResults;
}

template <typename T>
int Close(lua_State* L)
{
    static_cast<std::unique_ptr<T>*>(luaL_checkudata(L, 1, kType<T>))->reset();
    return 0;
}

// Does some of the work and pushes how much of all of it is done, 1 at the end; or nil and a
// message. [-0, +(1|2), m]
template <typename T, typename Work>
int Continue(lua_State* L, Work work)
{
    constexpr lua_Number kMostBeforeEnd = 0.999;  // the file may still grow
    T& object = Check<T>(L);
    bool has_more = false;
    if (!SucceedsOrPushError(L, [&] { has_more = work(object); })) return kErrorResults;
    lua_pushnumber(L, has_more ? std::min(object.Progress(), kMostBeforeEnd) : 1);
    return 1;
}

// ---- policies --------------------------------------------------------------------------

// Adds the settings in the table on top: numbers by their keys. [-0, +0, v]
void AddPolicy(lua_State* L, PolicyList* policies)
{
    luaL_argcheck(L, lua_istable(L, -1), 2, "an array of tables expected");
    CallOrRaise(L, [&] { policies->emplace_back(); });
    for (lua_pushnil(L); lua_next(L, -2) != 0; lua_pop(L, 1)) {
        luaL_argcheck(L, lua_type(L, -2) == LUA_TSTRING && lua_type(L, -1) == LUA_TNUMBER, 2,
                      "settings are numbers by their keys");
        const char* const key = lua_tostring(L, -2);
        const lua_Number number = lua_tonumber(L, -1);
        luaL_argcheck(L, !std::isnan(number), 2, "a setting is not a number");
        CallOrRaise(L, [&] { policies->back()[key] = number; });
    }
}

// Takes the array that is argument 2. [-0, +0, v]
void TakePolicies(lua_State* L, PolicyList* policies)
{
    luaL_checktype(L, 2, LUA_TTABLE);
    for (int i = 1;; ++i) {
        lua_rawgeti(L, 2, i);
        const bool is_end = lua_isnil(L, -1);
        if (!is_end) AddPolicy(L, policies);
        lua_pop(L, 1);
        if (is_end) return;
    }
}

replay::Policy MakePolicy(const SettingsByKey& settings)
{
    return replay::MakePolicy([&](const char* key) {
        const auto found = settings.find(key);
        return found == settings.end() ? std::nullopt : std::optional(found->second);
    });
}

std::vector<replay::Policy> MakePolicies(const PolicyList& policies)
{
    std::vector<replay::Policy> made;
    for (const SettingsByKey& settings : policies) made.push_back(MakePolicy(settings));
    return made;
}

// vxa.replay(path, policies [, first_cycles])
int MakeReplay(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    const lua_Number first_cycles = luaL_optnumber(L, 3, 0);
    luaL_argcheck(L, first_cycles >= 0 && first_cycles <= 1e15, 3, "a number of cycles expected");
    auto* policies = NewHolder<PolicyList>(L);
    TakePolicies(L, policies);
    return Push<Replay>(L, [&] {
        return std::make_unique<Replay>(path, MakePolicies(*policies),
                                        static_cast<std::uint64_t>(first_cycles));
    });
}

// vxa.tune(path, entries_per_week [, minimum_minutes])
int MakeTuner(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    const lua_Number entries = luaL_checknumber(L, 2);
    luaL_argcheck(L, entries >= 0 && entries <= 1e9, 2, "a number from 0 to 1e9 expected");
    const lua_Number minutes = luaL_optnumber(L, 3, 0);
    luaL_argcheck(L, minutes >= 0 && minutes <= 60, 3, "a number from 0 to 60 expected");
    std::optional<std::uint64_t> minimum_minutes;
    if (!lua_isnoneornil(L, 3)) minimum_minutes = static_cast<std::uint64_t>(minutes);
    return Push<Tuner>(L, [&] { return std::make_unique<Tuner>(path, entries, minimum_minutes); });
}

// ---- results ---------------------------------------------------------------------------

void SetSeconds(lua_State* L, const char* name, std::uint64_t us)  // [-0, +0, m]
{
    SetNumber(L, name, static_cast<lua_Number>(us) / kUsPerSecond);
}

void SetCount(lua_State* L, const char* name, std::uint64_t count)  // [-0, +0, m]
{
    SetNumber(L, name, static_cast<lua_Number>(count));
}

// Sets a table of numbers by metric; counts of 0 are left out. [-0, +0, m]
void SetByMetric(lua_State* L, const char* name,
                 const std::array<std::uint64_t, fc::kMetricCount>& counts)
{
    lua_newtable(L);
    for (const auto& metric : replay::kMetrics)
        if (counts[metric.metric] != 0) SetCount(L, metric.column, counts[metric.metric]);
    lua_setfield(L, -2, name);
}

void PushCause(lua_State* L, const Stretch& stretch, fc::Metric metric)  // [-0, +1, m]
{
    lua_createtable(L, 0, 3);
    SetString(L, "name", replay::kMetrics[metric].column);
    SetNumber(L, "value", stretch.values[metric]);
    SetNumber(L, "threshold", stretch.thresholds[metric]);
}

void SetCauses(lua_State* L, const Stretch& stretch)  // [-0, +0, m]
{
    lua_newtable(L);
    int index = 0;
    for (const auto& metric : replay::kMetrics) {
        if ((stretch.over >> metric.metric & 1) == 0) continue;
        PushCause(L, stretch, metric.metric);
        lua_rawseti(L, -2, ++index);
    }
    lua_setfield(L, -2, "over");
}

void PushStretch(lua_State* L, const Stretch& stretch)  // [-0, +1, m]
{
    lua_createtable(L, 0, 5);
    SetSeconds(L, "entered", stretch.entered_us);
    SetSeconds(L, "lasted", stretch.lasted_us);
    SetCauses(L, stretch);
    if (stretch.end == Stretch::End::kNone) return;
    SetSeconds(L, "left", stretch.left_us);
    SetBoolean(L, "restarted", stretch.end == Stretch::End::kRestart);
}

void PushOutcome(lua_State* L, const Outcome& outcome)  // [-0, +1, m]
{
    lua_newtable(L);
    SetCount(L, "entries", outcome.entries);
    SetCount(L, "first_entries", outcome.first_entries);
    SetCount(L, "held", outcome.held);
    SetSeconds(L, "enforced", outcome.enforced_us);
    SetSeconds(L, "fail_open", outcome.fail_open_us);
    SetSeconds(L, "longest", outcome.longest_us);
    SetByMetric(L, "causes", outcome.causes);
    PushArray(L, outcome.stretches, PushStretch);
    lua_setfield(L, -2, "stretches");
}

void PushSummary(lua_State* L, const replay::RecordSummary& summary)  // [-0, +1, m]
{
    lua_newtable(L);
    SetCount(L, "cycles", summary.cycles);
    SetCount(L, "measured", summary.measured);
    SetCount(L, "disabled", summary.disabled);
    SetCount(L, "failed", summary.failed);
    SetCount(L, "starts", summary.starts);
    SetCount(L, "gaps", summary.gaps);
    SetCount(L, "port", static_cast<std::uint64_t>(summary.port));
    SetSeconds(L, "counted", summary.counted_us);
    SetSeconds(L, "first", summary.first_us);
    SetSeconds(L, "last", summary.last_us);
    SetNumber(L, "interval", summary.interval_s);
    SetNumber(L, "sampled", summary.sampled_s);
    SetByMetric(L, "missing", summary.missing);
    SetString(L, "heading", summary.heading);
    SetString(L, "policy", summary.settings);
}

// ---- methods ---------------------------------------------------------------------------

// read(): how much is done, 1 at the end; or nil and a message.
int ReadReplay(lua_State* L)
{
    return Continue<Replay>(L, [](Replay& replay) { return replay.Read(kEventsPerCall); });
}

int ReadTuner(lua_State* L)
{
    return Continue<Tuner>(L, [](Tuner& tuner) { return tuner.Step(); });
}

// replay:result(): the record's summary, with what the recorded run did as "recorded" and what the
// policies did as "outcomes".
int ReplayResult(lua_State* L)
{
    const Replay& replay = Check<Replay>(L);
    PushSummary(L, replay.Summary());
    PushOutcome(L, replay.Recorded());
    lua_setfield(L, -2, "recorded");
    lua_createtable(L, static_cast<int>(replay.Trackers().size()), 0);
    for (std::size_t i = 0; i < replay.Trackers().size(); ++i) {
        PushOutcome(L, replay.Trackers()[i].GetOutcome());
        SetBoolean(L, "monitoring", replay.Monitors()[i].GetPolicy().monitors);
        lua_rawseti(L, -2, static_cast<int>(i) + 1);
    }
    lua_setfield(L, -2, "outcomes");
    return 1;
}

void PushMetricResult(lua_State* L, const Tuner::MetricResult& result)  // [-0, +1, m]
{
    lua_createtable(L, 0, 6);
    SetCount(L, "count", result.count);
    SetCount(L, "first_half_count", result.first_half_count);
    SetNumber(L, "sampled", result.sampled_s);
    PushArray(L, result.quantiles, lua_pushnumber);
    lua_setfield(L, -2, "quantiles");
    if (result.tightest) SetNumber(L, "tightest", *result.tightest);
    if (result.loosest) SetNumber(L, "loosest", *result.loosest);
}

// tuner:result(): the record's summary, that of its first half as "first", what was found by
// metric as "metrics", and how many entries were allowed in the first half as "allowed".
int TunerResult(lua_State* L)
{
    const Tuner& tuner = Check<Tuner>(L);
    PushSummary(L, tuner.Summary());
    PushSummary(L, tuner.FirstHalf());
    lua_setfield(L, -2, "first_half");
    SetCount(L, "allowed", tuner.EntriesAllowed());
    SetCount(L, "minimum_minutes", tuner.MinimumMinutes());
    lua_createtable(L, 0, fc::kMetricCount);
    for (const auto& metric : replay::kMetrics) {
        PushMetricResult(L, tuner.Result(metric.metric));
        lua_setfield(L, -2, metric.column);
    }
    lua_setfield(L, -2, "metrics");
    return 1;
}

constexpr luaL_Reg kReplayMethods[] = {
    {"read", ReadReplay},
    {"result", ReplayResult},
    {nullptr, nullptr},
};
constexpr luaL_Reg kTunerMethods[] = {
    {"read", ReadTuner},
    {"result", TunerResult},
    {nullptr, nullptr},
};

constexpr luaL_Reg kFunctions[] = {
    {"replay", MakeReplay},
    {"tune", MakeTuner},
    {nullptr, nullptr},
};

}  // namespace

void OpenReplays(lua_State* L)
{
    RegisterHolder<PolicyList>(L);
    RegisterClass(L, kType<Replay>, kReplayMethods, Close<Replay>);
    RegisterClass(L, kType<Tuner>, kTunerMethods, Close<Tuner>);
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
