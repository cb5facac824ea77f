// The numbered filter variables: one name a number, the same for every engine.
#pragma once

#include <cstdint>

#include "vxi/records.h"

namespace vxi {

// Numbers that engines and callers speak of.
enum Variable : std::uint32_t {
    variable_abi = 0,
    variable_engine_kind = 1,
    variable_kernel_version = 2,
    variable_capability_bits = 3,
    variable_facility_bits = 4,
    variable_scan_on = 5,
    variable_scan_port = 6,
    variable_scan_direction = 7,
    variable_scan_timeout_s = 8,
    variable_scan_set_size = 9,
    variable_trace_level = 10,
    variable_conntrack_active = 11,
    variable_conntrack_accounting = 12,
    variable_process_id = 13,
    variable_network_namespace = 14,
    variable_initial_namespace = 15,
    variable_first_setting = 16,  // names from here on are the kernel's, except "vxi.…"
    variable_conntrack_count = 19,
    variable_conntrack_max = 31,
    variable_conntrack_buckets = 17,
    variable_nft_tables = 59,
    variable_nft_rules = 60,
    variable_blacklist_elements = 61,
    variable_rule_profiling = VXA_FILTER_VARIABLE_RULE_PROFILING,
    variable_reserved = 63,
};

// "net.…" is a kernel setting: its file is /proc/sys/ and the name with "/" for ".".
// "vxi.…" is the library's own. Null for a number above 172.
const char* variable_name(std::uint32_t number);

}  // namespace vxi
