// Health configuration: the settings, read in every cycle from the local file or the policy.
#pragma once

#include <array>

#include "Export.h"

namespace VxaCore {
class CDom;
}

namespace fc {

// Indexes of the table; its rows are in Config.cpp.
enum Setting {
    kSettingPort,
    kSettingOutbound,
    kSettingRecoveryFactor,
    kSettingMinDuration,
    kSettingRefusalPct,
    kSettingRunQueue,
    kSettingEstablished,
    kSettingScanMbytes,
    kSettingFreeMemory,
    kSettingMaxInterval,
    kSettingUnloadDriver,
    kSettingCount
};

// How the policy gives a setting, as cJSON's type codes: a number, or an object whose member
// "value" is the number.
enum { kJsonNumber = 8, kJsonObject = 64 };

// In force where the setting is not set.
constexpr unsigned long long kDefaultMinDurationMinutes = 30;
constexpr double kDefaultMaxIntervalS = 45.0;

}  // namespace fc

struct vxa_syshealth_config_s {
    const char* file_key;    // start of its line in the file, "=" included
    const char* policy_key;  // member of the policy and of the JSON diagnostic file
    double maximum;
    double value;  // 0 when not set
    int set;       // 1 when a valid value was read in this cycle
    int json_kind;
};

using ConfigTable = std::array<vxa_syshealth_config_s, fc::kSettingCount>;
extern ConfigTable vxa_syshealth_config;

// Rebuild the table from the local file, or from the policy's JSON text, and set in the document
// whether the driver is to be unloaded in fail-open. `state` is 1 while the caller is in fail-open:
// the thresholds that need the port are off then. Return the number of accepted settings. If the
// source cannot be read, return 0 and leave the document alone. Throw std::bad_alloc, with the
// table unchanged, when memory runs out.
FC_PUBLIC int readSystemHealthConfig(VxaCore::CDom* dom, int state);
FC_PUBLIC int readSystemHealthPolicy(VxaCore::CDom* dom, int state, const char* json);

// Switches off the thresholds that need the port, until the next cycle. Returns 0.
FC_PUBLIC int DisableScanMetric();

namespace fc {

ConfigTable CopyConfig();

// Switches off the thresholds that need the port and logs each as an error if no port is set.
// Returns whether there were any.
bool RejectThresholdsWithoutPort();

}  // namespace fc
