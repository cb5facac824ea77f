// Lock of the health monitor.
//
// g_syshealth_cs guards every global of this folder. A cycle calls the driver, runs the collectors
// and accesses files without it, on local copies, and stores their results in one step. Only one
// query, GetSysHealthMetrics, runs a command (nproc) with the lock held; a cycle may have to wait
// for it. No other lock of the module is taken while this one is held.
#pragma once

#include <wx/thread.h>

inline wxCriticalSection g_syshealth_cs;
