// GetConnMetrics: the finished store as an array of rows.
//
// The store is taken over into a userdata that the collector would free, the rows are
// built in a protected call, and when Lua runs out of memory there the store goes back,
// so that the next report brings what this one could not.

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cwchar>
#include <iterator>
#include <new>
#include <string>
#include <string_view>

#include "ConnMetrics.h"
#include "LuaBoundary.h"

namespace {

using Text = std::wstring_view;

// Observations mostly name the same fields in the same order: the name that the row before
// had at a line is kept on the stack.
constexpr int kKeptNames = 16;

struct KeptName {
    Text text;  // stands in a text of the report's store
    int number_field;
};

struct Report {
    ConnMetricMap taken;
    std::string scratch;        // one value in multibyte encoding
    KeptName kept[kKeptNames];  // by line
};

// ---- names -----------------------------------------------------------------------------

struct FlagField {
    const char* name;
    long bit;
};

constexpr FlagField kFlagFields[] = {
    {"cf_ssl_connection", 0x1},         {"cf_start_tls", 0x100},
    {"cf_udp_connection", 0x2},         {"cf_outbound_connection", 0x4},
    {"cf_rsa_key_imported", 0x8},       {"cf_qoagent_key_imported", 0x10},
    {"cf_qoagent_key_not_found", 0x40}, {"cf_qoagent_key_error", 0x80},
    {"cf_qoagent_fail_open", 0x200},    {"cf_qoagent_throttled", 0x400},
    {"cf_qoagent_banned", 0x800},       {"cf_do_dpi", 0x20},
};
constexpr int kFlagCount = sizeof kFlagFields / sizeof kFlagFields[0];

// "cipher" is a number: the cipher suite's code.
constexpr struct {
    Text text;
    const char* name;
} kNumberFields[] = {
    {L"flags", "flags"},       {L"pid", "pid"},
    {L"dst_port", "dst_port"}, {L"tls_version", "tls_version"},
    {L"cipher", "cipher"},     {L"container_type", "container_type"},
};
constexpr int kNumberCount = sizeof kNumberFields / sizeof kNumberFields[0];
constexpr int kFlagsField = 0;

// Stack of the report while it is built: field names are looked up once per report.
enum StackIndex {
    kReportIndex = 1,
    kRowsIndex,
    kFirstNumberName,
    kFirstFlagName = kFirstNumberName + kNumberCount,
    kCountName = kFirstFlagName + kFlagCount,
    kFirstKeptName,
    kRowIndex = kFirstKeptName + kKeptNames
};
constexpr int kStackNeeded = kRowIndex + LUA_MINSTACK;

void PushNames(lua_State* L)  // [-0, +names, m]
{
    for (const auto& field : kNumberFields) lua_pushstring(L, field.name);
    for (const auto& field : kFlagFields) lua_pushstring(L, field.name);
    lua_pushliteral(L, "count");
    for (int i = 0; i < kKeptNames; ++i) lua_pushliteral(L, "");
}

void SetNumber(lua_State* L, int name, lua_Number value)  // [-0, +0, m]
{
    lua_pushvalue(L, name);
    lua_pushnumber(L, value);
    lua_rawset(L, kRowIndex);
}

// ---- values ----------------------------------------------------------------------------

bool IsSpace(wchar_t c)
{
    return c == L' ' || (c >= L'\t' && c <= L'\r');
}

// As strtol: blanks, a sign, digits up to the first other character; clamped to a long.
long ParseNumber(Text text)
{
    std::size_t at = 0;
    while (at < text.size() && IsSpace(text[at])) ++at;
    const bool negative = at < text.size() && text[at] == L'-';
    if (negative || (at < text.size() && text[at] == L'+')) ++at;
    long value = 0;  // kept negative: the negative range is the larger one
    for (; at < text.size() && text[at] >= L'0' && text[at] <= L'9'; ++at)
        if (__builtin_mul_overflow(value, 10L, &value) ||
            __builtin_sub_overflow(value, static_cast<long>(text[at] - L'0'), &value))
            return negative ? LONG_MIN : LONG_MAX;
    if (negative) return value;
    return value == LONG_MIN ? LONG_MAX : -value;
}

// Two plain loops, which the compiler turns into vector instructions.
bool NarrowAscii(Text text, char* buffer)
{
    std::uint32_t all = 0;
    for (wchar_t c : text) all |= static_cast<std::uint32_t>(c);
    for (std::size_t i = 0; i < text.size(); ++i) buffer[i] = static_cast<char>(text[i]);
    return all < 128;
}

// In the C library's multibyte encoding; empty when it cannot express the text.
void Encode(Text text, std::string* out)
{
    const wchar_t* source = text.data();
    std::mbstate_t state{};
    out->resize(text.size() * MB_CUR_MAX);
    const std::size_t length = wcsnrtombs(out->data(), &source, text.size(), out->size(), &state);
    out->resize(length == static_cast<std::size_t>(-1) ? 0 : length);
}

void PushText(lua_State* L, Report* report, Text text)  // [-0, +1, v]
{
    char buffer[512];
    if (text.size() <= sizeof buffer && NarrowAscii(text, buffer)) {
        lua_pushlstring(L, buffer, text.size());
        return;
    }
    fc::Guarded(L, [&] { Encode(text, &report->scratch); });
    lua_pushlstring(L, report->scratch.data(), report->scratch.size());
}

// ---- rows ------------------------------------------------------------------------------

void SetFlags(lua_State* L, long flags)  // [-0, +0, m]
{
    for (int i = 0; i < kFlagCount; ++i)
        SetNumber(L, kFirstFlagName + i, (flags & kFlagFields[i].bit) != 0 ? 1 : 0);
}

int NumberField(Text name)
{
    for (int i = 0; i < kNumberCount; ++i)
        if (name == kNumberFields[i].text) return i;
    return -1;
}

// Which number field the name at this line is, or -1: then the name itself is kept.
int KeepName(lua_State* L, Report* report, Text name, int line)  // [-0, +0, v]
{
    KeptName& kept = report->kept[line];
    if (name != kept.text) {
        const int field = NumberField(name);
        if (field < 0) {
            PushText(L, report, name);
            lua_replace(L, kFirstKeptName + line);
        }
        kept = {name, field};
    }
    return kept.number_field;
}

void SetField(lua_State* L, Report* report, Text name, Text value, int line)  // [-0, +0, v]
{
    const bool keeps = line < kKeptNames;
    const int field = keeps ? KeepName(L, report, name, line) : NumberField(name);
    if (field < 0) {
        if (keeps)
            lua_pushvalue(L, kFirstKeptName + line);
        else
            PushText(L, report, name);
        PushText(L, report, value);
        lua_rawset(L, kRowIndex);
        return;
    }
    const long number = ParseNumber(value);
    if (field == kFlagsField) SetFlags(L, number);
    SetNumber(L, kFirstNumberName + field, static_cast<lua_Number>(number));
}

void SetLine(lua_State* L, Report* report, Text line, int number)  // [-0, +0, v]
{
    const std::size_t tab = line.find(L'\t');
    if (tab == Text::npos)
        SetField(L, report, line, Text(), number);
    else
        SetField(L, report, line.substr(0, tab), line.substr(tab + 1), number);
}

// The next line of a text, which is shortened by it. Empty lines come out as such.
Text TakeLine(Text* text)
{
    const std::size_t end = text->find(L'\n');
    const Text line = text->substr(0, end);
    text->remove_prefix(end == Text::npos ? text->size() : end + 1);
    return line;
}

// At most how many fields a row will have, so that its table need not grow: the count,
// one a line, and those of the flags. Long texts repeat names: their tables may grow.
int CountFields(Text text)
{
    constexpr int most = 64;
    int fields = 1;
    while (!text.empty() && fields < most) {
        const Text line = TakeLine(&text);
        fields += line.substr(0, 6) == L"flags\t" ? 1 + kFlagCount : 1;
    }
    return fields;
}

void PushRow(lua_State* L, Report* report, const vxa_conn_metric_feedback_s& entry)
{
    Text text(entry.text.wc_str(), entry.text.length());
    lua_createtable(L, 0, CountFields(text));
    for (int number = 0; !text.empty(); ++number)
        if (const Text line = TakeLine(&text); !line.empty()) SetLine(L, report, line, number);
    SetNumber(L, kCountName, entry.count);
}

// Texts lie scattered over megabytes: fetching the next one while a row is built saves a
// quarter of a full report (19 to 14.5 ms for 10000 texts of 12 lines). Inlined always:
// the compiler takes a function that only prefetches for one without effect and drops it.
[[gnu::always_inline]] inline void Prefetch(const wxString& text)
{
    constexpr std::size_t characters_per_line = 64 / sizeof(wchar_t);  // of the cache
    constexpr std::size_t most = 512;
    const wchar_t* characters = text.wc_str();
    for (std::size_t i = 0; i < std::min(text.length(), most); i += characters_per_line)
        __builtin_prefetch(characters + i);
}

int BuildRows(lua_State* L)  // [-1, +1, v]
{
    auto* report = static_cast<Report*>(lua_touserdata(L, kReportIndex));
    std::fill(std::begin(report->kept), std::end(report->kept), KeptName{Text(), -1});
    if (!lua_checkstack(L, kStackNeeded)) return luaL_error(L, "not enough memory");
    lua_createtable(L, static_cast<int>(report->taken.size()), 0);
    PushNames(L);
    int index = 0;
    const ConnMetricMap& taken = report->taken;
    for (auto entry = taken.begin(); entry != taken.end();) {
        const vxa_conn_metric_feedback_s& current = entry->second;
        if (++entry != taken.end()) Prefetch(entry->second.text);
        PushRow(L, report, current);
        lua_rawseti(L, kRowsIndex, ++index);
    }
    lua_settop(L, kRowsIndex);
    return 1;
}

// ---- the store -------------------------------------------------------------------------

void TakeFinished(ConnMetricMap* taken)
{
    wxCriticalSectionLocker lock(g_cmfb_map_fin_cs);
    taken->swap(g_cmfb_map_fin);
}

// Publications may have come in between: they are later, so the texts taken before win.
void GiveBack(ConnMetricMap* taken)
{
    wxCriticalSectionLocker lock(g_cmfb_map_fin_cs);
    g_cmfb_map_fin.swap(*taken);
    MergeConnMetrics(taken, &g_cmfb_map_fin);
}

int DestroyReport(lua_State* L)
{
    static_cast<Report*>(lua_touserdata(L, 1))->~Report();
    return 0;
}

// An empty report owns no memory, so nothing is lost when the metatable cannot be made.
Report* PushReport(lua_State* L)  // [-0, +1, m]
{
    auto* report = new (lua_newuserdata(L, sizeof(Report))) Report;
    lua_createtable(L, 0, 1);
    lua_pushcfunction(L, DestroyReport);
    lua_setfield(L, -2, "__gc");
    lua_setmetatable(L, -2);
    return report;
}

// Leaves the rows, or an error, above the report. [-0, +1, -]
int Build(lua_State* L)
{
    lua_pushcfunction(L, BuildRows);
    lua_pushvalue(L, kReportIndex);
    return lua_pcall(L, 1, 1, 0);
}

// Everything that a report allocates is alive: collecting meanwhile would only walk it,
// for half of the report's time. Lua does not even try to collect when memory runs out
// then, so such a failure says nothing yet.
int BuildWithoutCollector(lua_State* L)
{
    const bool running = lua_gc(L, LUA_GCISRUNNING, 0) != 0;
    if (running) lua_gc(L, LUA_GCSTOP, 0);
    const int status = Build(L);
    if (running) lua_gc(L, LUA_GCRESTART, 0);
    return status;
}

}  // namespace

int GetConnMetrics(lua_State* L)
{
    lua_settop(L, 0);
    Report* report = PushReport(L);
    TakeFinished(&report->taken);
    int status = BuildWithoutCollector(L);
    if (status == LUA_ERRMEM) {
        lua_settop(L, kReportIndex);
        status = Build(L);
    }
    if (status != LUA_OK) {
        GiveBack(&report->taken);
        return lua_error(L);
    }
    // Not left to the collector: a full store is some ten megabytes.
    report->taken.clear();
    return 1;
}
