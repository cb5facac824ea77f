// Rule profiling (variable 62): one switch for the process, suspended while rules change.
#pragma once

#include "vxi/vxi.h"

namespace vxi {

// Turns profiling on or off when variable 62 is written. Returns the former state.
bool SetProfiling(bool on);

// Held by an engine while it changes rules, so that the change is not profiled.
class ProfilingPause {
public:
    ProfilingPause();
    ~ProfilingPause();
    ProfilingPause(const ProfilingPause&) = delete;
    ProfilingPause& operator=(const ProfilingPause&) = delete;

private:
    // The hook that suspended is the one that resumes, whatever is installed meanwhile.
    vxi_profiler_blockfilter m_blockfilter;
};

}  // namespace vxi
