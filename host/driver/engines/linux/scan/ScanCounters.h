// Reading a scan table's counters, and the arithmetic on them.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "engines/linux/scan/ScanTable.h"
#include "vxi/records.h"

namespace vxi {

// The counters at about one moment.
struct ScanCounterValues {
    struct Value {
        std::uint64_t packets = 0;
        std::uint64_t bytes = 0;
        bool present = false;
    };
    std::array<Value, kScanCounterCount> values;

    const Value& operator[](ScanCounter counter) const
    {
        return values[static_cast<std::size_t>(counter)];
    }
    // All of those from `first` up to `end` are present.
    bool Complete(ScanCounter first, ScanCounter end) const;
};

// Named counters, packets and bytes of both directions, half-open connections. Each throws Error:
// -ENOENT when the table or a part of it is gone, -EPROTO for an answer that does not hold what it
// must, -EINTR when the rules changed during each of six readings.
void ReadScanCounters(Netlink& netlink, const std::string& table, ScanCounterValues& values);
void ReadScanTraffic(Netlink& netlink, const std::string& table, ScanCounterValues& values);
std::uint64_t CountHalfOpen(Netlink& netlink, const std::string& table);

// What one message of such an answer says: a named counter, the rule that counts all packets of a
// chain, elements of a set.
void TakeCounter(const nlmsghdr& message, ScanCounterValues& values);
void TakeChain(const nlmsghdr& message, ScanCounterValues& values);
std::uint64_t ElementsIn(const nlmsghdr& message);

// Connections that were opened and ended without being established: everything opened, less what
// was established, less what is still half-open.
class HalfOpenClosed {
public:
    // `before` was read before `half_open`, `after` after it: a connection that moves on between
    // the readings makes the count too small by one, never too large. The count never falls, but
    // restarts at 0 when a counter has fallen (`nft reset counters`).
    std::uint64_t Update(const ScanCounterValues& before, std::uint64_t half_open,
                         const ScanCounterValues& after);

private:
    ScanCounterValues m_last;
    std::int64_t m_offset = 0;  // what was half-open when the counters restarted is in none of them
    std::uint64_t m_closed = 0;
};

// The counters as callers get them, by VXI_SCAN_*.
void ScanFigures(const ScanCounterValues& values, std::uint64_t half_open_closed,
                 std::uint64_t (&figures)[VXI_SCAN_COUNTERS]);

}  // namespace vxi
