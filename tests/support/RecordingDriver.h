// A driver-interface library that records its calls and gives the answers that a test sets, also
// for scripts, as the Lua module "recorder". It takes the place of libvxi in a process that links
// or preloads it, and defines gettimeofday and time, so that tests set the clock. Any thread may
// call it.
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
    std::string bytes;  // the record as it was passed
    long number;        // length, size, level, or the variable's number
    bool null_handle;
    const void* record;  // the record's address
    const void* extra;   // another pointer that was passed
};

struct Answers {
    // By a call's name: the results of its first, second ... call; the last one repeats. Without an
    // entry 0, but 1 of "open", which 0 makes fail, and of "driver_available".
    std::map<std::string, std::vector<int>> statuses;
    // Likewise the counts, sizes or values that it reports, true or not; it fills the buffer that
    // it is given. Of "get_stats": 65536 * an offset in the record + the 16-bit word to put there.
    std::map<std::string, std::vector<std::uint32_t>> counts;
    std::string error;

    // Of "get_scan_metrics".
    std::uint32_t counters = VXI_SCAN_COUNTERS;
    std::uint32_t entries = 1;
    std::array<std::uint64_t, VXI_SCAN_COUNTERS> values{};
};

void SetAnswers(const Answers& answers);
std::vector<Call> TakeCalls();

// Microseconds since the epoch; 0: the system's clock.
void SetClock(std::uint64_t now_us);

// From now on a call waits until another thread calls too, so that a race detector sees what both
// do until their next calls at the same time, however they are scheduled.
void CallInPairs(bool on);

using TraceHandler = int (*)(int, const char*, const char*, int, char*);
inline std::atomic<TraceHandler> installed_trace_handler{nullptr};

// How often vxi_set_profiler was called with the library's own two hooks; a call with others
// counts 100.
inline std::atomic<int> profiler_installations{0};

}  // namespace driver
