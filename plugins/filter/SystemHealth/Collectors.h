// Collectors: the machine's processor count, run-queue length and memory.
//
// All may be called on any thread, and take as long as the command they run.
#pragma once

#include <array>
#include <cstdint>

#include "Export.h"

struct vxa_health_vmstat_metrics_t {
    const char* name;
    const char* header;        // heading of its column in the output of vmstat
    std::int32_t column;       // field of a data line, from 1; 0: not yet located
    unsigned long long value;  // last collected
};

namespace fc {

enum VmstatRow {
    kVmstatPhysicalMemory,
    kVmstatRunQueue,
    kVmstatActiveMemory,
    kVmstatFreeMemory,
    kVmstatUserCpu,
    kVmstatSystemCpu,
    kVmstatIdleCpu,
    kVmstatWaitCpu,
    kVmstatCount
};

}  // namespace fc

using VmstatTable = std::array<vxa_health_vmstat_metrics_t, fc::kVmstatCount>;
extern VmstatTable vxa_syshealth_vmstat_metrics;

// Returns the number of processors that nproc reports, or 0 on failure.
FC_PUBLIC unsigned long long queryCpuCount();

// Stores the one-minute load average without its last digit. Returns 0; on failure 1, with *out
// unchanged.
FC_PUBLIC int queryRunQueueLength(double* out);

// Stores physical and free memory in kB in the table of kVmstatCount rows. Returns 2, or 0 on
// failure; a value read before the failure is stored.
FC_PUBLIC int getMemoryMetrics(vxa_health_vmstat_metrics_t* table);

// Fills the same table from a vmstat that prints a line "System configuration:" and the columns
// "avm" and "fre": physical memory in MB, free memory in pages. Blocks for its ten-second sample.
// Returns the number of values stored, 0 on failure. The check cycle does not call it.
FC_PUBLIC int getVmstatMetrics(vxa_health_vmstat_metrics_t* table);
