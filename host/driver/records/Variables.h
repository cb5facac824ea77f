// The numbered filter variables; all engines have the same.
#pragma once

#include <cstdint>

#include "vxi/records.h"

namespace vxi {

// Numbers that code refers to.
enum Variable : std::uint32_t {
    kVariableAbi = 0,
    kVariableEngineKind = 1,
    kVariableKernelVersion = 2,
    kVariableCapabilityBits = 3,
    kVariableFacilityBits = 4,
    kVariableScanOn = 5,
    kVariableScanPort = 6,
    kVariableScanDirection = 7,
    kVariableScanTimeoutS = 8,
    kVariableScanSetSize = 9,
    kVariableTraceLevel = 10,
    kVariableConntrackActive = 11,
    kVariableConntrackAccounting = 12,
    kVariableProcessId = 13,
    kVariableNetworkNamespace = 14,
    kVariableInitialNamespace = 15,
    kVariableFirstSetting = 16,  // from here on the kernel's settings, except "vxi.…"
    kVariableConntrackBuckets = 17,
    kVariableConntrackCount = 19,
    kVariableConntrackMax = 31,
    kVariableNftTables = 59,
    kVariableNftRules = 60,
    kVariableBlacklistElements = 61,
    kVariableRuleProfiling = VXA_FILTER_VARIABLE_RULE_PROFILING,
    kVariableReserved = 63,
};

// Returns the name of a kernel setting as sysctl(8) writes it, "net.…", or of one of the library's
// own variables, "vxi.…". Null for an unknown number.
const char* VariableName(std::uint32_t number);

}  // namespace vxi
