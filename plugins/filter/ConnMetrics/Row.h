// Rows of the connection metrics report: an observation's text as a Lua table of fields.
#pragma once

#include <string>
#include <string_view>

#include <lua.hpp>

#include "Store.h"

namespace fc {

// Builds the rows of one report.
//
// Most observations have the same fields in the same order, and many values repeat. So for each
// of the first lines of a text the name and the value last seen there stay on the Lua stack, and
// are pushed again instead of being created again. Later lines share those positions.
class RowBuilder {
public:
    // The caller has values at the stack positions before this one; those from here on are the
    // builder's until the report is complete.
    static constexpr int kFirstIndex = 3;

    // Number of lines whose name and value stay on the stack.
    static constexpr int kCachedLines = 16;

    // Pushes the names of all known fields. Call once, before the first row. [-0, +many, v]
    void Begin(lua_State* L);

    // Pushes the row of an observation. [-0, +1, v]
    void PushRow(lua_State* L, const vxa_conn_metric_feedback_s& observation);

private:
    // Name and value on the stack, in bytes; kMatchesNothing where those are not ASCII.
    struct CachedLine {
        std::string_view name;
        std::string_view value;
        int name_index;
    };

    std::string_view SelectText(lua_State* L, const wxString& text);
    void PushPiece(lua_State* L, std::string_view piece);
    std::string_view CachePiece(lua_State* L, std::string_view piece, int index);
    void CacheName(lua_State* L, std::string_view name, int position);
    void SetLine(lua_State* L, std::string_view line, int position);
    void SetField(lua_State* L, std::string_view name, std::string_view value, int position);
    void SetString(lua_State* L, std::string_view value, int position);

    const wchar_t* m_wide = nullptr;  // the text of the current row
    std::string m_bytes;              // the same, a byte per character; kNotAscii above 127
    std::string m_encoded;            // one name or value in multibyte encoding
    CachedLine m_cached[kCachedLines] = {};
};

}  // namespace fc
