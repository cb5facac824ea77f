// Reads the counters of a scan table.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "engines/linux/netlink/Netlink.h"
#include "engines/linux/scan/ScanTable.h"

namespace vxi {

// The counters, read at almost the same time.
struct ScanCounters {
    struct Value {
        std::uint64_t packets = 0;
        std::uint64_t bytes = 0;
        bool present = false;
    };
    std::array<Value, kScanCounterCount> values;

    Value& operator[](ScanCounter counter) { return values[static_cast<std::size_t>(counter)]; }
    const Value& operator[](ScanCounter counter) const
    {
        return values[static_cast<std::size_t>(counter)];
    }
};

// Functions that read throw Error: -ENOENT when the table or a part of it is gone, -EPROTO for an
// answer that lacks what it must have, -EINTR when the rules changed during each of six dumps.

// Reads the named counters.
ScanCounters ReadNamedCounters(Netlink& netlink, const std::string& table);

// Adds kForward and kBackward to `counters`.
void ReadTrafficCounters(Netlink& netlink, const std::string& table, ScanCounters& counters);

// Number of half-open connections.
std::uint64_t CountHalfOpen(Netlink& netlink, const std::string& table);

// Each decodes one message of a dump: a named counter; the rule that counts a chain's packets; a
// number of set elements. Other messages are skipped.
void DecodeNamedCounter(const nlmsghdr& message, ScanCounters& counters);
void DecodeTrafficCounter(const nlmsghdr& message, ScanCounters& counters);
std::uint64_t CountElements(const nlmsghdr& message);

}  // namespace vxi
