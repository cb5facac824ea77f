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
#include <vector>

#include "ConnMetrics.h"
#include "LuaBoundary.h"

namespace {

// Most observations have the same fields in the same order, and many values repeat. So for each
// line of a text the name and the string last seen there stay on the stack, and are pushed again
// instead of being made again. Lines further down share the places of the first ones.
constexpr int kKeptLines = 16;

// Differs from every name and value: none contains a line feed.
constexpr std::string_view kNothing = "\n";

struct KeptLine {
    std::string_view name;   // the string at name_index; kNothing unless it is ASCII
    std::string_view value;  // the string at kFirstKeptValue + line; kNothing unless ASCII
    int name_index;
};

struct Report {
    ConnMetricMap taken;
    std::vector<ConnMetricMap::iterator> entries;  // of taken, in order
    const wchar_t* wide;                           // text of the entry being reported
    std::string bytes;    // the same text, a byte per character; kNotAscii for those above 127
    std::string encoded;  // one name or value in multibyte encoding
    KeptLine kept[kKeptLines];
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
constexpr std::string_view kNumberFields[] = {"flags",       "pid",    "dst_port",
                                              "tls_version", "cipher", "container_type"};
constexpr int kNumberCount = sizeof kNumberFields / sizeof kNumberFields[0];

// Stack of the report while it is built: field names are looked up once per report.
enum StackIndex {
    kReportIndex = 1,
    kRowsIndex,
    kFirstNumberName,
    kFlagsName = kFirstNumberName,
    kFirstFlagName = kFirstNumberName + kNumberCount,
    kCountName = kFirstFlagName + kFlagCount,
    kFirstKeptName,
    kFirstKeptValue = kFirstKeptName + kKeptLines,
    kRowIndex = kFirstKeptValue + kKeptLines
};
constexpr int kStackNeeded = kRowIndex + LUA_MINSTACK;

void PushNames(lua_State* L)  // [-0, +names, m]
{
    for (const auto field : kNumberFields) lua_pushlstring(L, field.data(), field.size());
    for (const auto& field : kFlagFields) lua_pushstring(L, field.name);
    lua_pushliteral(L, "count");
    for (int i = kFirstKeptName; i < kRowIndex; ++i) lua_pushnil(L);
}

void SetNumber(lua_State* L, int name, lua_Number value)  // [-0, +0, m]
{
    lua_pushvalue(L, name);
    lua_pushnumber(L, value);
    lua_rawset(L, kRowIndex);
}

// ---- values ----------------------------------------------------------------------------

bool IsSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// As strtol: blanks, a sign, digits up to the first other character; clamped to a long.
long ParseNumber(std::string_view text)
{
    std::size_t at = 0;
    while (at < text.size() && IsSpace(text[at])) ++at;
    const bool negative = at < text.size() && text[at] == '-';
    if (negative || (at < text.size() && text[at] == '+')) ++at;
    long value = 0;  // kept negative: the negative range is the larger one
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at)
        if (__builtin_mul_overflow(value, 10L, &value) ||
            __builtin_sub_overflow(value, static_cast<long>(text[at] - '0'), &value))
            return negative ? LONG_MIN : LONG_MAX;
    if (negative) return value;
    return value == LONG_MIN ? LONG_MAX : -value;
}

constexpr char kNotAscii = '\x80';

// Two plain loops for ASCII, which the compiler turns into vector instructions.
void Narrow(const wchar_t* text, std::size_t length, char* bytes)
{
    std::uint32_t all = 0;
    for (std::size_t i = 0; i < length; ++i) all |= static_cast<std::uint32_t>(text[i]);
    for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(text[i]);
    if (all < 128) return;
    for (std::size_t i = 0; i < length; ++i)
        if (static_cast<std::uint32_t>(text[i]) >= 128) bytes[i] = kNotAscii;
}

// Makes an entry's text the one being reported and returns its bytes.
std::string_view Select(lua_State* L, Report* report, const wxString& text)  // [-0, +0, v]
{
    report->wide = text.wc_str();
    const std::size_t length = text.length();
    if (report->bytes.size() < length) fc::Guarded(L, [&] { report->bytes.resize(length); });
    Narrow(report->wide, length, report->bytes.data());
    return {report->bytes.data(), length};
}

bool IsAscii(std::string_view piece)
{
    return piece.find(kNotAscii) == std::string_view::npos;
}

// Converts to the C library's multibyte encoding; empty when that cannot express the text.
void Encode(const wchar_t* text, std::size_t length, std::string* out)
{
    std::mbstate_t state{};
    out->resize(length * MB_CUR_MAX);
    const std::size_t size = wcsnrtombs(out->data(), &text, length, out->size(), &state);
    out->resize(size == static_cast<std::size_t>(-1) ? 0 : size);
}

// Pushes a piece of the text being reported. [-0, +1, v]
void PushPiece(lua_State* L, Report* report, std::string_view piece)
{
    if (IsAscii(piece)) {
        lua_pushlstring(L, piece.data(), piece.size());
        return;
    }
    const wchar_t* const wide = report->wide + (piece.data() - report->bytes.data());
    fc::Guarded(L, [&] { Encode(wide, piece.size(), &report->encoded); });
    lua_pushlstring(L, report->encoded.data(), report->encoded.size());
}

// Puts a piece at a stack index and returns what later pieces must equal to be the same string:
// its bytes, or kNothing where those do not identify it. [-0, +0, v]
std::string_view Keep(lua_State* L, Report* report, std::string_view piece, int index)
{
    PushPiece(L, report, piece);
    lua_replace(L, index);
    return IsAscii(piece) ? std::string_view(lua_tostring(L, index), piece.size()) : kNothing;
}

// ---- rows ------------------------------------------------------------------------------

void SetFlags(lua_State* L, long flags)  // [-0, +0, m]
{
    for (int i = 0; i < kFlagCount; ++i)
        SetNumber(L, kFirstFlagName + i, (flags & kFlagFields[i].bit) != 0 ? 1 : 0);
}

// Stack index of the name if it is that of a number field, or 0.
int NumberIndex(std::string_view name)
{
    for (int i = 0; i < kNumberCount; ++i)
        if (name == kNumberFields[i]) return kFirstNumberName + i;
    return 0;
}

void SetString(lua_State* L, Report* report, std::string_view value, int line)  // [-0, +0, v]
{
    KeptLine& kept = report->kept[line];
    const int index = kFirstKeptValue + line;
    if (value != kept.value) kept.value = Keep(L, report, value, index);
    lua_pushvalue(L, kept.name_index);
    lua_pushvalue(L, index);
    lua_rawset(L, kRowIndex);
}

void SetField(lua_State* L, Report* report, std::string_view name, std::string_view value,
              int line)  // [-0, +0, v]
{
    KeptLine& kept = report->kept[line];
    if (name != kept.name) {
        kept.name_index = NumberIndex(name);
        if (kept.name_index != 0) {
            kept.name = kNumberFields[kept.name_index - kFirstNumberName];
        } else {
            kept.name_index = kFirstKeptName + line;
            kept.name = Keep(L, report, name, kept.name_index);
        }
    }
    if (kept.name_index >= kFirstKeptName) return SetString(L, report, value, line);
    const long number = ParseNumber(value);
    if (kept.name_index == kFlagsName) SetFlags(L, number);
    SetNumber(L, kept.name_index, static_cast<lua_Number>(number));
}

void SetLine(lua_State* L, Report* report, std::string_view line, int number)  // [-0, +0, v]
{
    const std::size_t tab = line.find('\t');
    if (tab == std::string_view::npos)
        SetField(L, report, line, std::string_view(), number);
    else
        SetField(L, report, line.substr(0, tab), line.substr(tab + 1), number);
}

// The next line of a text, which is shortened by it. Empty lines come out as such.
std::string_view TakeLine(std::string_view* text)
{
    const std::size_t end = text->find('\n');
    const std::string_view line = text->substr(0, end);
    text->remove_prefix(end == std::string_view::npos ? text->size() : end + 1);
    return line;
}

// At most how many fields a row will have, so that its table need not grow: the count,
// one a line, and those of the flags. Long texts repeat names: their tables may grow.
int CountFields(std::string_view text)
{
    constexpr int kMost = 64;
    int fields = 1;
    while (!text.empty() && fields < kMost) {
        const std::string_view line = TakeLine(&text);
        fields += line.substr(0, 6) == "flags\t" ? 1 + kFlagCount : 1;
    }
    return fields;
}

// Leaves the row on the stack. [-0, +1, v]
void PushRow(lua_State* L, Report* report, const vxa_conn_metric_feedback_s& entry)
{
    std::string_view text = Select(L, report, entry.text);
    lua_createtable(L, 0, CountFields(text));
    for (int number = 0; !text.empty(); ++number)
        if (const std::string_view line = TakeLine(&text); !line.empty())
            SetLine(L, report, line, number % kKeptLines);
    SetNumber(L, kCountName, entry.count);
}

// ---- the taken store -------------------------------------------------------------------

// Entries are scattered over megabytes, in another order than that of their keys. Prefetching
// the next ones takes a fifth off the time of a full report's rows (12.8 to 10.2 ms for 10000
// texts of 12 lines) and half off that of freeing them (2.2 to 1.1 ms).
//
// Always inlined: the compiler considers a function that only prefetches free of effects and
// drops its calls.
[[gnu::always_inline]] inline void PrefetchNode(const ConnMetricMap::value_type& entry)
{
    __builtin_prefetch(&entry);
    __builtin_prefetch(&entry.second.text);
    __builtin_prefetch(&entry.second.count);
}

[[gnu::always_inline]] inline void PrefetchText(const wxString& text)
{
    constexpr std::size_t kCharactersPerLine = 64 / sizeof(wchar_t);  // of the cache
    constexpr std::size_t kMost = 512;
    const wchar_t* characters = text.wc_str();
    for (std::size_t i = 0; i < std::min(text.length(), kMost); i += kCharactersPerLine)
        __builtin_prefetch(characters + i);
}

// The allocator's bookkeeping on both sides of a string.
[[gnu::always_inline]] inline void PrefetchEnds(const wxString& text)
{
    const wchar_t* characters = text.wc_str();
    __builtin_prefetch(characters - 1);
    __builtin_prefetch(characters + text.length() + 1);
}

constexpr std::size_t kNodesAhead = 8;
constexpr std::size_t kStringsAhead = 4;

// Walks from both ends at once: the misses of the two walks overlap.
void ListEntries(Report* report)
{
    std::vector<ConnMetricMap::iterator>& entries = report->entries;
    entries.resize(report->taken.size());
    auto front = report->taken.begin();
    auto back = report->taken.end();
    for (std::size_t i = 0, j = entries.size(); i < j;) {
        entries[i++] = front++;
        if (i < j) entries[--j] = --back;
    }
}

// Does what clear() does, but with prefetching.
void Free(Report* report)
{
    const std::vector<ConnMetricMap::iterator>& entries = report->entries;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (i + kNodesAhead < entries.size()) PrefetchNode(*entries[i + kNodesAhead]);
        if (i + kStringsAhead < entries.size()) {
            PrefetchEnds(entries[i + kStringsAhead]->first);
            PrefetchEnds(entries[i + kStringsAhead]->second.text);
        }
        report->taken.extract(entries[i]);
    }
    *report = Report();
}

// ---- the report ------------------------------------------------------------------------

int BuildRows(lua_State* L)  // [-1, +1, v]
{
    auto* report = static_cast<Report*>(lua_touserdata(L, kReportIndex));
    std::fill(std::begin(report->kept), std::end(report->kept), KeptLine{kNothing, kNothing, 0});
    fc::Guarded(L, [&] { ListEntries(report); });
    if (!lua_checkstack(L, kStackNeeded)) return luaL_error(L, "not enough memory");
    lua_createtable(L, static_cast<int>(report->taken.size()), 0);
    PushNames(L);
    const std::vector<ConnMetricMap::iterator>& entries = report->entries;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (i + kNodesAhead < entries.size()) PrefetchNode(*entries[i + kNodesAhead]);
        if (i + 1 < entries.size()) PrefetchText(entries[i + 1]->second.text);
        PushRow(L, report, entries[i]->second);
        lua_rawseti(L, kRowsIndex, static_cast<int>(i + 1));
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
    Free(report);
    return 1;
}
