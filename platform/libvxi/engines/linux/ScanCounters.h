// Reading a scan table's counters, and the arithmetic on them.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "engines/linux/ScanTable.h"
#include "vxi/records.h"

namespace vxi {

// The table's counters at about one moment.
struct ScanCounterValues {
    struct Value {
        uint64_t packets = 0;
        uint64_t bytes = 0;
        bool present = false;
    };
    std::array<Value, scan_counter_count> values;

    const Value& operator[](ScanCounter counter) const
    {
        return values[static_cast<size_t>(counter)];
    }
    bool complete() const;
};

// Each is 0, or a negated errno: -ENOENT when the table or a part of it is gone, -EPROTO
// for an answer that does not hold what it must.
int read_scan_counters(Netlink& netlink, const std::string& table, ScanCounterValues& values);
int count_half_open(Netlink& netlink, const std::string& table, uint64_t& half_open);

// What one message of such an answer says.
int take_counter(const nlmsghdr& message, ScanCounterValues& values);
uint64_t elements_in(const nlmsghdr& message);

// Connections that were opened and ended without being established: everything opened,
// less what was established, less what is still half-open. `before` was read before
// `half_open`, `after` after it: a connection that moves on between the readings makes the
// figure too small by one, never too large, and `previous` keeps it from falling.
uint64_t half_open_closed(const ScanCounterValues& before, uint64_t half_open,
                          const ScanCounterValues& after, uint64_t previous);

// The counters as callers get them, by VXI_SCAN_*.
void scan_figures(const ScanCounterValues& values, uint64_t half_open_closed,
                  uint64_t (&figures)[VXI_SCAN_COUNTERS]);

}  // namespace vxi
