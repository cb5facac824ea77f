// The blacklist: the elements of every nf_tables set whose name starts with "blacklist" and
// whose key is an IPv4 or IPv6 address, in whatever table and family it stands.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "engines/linux/Outcome.h"
#include "engines/linux/netlink/Netlink.h"
#include "vxi/records.h"

namespace vxi {

struct BlacklistSet {
    std::uint8_t nft_family;  // NFPROTO_* of its table
    std::string table;
    std::string name;
    std::uint8_t family;            // of its addresses: 4 or 6
    bool intervals;                 // elements come as starts and ends
    std::uint64_t timeout_ms;       // of elements that name none
    const char* skipped = nullptr;  // why it is no list of addresses; null when it is

    std::size_t address_size() const { return family == 4 ? 4 : 16; }
};

using Address = std::array<std::uint8_t, 16>;  // IPv4 in the first 4 bytes

// One element as the kernel keeps it.
struct BlacklistElement {
    Address key = {};
    std::optional<Address> last;  // of a range in one piece; inclusive
    bool ends_interval = false;   // the first address behind an interval
    std::optional<std::uint64_t> timeout_ms;
    std::optional<std::uint64_t> expires_ms;
};

struct BlacklistSnapshot {
    std::vector<vxa_blacklist_entry_s> entries;  // by set, then by address
    std::vector<std::string> sets;               // "inet TABLE NAME", as the kernel spells it
    std::vector<std::string> skipped;            // "inet TABLE NAME: REASON"
    std::uint64_t unreadable = 0;                // elements that the kernel described oddly
    std::uint64_t beyond = 0;                    // entries that a 32-bit size cannot tell
    bool interrupted = false;                    // sets changed during every one of six readings
};

// Opens the socket itself. No set at all is an empty blacklist.
Outcome read_blacklist(Netlink& netlink, BlacklistSnapshot& snapshot);

// The set that one message of a dump of sets describes, if its name is that of a blacklist.
std::optional<BlacklistSet> DecodeSet(const nlmsghdr& message);

// Appends the elements in one message of a dump of a set; returns how many had no key of
// the set's size.
std::uint64_t TakeElements(const nlmsghdr& message, const BlacklistSet& set,
                           std::vector<BlacklistElement>& elements);

// A set's elements as entries, sorted by address. An interval reaches to the next end or
// start, and without one to the highest address.
std::vector<vxa_blacklist_entry_s> EntriesOf(const BlacklistSet& set, std::uint16_t set_index,
                                             std::vector<BlacklistElement> elements);

}  // namespace vxi
