#include "engines/linux/netlink/NftBatch.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <stdexcept>

namespace vxi {

namespace {

constexpr std::size_t kBatchSize = 64 * 1024;
constexpr std::size_t kMessageSizeMax = 4096;  // the largest rule takes a tenth of it

nlmsghdr* PutHeader(void* where, std::uint16_t type, std::uint16_t flags, std::uint8_t family,
                    std::uint16_t resource)
{
    nlmsghdr* header = mnl_nlmsg_put_header(where);
    header->nlmsg_type = type;
    header->nlmsg_flags = NLM_F_REQUEST | flags;
    auto* nf = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
    nf->nfgen_family = family;
    nf->version = NFNETLINK_V0;
    nf->res_id = htons(resource);
    return header;
}

constexpr std::uint16_t NftType(std::uint16_t type)
{
    return NFNL_SUBSYS_NFTABLES << 8 | type;
}

}  // namespace

nlmsghdr* NftRequest(void* buffer, std::uint16_t type, std::uint16_t flags)
{
    return PutHeader(buffer, NftType(type), flags, NFPROTO_INET, 0);
}

NftBatch::NftBatch(Netlink& netlink) : m_netlink(netlink), m_buffer(kBatchSize)
{
    Mark(NFNL_MSG_BATCH_BEGIN);
    m_first = m_last;
}

void NftBatch::Mark(std::uint16_t type)
{
    nlmsghdr* header =
        PutHeader(m_buffer.data() + m_used, type, 0, AF_UNSPEC, NFNL_SUBSYS_NFTABLES);
    header->nlmsg_seq = m_last = m_netlink.NextSequence();
    m_used += NLMSG_ALIGN(header->nlmsg_len);
}

std::uint32_t NftBatch::Add(std::uint16_t type, std::uint16_t flags, std::string label,
                            FunctionRef<void(nlmsghdr*)> fill)
{
    if (m_buffer.size() - m_used < kMessageSizeMax) {
        throw std::length_error("nf_tables batch");
    }
    m_labels.push_back(std::move(label));
    m_lastMessage = NftRequest(m_buffer.data() + m_used, type, flags);
    m_lastMessage->nlmsg_seq = m_last = m_netlink.NextSequence();
    fill(m_lastMessage);
    m_used += NLMSG_ALIGN(m_lastMessage->nlmsg_len);
    return m_last;
}

Netlink::BatchResult NftBatch::send(Purpose purpose)
{
    const std::uint32_t last = m_last;
    m_lastMessage->nlmsg_flags |= NLM_F_ACK;
    if (purpose == Purpose::kCommit) {
        Mark(NFNL_MSG_BATCH_END);
    }
    return m_netlink.Transact(m_buffer.data(), m_used, m_first, last);
}

std::string NftBatch::Label(std::uint32_t sequence) const
{
    const std::uint32_t index = sequence - m_first - 1;
    return index < m_labels.size() ? m_labels[index] : "batch";
}

}  // namespace vxi
