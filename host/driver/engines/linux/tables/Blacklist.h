// The blacklist: the elements of every nf_tables set, in any table and family, whose name starts
// with "blacklist" and whose key is an IPv4 or IPv6 address.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "engines/linux/netlink/Netlink.h"
#include "vxi/records.h"

namespace vxi {

struct BlacklistSet {
    std::uint8_t nft_family;  // NFPROTO_* of its table
    std::string table;
    std::string name;
    std::uint8_t family;                // of its addresses: 4 or 6
    bool intervals;                     // elements are starts and ends of intervals
    std::uint64_t timeout_ms;           // of elements without their own
    const char* skip_reason = nullptr;  // null for a list of addresses

    std::size_t AddressSize() const { return family == 4 ? 4 : 16; }
};

using Address = std::array<std::uint8_t, 16>;  // IPv4 in the first 4 bytes

// One element as the kernel keeps it.
struct BlacklistElement {
    Address key = {};
    std::optional<Address> key_end;  // inclusive; of a range in one element
    bool interval_end = false;       // key is the first address after an interval
    std::optional<std::uint64_t> timeout_ms;
    std::optional<std::uint64_t> expires_ms;
};

struct BlacklistSnapshot {
    std::vector<vxa_blacklist_entry_s> entries;  // by set, then by address
    std::vector<std::string> sets;               // "inet TABLE NAME", as the kernel spells it
    std::vector<std::string> skipped;            // "inet TABLE NAME: REASON"
    std::uint64_t unreadable = 0;                // elements without a key of the set's size
    std::uint64_t dropped = 0;                   // entries beyond what a 32-bit size can express
    bool interrupted = false;                    // sets changed during each of six readings
};

// Reads all sets; without any the blacklist is empty. Throws Error.
BlacklistSnapshot ReadBlacklist();

// The set in one message of a dump of sets; nullopt if its name is not that of a blacklist.
std::optional<BlacklistSet> DecodeBlacklistSet(const nlmsghdr& message);

// Appends the elements in one message of a dump of a set. Returns how many were left out because
// they have no key of the set's size.
std::uint64_t AppendElements(const nlmsghdr& message, const BlacklistSet& set,
                             std::vector<BlacklistElement>& elements);

// A set's elements as entries, sorted by address. An interval reaches to the next end or start,
// or to the highest address when there is none.
std::vector<vxa_blacklist_entry_s> BlacklistEntries(const BlacklistSet& set,
                                                    std::uint16_t set_index,
                                                    std::vector<BlacklistElement> elements);

}  // namespace vxi
