// Rule profiling (variable 62): one switch for the process, suspended while rules change.
#pragma once

#include "vxi/vxi.h"

namespace vxi {

// Called by an engine when variable 62 is written. Returns the former state.
bool SwitchProfiling(bool on);

// Variable 62.
bool ProfilingSwitch();

// Whether counts taken now belong to a profile: asks the installed hook, and goes by
// the switch where none is installed.
bool ProfilingRuns();

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
