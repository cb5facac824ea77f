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
    uint32_t add(uint16_t type, uint16_t flags, std::string label,
                 FunctionRef<void(nlmsghdr*)> fill);

    // Sends what was added (at least one message), once. A rehearsal lacks the batch's end: the
    // kernel checks every message, then drops them all.
    enum class Purpose { Commit, Rehearse };
    Netlink::BatchResult send(Purpose purpose);

    // Which message bears this sequence number, for people.
    std::string label(uint32_t sequence) const;

private:
    void mark(uint16_t type);

    Netlink& netlink_;
    std::vector<char> buffer_;
    size_t used_ = 0;
    nlmsghdr* last_message_ = nullptr;
    uint32_t first_ = 0;
    uint32_t last_ = 0;
    std::vector<std::string> labels_;  // of first_ + 1 and those that follow
};

// Puts the header of one nf_tables request of the inet family into a buffer that has room
// for it and for the attributes that the caller puts behind it.
nlmsghdr* nft_request(void* buffer, uint16_t type, uint16_t flags);

}  // namespace vxi
