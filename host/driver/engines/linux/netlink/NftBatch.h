// A transaction of nf_tables messages: all of them take effect or none does.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/Error.h"
#include "engines/linux/netlink/Netlink.h"

namespace vxi {

// The kernel refused a message of a batch, and with it the whole batch.
class NftRefused : public Error {
public:
    NftRefused(int status, const std::string& message, std::uint32_t sequence)
        : Error(status, message), m_sequence(sequence)
    {
    }

    // Number of the message that was refused.
    std::uint32_t Sequence() const noexcept { return m_sequence; }

private:
    std::uint32_t m_sequence;
};

class NftBatch {
public:
    explicit NftBatch(Netlink& netlink);

    // Appends one message; `fill` puts its attributes after the header that it is given. `label`
    // names the message in errors. Returns its sequence number.
    std::uint32_t Add(std::uint16_t type, std::uint16_t flags, std::string label,
                      FunctionRef<void(nlmsghdr*)> fill);

    // Sends what was added (at least one message), once. A rehearsal lacks the batch's end: the
    // kernel checks every message, then drops them all. Throws NftRefused, or Error when the
    // exchange fails.
    enum class Purpose { kCommit, kRehearse };
    void Send(Purpose purpose);

private:
    void Mark(std::uint16_t type);
    [[noreturn]] void ThrowRefused(const Netlink::Refusal& refusal) const;

    Netlink& m_netlink;
    std::vector<char> m_buffer;
    std::size_t m_used = 0;
    nlmsghdr* m_lastMessage = nullptr;
    std::uint32_t m_first = 0;  // the mark at the batch's begin
    std::uint32_t m_last = 0;
    std::vector<std::string> m_labels;  // of message m_first + 1 and those that follow
};

}  // namespace vxi
