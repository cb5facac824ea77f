// Records of a run, replayed: vxa.replay and its methods.
#include "Replay.h"

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Holder.h"
#include "boundary/Values.h"

namespace vxa {

namespace {

using replay::Outcome;
using replay::Replay;
using replay::Stretch;

using ReplayHolder = std::unique_ptr<Replay>;  // null if the record could not be opened
using SettingsByKey = std::map<std::string, double>;
using PolicyList = std::vector<SettingsByKey>;

constexpr char kType[] = "vxa_replay_t*";
// Rows that one call reads: some milliseconds.
constexpr std::size_t kRowsPerCall = 10000;
constexpr lua_Number kUsPerSecond = 1e6;

Replay& CheckReplay(lua_State* L)
{
    const auto& held = *static_cast<ReplayHolder*>(luaL_checkudata(L, 1, kType));
    if (!held) luaL_argerror(L, 1, "the record is closed");
    return *held;
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

// vxa.replay(path, policies)
int MakeReplay(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    auto* policies = NewHolder<PolicyList>(L);
    TakePolicies(L, policies);
    auto* made = new (lua_newuserdata(L, sizeof(ReplayHolder))) ReplayHolder();
    luaL_setmetatable(L, kType);
    return SucceedsOrPushError(
               L, [&] { *made = std::make_unique<Replay>(path, MakePolicies(*policies)); })
               ? 1
               : 2;
}

int Close(lua_State* L)
{
    static_cast<ReplayHolder*>(luaL_checkudata(L, 1, kType))->reset();
    return 0;
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
    SetCount(L, "held", outcome.held);
    SetSeconds(L, "enforced", outcome.enforced_us);
    SetSeconds(L, "fail_open", outcome.fail_open_us);
    SetSeconds(L, "longest", outcome.longest_us);
    SetByMetric(L, "causes", outcome.causes);
    PushArray(L, outcome.stretches, PushStretch);
    lua_setfield(L, -2, "moments");
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
    SetByMetric(L, "missing", summary.missing);
    SetString(L, "heading", summary.heading);
    SetString(L, "policy", summary.settings);
}

// ---- methods ---------------------------------------------------------------------------

// replay:read(): how much of the file has been read, 1 at its end; or nil and a message.
int Read(lua_State* L)
{
    constexpr lua_Number kMostBeforeEnd = 0.999;  // the file may still grow
    Replay& replay = CheckReplay(L);
    bool has_more = false;
    if (!SucceedsOrPushError(L, [&] { has_more = replay.Read(kRowsPerCall); })) return 2;
    lua_pushnumber(L, has_more ? std::min(replay.Progress(), kMostBeforeEnd) : 1);
    return 1;
}

// replay:result(): the record's summary, with what the recorded run did as "recorded" and what the
// policies did as "outcomes".
int Result(lua_State* L)
{
    const Replay& replay = CheckReplay(L);
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

constexpr luaL_Reg kMethods[] = {
    {"read", Read},
    {"result", Result},
    {nullptr, nullptr},
};

}  // namespace

void OpenReplays(lua_State* L)
{
    RegisterHolder<PolicyList>(L);
    RegisterClass(L, kType, kMethods, Close);
    lua_pushcfunction(L, MakeReplay);
    lua_setfield(L, -2, "replay");
}

}  // namespace vxa
