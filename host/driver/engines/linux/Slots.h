// The engine's operations, by the file that holds them. Each answers as vxi/vxi.h says;
// dispatch has checked the arguments and catches exceptions. What has no slot here is
// answered by the library's defaults.
#pragma once

#include "api/Engine.h"

namespace vxi::linux_slots {

// Blacklist.cpp
int get_blacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list);

// Capabilities.cpp
int Available(vxi_handle_ops_s* handle);
int Capabilities(vxi_handle_ops_s* handle, vxi_capability_s* rows, unsigned int count);
// Bit n is set when row n of the capabilities is available, as far as can be told at once.
std::uint32_t FacilityBits();

// ConnStates.cpp
int get_conn_states(vxi_handle_ops_s* handle, vxa_get_conn_states_s* states);

// Flows.cpp
int get_conntrack(vxi_handle_ops_s* handle, vxa_dump_conntrack_s* section, unsigned int size,
                  unsigned int* extra);

// HandleState.cpp
void Close(vxi_handle_ops_s* handle);

// RuleProfile.cpp
int get_profile_stats(vxi_handle_ops_s* handle, void* record);

// ScanCalls.cpp
int SetScanMonitoring(vxi_handle_ops_s* handle, scan_monitor_config* config);
int get_scan_metrics(vxi_handle_ops_s* handle, scan_metrics_request* request, unsigned int length);

// Statistics.cpp
int get_stats(vxi_handle_ops_s* handle, vxa_stats_v2_s* stats, unsigned int size);

// VariableCalls.cpp
int get_variable(vxi_handle_ops_s* handle, vxa_filter_variable_s* variable);
int SetVariable(vxi_handle_ops_s* handle, unsigned int number, unsigned int value);

}  // namespace vxi::linux_slots
