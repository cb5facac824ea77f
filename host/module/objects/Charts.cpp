// What a picture of a record shows: vxa.chart and its methods.
#include <algorithm>
#include <cmath>
#include <memory>
#include <string>

#include "Chart.h"
#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Holder.h"
#include "boundary/Values.h"

namespace vxa {

namespace {

using replay::Chart;
using replay::MetricLines;
using ChartHolder = std::unique_ptr<Chart>;

constexpr char kType[] = "vxa_chart_t*";
constexpr std::size_t kRowsAtOnce = 100000;

Chart& CheckChart(lua_State* L)
{
    auto& chart = *static_cast<ChartHolder*>(luaL_checkudata(L, 1, kType));
    if (!chart) luaL_argerror(L, 1, "the chart is closed");
    return *chart;
}

std::int64_t OptionalTimeUs(lua_State* L, int index, std::int64_t otherwise)
{
    if (lua_isnoneornil(L, index)) return otherwise;
    constexpr lua_Number kMostS = 1e12;
    const lua_Number seconds = luaL_checknumber(L, index);
    luaL_argcheck(L, std::abs(seconds) <= kMostS, index, "seconds since the epoch expected");
    return std::llround(seconds * 1e6);
}

// chart(path [, policy [, since [, until]]]): an object, or nil and a message.
int MakeChart(lua_State* L)
{
    const char* path = CheckPath(L, 1);
    const char* policy = luaL_optstring(L, 2, nullptr);
    const std::int64_t since_us = OptionalTimeUs(L, 3, Chart::Options().since_us);
    const std::int64_t until_us = OptionalTimeUs(L, 4, Chart::Options().until_us);
    auto* chart = new (lua_newuserdata(L, sizeof(ChartHolder))) ChartHolder();
    luaL_setmetatable(L, kType);
    const auto open = [&] {
        Chart::Options options;
        if (policy) options.policy = replay::ParsePolicy(policy);
        options.since_us = since_us;
        options.until_us = until_us;
        *chart = std::make_unique<Chart>(path, options);
    };
    return SucceedsOrPushError(L, open) ? 1 : kErrorResults;
}

int Read(lua_State* L)
{
    Chart& chart = CheckChart(L);
    bool is_more = false;
    if (!SucceedsOrPushError(L, [&] { is_more = chart.Read(kRowsAtOnce); })) return kErrorResults;
    lua_pushnumber(L, is_more ? std::min(chart.Progress(), 0.999) : 1);
    return 1;
}

double Seconds(std::int64_t us)
{
    return static_cast<double>(us) / 1e6;
}

void PushPeriod(lua_State* L, const replay::Period& period)
{
    lua_createtable(L, 0, 2);
    SetNumber(L, "from", Seconds(period.from_us));
    SetNumber(L, "to", Seconds(period.to_us));
}

// The thresholds by metric: an absent one is not judged.
void PushPolicy(lua_State* L, const replay::PolicyChange& change)
{
    lua_createtable(L, 0, fc::kMetricCount + 1);
    SetNumber(L, "from", Seconds(change.from_us));
    for (const auto& names : replay::kMetrics)
        if (change.policy.monitors && (change.policy.judged >> names.metric & 1) != 0)
            SetNumber(L, names.column, change.policy.thresholds[names.metric]);
}

// Pushes nothing for a metric without values.
bool PushMetric(lua_State* L, MetricLines& metric)
{
    if (metric.lines.empty()) return false;
    lua_createtable(L, 0, 3);
    SetNumber(L, "least", metric.least);
    SetNumber(L, "greatest", metric.greatest);
    PushAndFree(L, metric.lines);
    lua_setfield(L, -2, "lines");
    return true;
}

void PushMetrics(lua_State* L, const Chart& chart)
{
    auto* metric = NewHolder<MetricLines>(L);
    lua_createtable(L, 0, fc::kMetricCount);
    for (const auto& names : replay::kMetrics) {
        CallOrRaise(L, [&] { *metric = chart.Lines(names.metric); });
        if (PushMetric(L, *metric)) lua_setfield(L, -2, names.column);
    }
    lua_remove(L, -2);
}

int Result(lua_State* L)
{
    const Chart& chart = CheckChart(L);
    PushPeriod(L, chart.Shown());
    SetNumber(L, "rows", static_cast<lua_Number>(chart.Rows()));
    SetNumber(L, "entries", static_cast<lua_Number>(chart.Entries()));
    SetNumber(L, "fail_open_s", static_cast<double>(chart.FailOpenUs()) / 1e6);
    SetNumber(L, "counted_s", static_cast<double>(chart.CountedUs()) / 1e6);
    SetString(L, "heading", chart.Heading());
    PushArray(L, chart.FailOpen(), PushPeriod);
    lua_setfield(L, -2, "fail_open");
    PushArray(L, chart.Policies(), PushPolicy);
    lua_setfield(L, -2, "policies");
    PushMetrics(L, chart);
    lua_setfield(L, -2, "metrics");
    return 1;
}

int Close(lua_State* L)
{
    static_cast<ChartHolder*>(luaL_checkudata(L, 1, kType))->reset();
    return 0;
}

constexpr luaL_Reg kMethods[] = {
    {"read", Read},
    {"result", Result},
    {nullptr, nullptr},
};

}  // namespace

void OpenCharts(lua_State* L)
{
    RegisterHolder<MetricLines>(L);
    RegisterClass(L, kType, kMethods, Close);
    lua_pushcfunction(L, MakeChart);
    lua_setfield(L, -2, "chart");
}

}  // namespace vxa
