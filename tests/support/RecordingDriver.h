// A driver-interface library that records what it is asked and answers as it is told.
//
// Defines the calls that the plugin makes, so that it takes the place of libvxi for a
// process that links or preloads it; and gettimeofday and time, so that time is the test's.
// Safe from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "vxi/vxi.h"

namespace driver {

struct Call {
    std::string name;   // without "vxi_"
    std::string bytes;  // the record as it was handed over
    long number;        // length, size, level, or the variable's number
    bool null_handle;
    const void* record;  // where the record stood
    const void* extra;   // a further pointer that was handed over
};

struct Answers {
    bool opens = true;
    int set_status = 0;
    int get_status = 0;
    std::string error;
    std::uint32_t counters = VXI_SCAN_COUNTERS;
    std::uint32_t entries = 1;
    std::array<std::uint64_t, VXI_SCAN_COUNTERS> values{};

    int available = 1;
    // By a call's name: what the first, the second ... returns; 0 beyond. Not for the scan
    // calls.
    std::map<std::string, std::vector<int>> statuses;
    // Counts as the driver tells them, true or not. It fills the room that it is given.
    std::uint16_t flows = 0;
    std::uint16_t udp_flows = 0;
    std::uint16_t tcp_flows = 0;
    std::uint32_t list_sizes[2] = {0, 0};               // of the size request, of the fill request
    std::uint32_t profile_sizes[2] = {0, 0};            // likewise
    std::map<unsigned int, std::uint16_t> stats_words;  // by offset in the record: rewritten
    std::uint32_t profiling = 0;                        // value of variable 62
    std::string text;                                   // printed behind every table, in one call
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
