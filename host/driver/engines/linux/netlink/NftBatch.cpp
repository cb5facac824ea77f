// Batches in the form that nfnetlink expects (nfnetlink_rcv_batch in net/netfilter/nfnetlink.c).
#include "engines/linux/netlink/NftBatch.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <stdexcept>

#include "api/Error.h"
#include "engines/linux/netlink/NfTables.h"

namespace vxi {

namespace {

constexpr std::size_t kBatchSize = std::size_t{64} * 1024;
constexpr std::size_t kMessageSizeMax = 4096;  // the largest rule takes a tenth of it

}  // namespace

NftBatch::NftBatch(Netlink& netlink) : m_netlink(netlink), m_buffer(kBatchSize)
{
    Mark(NFNL_MSG_BATCH_BEGIN);
    m_first = m_last;
}

void NftBatch::Mark(std::uint16_t type)
{
    nlmsghdr* header =
        PutNetfilterHeader(m_buffer.data() + m_used, type, 0, AF_UNSPEC, NFNL_SUBSYS_NFTABLES);
    header->nlmsg_seq = m_last = m_netlink.NextSequence();
    m_used += NLMSG_ALIGN(header->nlmsg_len);
}

std::uint32_t NftBatch::Add(std::uint16_t type, std::uint16_t flags, std::string label,
                            FunctionRef<void(nlmsghdr*)> fill)
{
    if (m_buffer.size() - m_used < kMessageSizeMax) {
        throw std::length_error("internal error: the nf_tables batch is full");
    }
    m_labels.push_back(std::move(label));
    m_lastMessage = PutNftRequest(m_buffer.data() + m_used, type, flags);
    m_lastMessage->nlmsg_seq = m_last = m_netlink.NextSequence();
    fill(m_lastMessage);
    m_used += NLMSG_ALIGN(m_lastMessage->nlmsg_len);
    return m_last;
}

void NftBatch::Send(Purpose purpose)
{
    const std::uint32_t last = m_last;
    m_lastMessage->nlmsg_flags |= NLM_F_ACK;
    if (purpose == Purpose::kCommit) {
        Mark(NFNL_MSG_BATCH_END);
    }
    if (const auto refusal = m_netlink.Transact(m_buffer.data(), m_used, m_first, last)) {
        ThrowRefused(*refusal);
    }
}

void NftBatch::ThrowRefused(const Netlink::Refusal& refusal) const
{
    const int status = refusal.status;
    const bool whole = refusal.sequence == m_first;
    if (whole && status == -EPERM) {
        throw NftRefused(status, kNftNeedsPrivilege, refusal.sequence);
    }
    if (whole && status == -EOPNOTSUPP) {
        throw NftRefused(status, kNoNfTables, refusal.sequence);
    }
    const std::uint32_t index = refusal.sequence - m_first - 1;
    const std::string& label = index < m_labels.size() ? m_labels[index] : "batch";
    throw NftRefused(status, "nf_tables refused the " + label + ": " + DescribeStatus(status),
                     refusal.sequence);
}

}  // namespace vxi
