// Connection metric feedback: observations merged under a key, published now and then,
// handed out once as rows.
//
// Feeding is the hot path, so a byte index stands in front of the ordered map: a known
// key costs a hash and a comparison of its bytes, and texts are converted only when a
// key is new. The map stays the truth; counts gathered in the index are flushed into it
// before it is read.
//
// Threads. The finished store and the publication time are shared under
// g_cmfb_map_fin_cs. The working store is not locked: the plugin feeds and publishes on
// its one scripting thread, and a lock there would be paid for at every observation.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>

#include <wx/string.h>
#include <wx/thread.h>
#include <lua.hpp>

#include "Export.h"

struct vxa_conn_metric_feedback_s {
    wxString text;        // lines of a name, a TAB and a value; first one fed wins
    std::uint32_t count;  // wraps around
};

using ConnMetricMap = std::map<wxString, vxa_conn_metric_feedback_s>;

extern ConnMetricMap g_cmfb_map;      // working store
extern ConnMetricMap g_cmfb_map_fin;  // finished store
extern wxCriticalSection g_cmfb_map_fin_cs;
extern std::time_t g_last_fb_time;  // last publication, wall-clock seconds

// Adds the entries of one store to another: counts of known keys are summed and their
// text stays, new ones move over while there is room. Entries move whole, without
// allocating, so nothing can fail half way; what found no room, or was only counted,
// stays behind in `from`.
void MergeConnMetrics(ConnMetricMap* from, ConnMetricMap* into);

FC_PUBLIC int AddToConnMetrics(lua_State* L);
FC_PUBLIC int UpdateConnMetrics(lua_State* L);
FC_PUBLIC int GetConnMetrics(lua_State* L);
