// The two stores of connection metric feedback.
//
// Feeding is the hot path, so a byte index (KeyIndex) sits in front of the working store: a
// known key costs a hash and a comparison of bytes, and strings are converted only for a new
// key. The index has its own counts, which are flushed into the map before the map is read.
//
// The finished store and the time of publication are shared between threads under
// g_cmfb_map_fin_cs. The working store belongs to the one thread that feeds and publishes:
// a lock would cost time at every observation.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>

#include <wx/string.h>
#include <wx/thread.h>

struct vxa_conn_metric_feedback_s {
    wxString text;        // lines of a name, a TAB and a value
    std::uint32_t count;  // wraps around
};

using ConnMetricMap = std::map<wxString, vxa_conn_metric_feedback_s>;

extern wxCriticalSection g_cmfb_map_fin_cs;
extern ConnMetricMap g_cmfb_map;      // working store
extern ConnMetricMap g_cmfb_map_fin;  // finished store
extern std::time_t g_last_fb_time;    // last publication, wall-clock seconds

// Merges one store into another: adds the counts of keys known there, whose text stays, and moves
// the other entries while there is room. Nothing is allocated, so nothing can fail half way. What
// was not moved remains in `from`.
void MergeConnMetrics(ConnMetricMap* from, ConnMetricMap* into);
