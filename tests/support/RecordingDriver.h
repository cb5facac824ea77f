// A driver-interface library that records what it is asked and answers as it is told.
//
// Defines the calls that the plugin makes, so that it takes the place of libvxi for a
// process that links or preloads it; and gettimeofday and time, so that time is the test's.
// Safe from any thread.
#pragma once

#include <array>
#include <atomic>
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
    // By a call's name: what the first, the second ... returns, the last from then on. 0 where
    // there is nothing; 1 of "open", which 0 makes fail, and of "kDriverAvailable".
    std::map<std::string, std::vector<int>> statuses;
    // Likewise the counts, sizes or values that it tells, true or not. It fills the room that it
    // is given. Of "kGetStats": 65536 * an offset in the record + the 16-bit word to stand there.
    std::map<std::string, std::vector<std::uint32_t>> counts;
    std::string error;

    // Of "kGetScanMetrics".
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
inline std::atomic<TraceHandler> installed_trace_handler{nullptr};

// How often vxi_set_profiler was called, with the library's own two hooks; with others it
// counts a hundredfold.
inline std::atomic<int> profiler_installations{0};

}  // namespace driver
