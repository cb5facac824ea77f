// The files that the product uses at fixed paths, and nproc, uptime and vmstat, as the test wants
// them. With FixedPaths.cpp in the process and FAKE_MACHINE in its environment, Path("/proc/x")
// is what the product finds at /proc/x.
#pragma once

#include "ScratchDirectory.h"

// Idle at first: 4 processors, a load of 0.52, 25 % of the memory free. Path("NAME.out") is
// what a command prints, Path("NAME.args") what its last run was given.
class FakeMachine : public ScratchDirectory {
public:
    FakeMachine();  // Sets the environment for good; before there are threads.
};

extern const char* const kConfigLog;  // as the product writes it
