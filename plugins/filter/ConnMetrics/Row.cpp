// Rows of the connection metrics report: an observation's text as a Lua table of fields.

#include "Row.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cwchar>
#include <iterator>

#include "LuaBoundary.h"

namespace fc {
namespace {

// ---- fields ----------------------------------------------------------------------------

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

// Differs from every name and value: none contains a line feed.
constexpr std::string_view kMatchesNothing = "\n";

// Stack positions of the field names, the cached strings and the row.
constexpr int kCachedLines = RowBuilder::kCachedLines;
enum StackIndex {
    kFirstNumberName = RowBuilder::kFirstIndex,
    kFlagsName = kFirstNumberName,
    kFirstFlagName = kFirstNumberName + kNumberCount,
    kCountName = kFirstFlagName + kFlagCount,
    kFirstCachedName,
    kFirstCachedValue = kFirstCachedName + kCachedLines,
    kRowIndex = kFirstCachedValue + kCachedLines
};

void SetNumber(lua_State* L, int name_index, lua_Number value)  // [-0, +0, m]
{
    lua_pushvalue(L, name_index);
    lua_pushnumber(L, value);
    lua_rawset(L, kRowIndex);
}

void SetFlags(lua_State* L, long flags)  // [-0, +0, m]
{
    for (int i = 0; i < kFlagCount; ++i)
        SetNumber(L, kFirstFlagName + i, (flags & kFlagFields[i].bit) != 0 ? 1 : 0);
}

// Returns the stack index of a number field's name, or 0 for another name.
int NumberNameIndex(std::string_view name)
{
    for (int i = 0; i < kNumberCount; ++i)
        if (name == kNumberFields[i]) return kFirstNumberName + i;
    return 0;
}

// ---- numbers and strings ---------------------------------------------------------------

bool IsSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// As strtol to base 10: blanks, a sign, digits up to the first other character; clamped to a
// long.
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

// Two plain loops for ASCII, which the compiler vectorizes.
void Narrow(const wchar_t* text, std::size_t length, char* bytes)
{
    std::uint32_t all = 0;
    for (std::size_t i = 0; i < length; ++i) all |= static_cast<std::uint32_t>(text[i]);
    for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(text[i]);
    if (all < 128) return;
    for (std::size_t i = 0; i < length; ++i)
        if (static_cast<std::uint32_t>(text[i]) >= 128) bytes[i] = kNotAscii;
}

bool IsAscii(std::string_view piece)
{
    return piece.find(kNotAscii) == std::string_view::npos;
}

// Encodes in the C library's multibyte encoding; the result is empty if that cannot express the
// text.
void EncodeMultibyte(const wchar_t* text, std::size_t length, std::string* encoded)
{
    std::mbstate_t state{};
    encoded->resize(length * MB_CUR_MAX);
    const std::size_t size = wcsnrtombs(encoded->data(), &text, length, encoded->size(), &state);
    encoded->resize(size == static_cast<std::size_t>(-1) ? 0 : size);
}

// ---- lines -----------------------------------------------------------------------------

// Removes the first line from a text and returns it without its line feed.
std::string_view TakeLine(std::string_view* text)
{
    const std::size_t end = text->find('\n');
    const std::string_view line = text->substr(0, end);
    text->remove_prefix(end == std::string_view::npos ? text->size() : end + 1);
    return line;
}

// Returns an upper bound of the number of fields in a text's row, so that its table need not grow:
// the count, one per line, and those of the flags. Bounded, because long texts may repeat names.
int CountFields(std::string_view text)
{
    constexpr int kMaxCounted = 64;
    int fields = 1;
    while (!text.empty() && fields < kMaxCounted) {
        const std::string_view line = TakeLine(&text);
        fields += line.substr(0, 6) == "flags\t" ? 1 + kFlagCount : 1;
    }
    return fields;
}

}  // namespace

void RowBuilder::Begin(lua_State* L)
{
    std::fill(std::begin(m_cached), std::end(m_cached),
              CachedLine{kMatchesNothing, kMatchesNothing, 0});
    if (!lua_checkstack(L, kRowIndex + LUA_MINSTACK)) luaL_error(L, "not enough memory");
    for (const auto field : kNumberFields) lua_pushlstring(L, field.data(), field.size());
    for (const auto& field : kFlagFields) lua_pushstring(L, field.name);
    lua_pushliteral(L, "count");
    for (int i = kFirstCachedName; i < kRowIndex; ++i) lua_pushnil(L);
}

// Sets the text of the current row and returns its bytes. [-0, +0, v]
std::string_view RowBuilder::SelectText(lua_State* L, const wxString& text)
{
    m_wide = text.wc_str();
    const std::size_t length = text.length();
    if (m_bytes.size() < length) Guarded(L, [&] { m_bytes.resize(length); });
    Narrow(m_wide, length, m_bytes.data());
    return {m_bytes.data(), length};
}

// Pushes a piece of the current text. [-0, +1, v]
void RowBuilder::PushPiece(lua_State* L, std::string_view piece)
{
    if (IsAscii(piece)) {
        lua_pushlstring(L, piece.data(), piece.size());
        return;
    }
    const wchar_t* const wide = m_wide + (piece.data() - m_bytes.data());
    Guarded(L, [&] { EncodeMultibyte(wide, piece.size(), &m_encoded); });
    lua_pushlstring(L, m_encoded.data(), m_encoded.size());
}

// Puts a piece at a stack index and returns the bytes that later pieces must equal to be the same
// string, or kMatchesNothing where bytes do not identify it. [-0, +0, v]
std::string_view RowBuilder::CachePiece(lua_State* L, std::string_view piece, int index)
{
    PushPiece(L, piece);
    lua_replace(L, index);
    return IsAscii(piece) ? std::string_view(lua_tostring(L, index), piece.size())
                          : kMatchesNothing;
}

void RowBuilder::CacheName(lua_State* L, std::string_view name, int position)  // [-0, +0, v]
{
    CachedLine& cached = m_cached[position];
    cached.name_index = NumberNameIndex(name);
    if (cached.name_index != 0) {
        cached.name = kNumberFields[cached.name_index - kFirstNumberName];
    } else {
        cached.name_index = kFirstCachedName + position;
        cached.name = CachePiece(L, name, cached.name_index);
    }
}

void RowBuilder::SetString(lua_State* L, std::string_view value, int position)  // [-0, +0, v]
{
    CachedLine& cached = m_cached[position];
    const int index = kFirstCachedValue + position;
    if (value != cached.value) cached.value = CachePiece(L, value, index);
    lua_pushvalue(L, cached.name_index);
    lua_pushvalue(L, index);
    lua_rawset(L, kRowIndex);
}

void RowBuilder::SetField(lua_State* L, std::string_view name, std::string_view value,
                          int position)  // [-0, +0, v]
{
    if (name != m_cached[position].name) CacheName(L, name, position);
    const int name_index = m_cached[position].name_index;
    if (name_index >= kFirstCachedName) return SetString(L, value, position);
    const long number = ParseNumber(value);
    if (name_index == kFlagsName) SetFlags(L, number);
    SetNumber(L, name_index, static_cast<lua_Number>(number));
}

void RowBuilder::SetLine(lua_State* L, std::string_view line, int position)  // [-0, +0, v]
{
    const std::size_t tab = line.find('\t');
    if (tab == std::string_view::npos)
        SetField(L, line, std::string_view(), position);
    else
        SetField(L, line.substr(0, tab), line.substr(tab + 1), position);
}

void RowBuilder::PushRow(lua_State* L, const vxa_conn_metric_feedback_s& observation)
{
    std::string_view text = SelectText(L, observation.text);
    lua_createtable(L, 0, CountFields(text));
    for (int number = 0; !text.empty(); ++number)
        if (const std::string_view line = TakeLine(&text); !line.empty())
            SetLine(L, line, number % kCachedLines);
    SetNumber(L, kCountName, observation.count);
}

}  // namespace fc
