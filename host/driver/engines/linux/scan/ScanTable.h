// The nf_tables table that counts the connections of one port; README.md shows it in the
// syntax of nft.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "engines/linux/netlink/NftBatch.h"
#include "records/ScanTarget.h"

namespace vxi {

// What the table counts. The first are named counters, in the order of kScanCounterNames; the two
// that every packet meets are those of a rule, which cost it half as much.
enum class ScanCounter {
    kNew,            // opened: bare SYN that entered a half-open set
    kEstablished,    // half-open, then acknowledged
    kRefused,        // half-open, then reset by either side
    kReset,          // RST outside a handshake
    kRetransmitted,  // bare SYN of a connection that is half-open already
    kFinished,       // FIN from the side that opened
    kUncounted,      // bare SYN while the half-open set was full
    kForward,        // everything towards the port's owner
    kBackward,
    kCount
};

constexpr std::size_t kScanCounterCount = static_cast<std::size_t>(ScanCounter::kCount);
constexpr std::size_t kScanNamedCount = static_cast<std::size_t>(ScanCounter::kForward);
extern const std::array<const char*, kScanNamedCount> kScanCounterNames;

// The chains whose first rule counts Forward and Backward.
constexpr const char* kScanForwardChain = "f";
constexpr const char* kScanBackwardChain = "b";

// Half-open connections by opener's address, owner's address and opener's port.
constexpr const char* kHalfOpenSetV4 = "h4";
constexpr const char* kHalfOpenSetV6 = "h6";
constexpr std::uint32_t kHalfOpenMax = 131072;  // in each of the two

// Of these, how many at most stay for the whole time that a handshake can take: a flood of
// openings that nobody completes must leave room for those that somebody does. What comes in
// faster stays long enough for a handshake that gets along with one repetition.
constexpr std::uint32_t kHalfOpenLastingMax = 32768;
constexpr std::uint32_t kHalfOpenBurst = 8192;
constexpr std::uint32_t kHalfOpenBriefS = 3;

struct ScanTableSpec {
    std::string name;
    ScanTarget target;
    std::uint32_t half_open_timeout_s;
    bool owned;  // the kernel removes it with the socket that made it
};

// Names of the tables of one process: "vxi_scan_PID", and with "_1".. where that is taken
// by a process with the same number in another pid namespace.
std::string ScanTableName(pid_t process, unsigned attempt);
// The process in such a name, 0 in any other.
pid_t ScanTableProcess(std::string_view name);

// Adds all messages that make the table; returns the sequence number of the first, the
// table itself.
std::uint32_t AddScanTable(NftBatch& batch, const ScanTableSpec& spec);

void AddTableRemoval(NftBatch& batch, const std::string& name);

// How long a handshake can stay unfinished with that many repetitions of its last packet.
std::uint32_t HalfOpenTimeoutS(unsigned retries);

// The same from this network namespace's settings, by who repeats: the owner of the port
// its SYN-ACK (inbound), the opener its SYN (outbound).
std::uint32_t HalfOpenTimeoutOf(std::uint32_t direction);

}  // namespace vxi
