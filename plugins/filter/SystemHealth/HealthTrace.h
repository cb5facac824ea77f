// Trace categories of the health monitor. Log filters match category, file and function.
#pragma once

#include <wx/string.h>

#include "Trace.h"

inline const wxString s_TraceEngine(L"SysHealth.eng");  // cycle, collectors, faults
inline const wxString s_TraceScan(L"SysHealth.scan");   // scan monitoring
inline const wxString s_TraceConf(L"SysHealth.conf");   // accepted settings
inline const wxString s_TraceMetr(L"SysHealth.metr");   // queries

#define SYSHEALTH_AT(function) (::fc::TracePoint{"plugins/filter/SystemHealth", __LINE__, function})
