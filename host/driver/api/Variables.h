// The numbered filter variables: one name a number, the same for every engine.
#pragma once

#include <cstdint>

#include "vxi/records.h"

namespace vxi {

// Numbers that engines and callers speak of.
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
    kVariableFirstSetting = 16,  // names from here on are the kernel's, except "vxi.…"
    kVariableConntrackCount = 19,
    kVariableConntrackMax = 31,
    kVariableConntrackBuckets = 17,
    kVariableNftTables = 59,
    kVariableNftRules = 60,
    kVariableBlacklistElements = 61,
    kVariableRuleProfiling = VXA_FILTER_VARIABLE_RULE_PROFILING,
    kVariableReserved = 63,
};

// "net.…" is a kernel setting: its file is /proc/sys/ and the name with "/" for ".".
// "vxi.…" is the library's own. Null for a number above 172.
const char* VariableName(std::uint32_t number);

}  // namespace vxi
