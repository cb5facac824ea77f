// A driver-interface library that records what it is asked and answers as it is told.
//
// Defines the calls that the plugin makes, so that it takes the place of libvxi for a
// process that links or preloads it; and gettimeofday, so that time is the test's. Safe
// from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "vxi/vxi.h"

namespace driver {

struct Call {
    std::string name;   // without "vxi_"
    std::string bytes;  // the record as it was handed over
    long number;        // length, size or level
    bool null_handle;
};

struct Answers {
    bool opens = true;
    int set_status = 0;
    int get_status = 0;
    std::string error;
    std::uint32_t counters = VXI_SCAN_COUNTERS;
    std::uint32_t entries = 1;
    std::array<std::uint64_t, VXI_SCAN_COUNTERS> values{};
};

void SetAnswers(const Answers& answers);
std::vector<Call> TakeCalls();

// Microseconds since the epoch; 0: the system's own clock.
void SetClock(std::uint64_t now_us);

// What the last vxi_set_trace_handler installed.
using TraceHandler = int (*)(int, const char*, const char*, int, char*);
TraceHandler InstalledTraceHandler();

// How often vxi_set_profiler was called with the library's own two hooks, and in all.
int ProfilerInstallations();
int ProfilerCalls();

}  // namespace driver
