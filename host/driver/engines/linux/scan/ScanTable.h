// The nf_tables table that counts the connections of one port. README.md shows it in nft's syntax.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "engines/linux/netlink/NftBatch.h"
#include "records/ScanTarget.h"

namespace vxi {

// What the table counts: first the named counters, in the order of kScanCounterNames, then the
// counters of a rule, which cost every packet half as much.
enum class ScanCounter {
    kNew,            // SYN alone that entered a half-open set
    kEstablished,    // half-open, then acknowledged
    kRefused,        // half-open, then reset by either side
    kReset,          // RST outside a handshake
    kRetransmitted,  // SYN alone of a connection that is half-open already
    kFinished,       // FIN from the side that opened
    kUncounted,      // SYN alone while the half-open set was full
    kForward,        // all packets to the port
    kBackward,       // all packets from the port
    kCount
};

constexpr std::size_t kScanCounterCount = static_cast<std::size_t>(ScanCounter::kCount);
constexpr std::size_t kScanNamedCount = static_cast<std::size_t>(ScanCounter::kForward);
extern const std::array<const char*, kScanNamedCount> kScanCounterNames;

// The chains whose first rule counts kForward and kBackward.
constexpr const char* kCountToPortChain = "count_to_port";
constexpr const char* kCountFromPortChain = "count_from_port";

// Half-open connections by opener's address, owner's address and opener's port.
constexpr const char* kHalfOpenIpv4 = "half_open_ipv4";
constexpr const char* kHalfOpenIpv6 = "half_open_ipv6";
constexpr std::uint32_t kHalfOpenMax = 131072;  // in each of the two

// At most this many of them stay for as long as a handshake can take, so that a flood of openings
// that are never completed leaves room for others. Those that arrive faster stay long enough for a
// handshake that needs one retransmission.
constexpr std::uint32_t kHalfOpenLastingMax = 32768;
constexpr std::uint32_t kHalfOpenBurst = 8192;
constexpr std::uint32_t kHalfOpenBriefS = 3;

struct ScanTableSpec {
    std::string name;
    ScanTarget target;
    std::uint32_t half_open_timeout_s;
    bool owned;  // by the netlink socket: the kernel removes the table when that is closed
};

// Adds all messages that create the table. Returns the sequence number of the first, which creates
// the table itself.
std::uint32_t AddScanTable(NftBatch& batch, const ScanTableSpec& spec);

void AddTableRemoval(NftBatch& batch, const std::string& name);

}  // namespace vxi
