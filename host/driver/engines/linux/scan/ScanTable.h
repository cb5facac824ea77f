// The nf_tables table that counts the connections of one port; README.md shows it in the
// syntax of nft.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "api/Scan.h"
#include "engines/linux/netlink/NftBatch.h"

namespace vxi {

// What the table counts. The first are named counters, in the order of scan_counter_names; the two
// that every packet meets are those of a rule, which cost it half as much.
enum class ScanCounter {
    New,            // opened: bare SYN that entered a half-open set
    Established,    // half-open, then acknowledged
    Refused,        // half-open, then reset by either side
    Reset,          // RST outside a handshake
    Retransmitted,  // bare SYN of a connection that is half-open already
    Finished,       // FIN from the side that opened
    Uncounted,      // bare SYN while the half-open set was full
    Forward,        // everything towards the port's owner
    Backward,
    Count
};

constexpr size_t scan_counter_count = static_cast<size_t>(ScanCounter::Count);
constexpr size_t scan_named_count = static_cast<size_t>(ScanCounter::Forward);
extern const std::array<const char*, scan_named_count> scan_counter_names;

// The chains whose first rule counts Forward and Backward.
constexpr const char* scan_forward_chain = "f";
constexpr const char* scan_backward_chain = "b";

// Half-open connections by opener's address, owner's address and opener's port.
constexpr const char* half_open_set_v4 = "h4";
constexpr const char* half_open_set_v6 = "h6";
constexpr uint32_t half_open_max = 131072;  // in each of the two

// Of these, how many at most stay for the whole time that a handshake can take: a flood of
// openings that nobody completes must leave room for those that somebody does. What comes in
// faster stays long enough for a handshake that gets along with one repetition.
constexpr uint32_t half_open_lasting_max = 32768;
constexpr uint32_t half_open_burst = 8192;
constexpr uint32_t half_open_brief_s = 3;

struct ScanTableSpec {
    std::string name;
    ScanTarget target;
    uint32_t half_open_timeout_s;
    bool owned;  // the kernel removes it with the socket that made it
};

// Names of the tables of one process: "vxi_scan_PID", and with "_1".. where that is taken
// by a process with the same number in another pid namespace.
std::string scan_table_name(pid_t process, unsigned attempt);
// The process in such a name, 0 in any other.
pid_t scan_table_process(std::string_view name);

// Adds all messages that make the table; returns the sequence number of the first, the
// table itself.
uint32_t add_scan_table(NftBatch& batch, const ScanTableSpec& spec);

void add_table_removal(NftBatch& batch, const std::string& name);

// How long a handshake can stay unfinished with that many repetitions of its last packet.
uint32_t half_open_timeout_s(unsigned retries);

// The same from this network namespace's settings, by who repeats: the owner of the port
// its SYN-ACK (inbound), the opener its SYN (outbound).
uint32_t half_open_timeout_of(uint32_t direction);

}  // namespace vxi
