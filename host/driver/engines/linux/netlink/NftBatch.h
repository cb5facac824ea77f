// A transaction of nf_tables messages, all of which take effect or none.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "engines/linux/netlink/Netlink.h"

namespace vxi {

class NftBatch {
public:
    explicit NftBatch(Netlink& netlink);

    // Appends one message; `fill` puts the attributes behind the header that is passed in.
    // `label` names it in failure texts. Returns its sequence number.
    std::uint32_t Add(std::uint16_t type, std::uint16_t flags, std::string label,
                      FunctionRef<void(nlmsghdr*)> fill);

    // Sends what was added (at least one message), once. A rehearsal lacks the batch's end: the
    // kernel checks every message, then drops them all.
    enum class Purpose { kCommit, kRehearse };
    Netlink::BatchResult send(Purpose purpose);

    // Which message bears this sequence number, for people.
    std::string Label(std::uint32_t sequence) const;

private:
    void Mark(std::uint16_t type);

    Netlink& m_netlink;
    std::vector<char> m_buffer;
    std::size_t m_used = 0;
    nlmsghdr* m_lastMessage = nullptr;
    std::uint32_t m_first = 0;
    std::uint32_t m_last = 0;
    std::vector<std::string> m_labels;  // of first_ + 1 and those that follow
};

// Puts the header of one nf_tables request of the inet family into a buffer that has room
// for it and for the attributes that the caller puts behind it.
nlmsghdr* NftRequest(void* buffer, std::uint16_t type, std::uint16_t flags);

}  // namespace vxi
