#include "engines/linux/netlink/NftBatch.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <stdexcept>

namespace vxi {

namespace {

constexpr size_t batch_size = 64 * 1024;
constexpr size_t message_size_max = 4096;  // the largest rule takes a tenth of it

nlmsghdr* put_header(void* where, uint16_t type, uint16_t flags, uint8_t family, uint16_t resource)
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

constexpr uint16_t nft_type(uint16_t type)
{
    return NFNL_SUBSYS_NFTABLES << 8 | type;
}

}  // namespace

nlmsghdr* nft_request(void* buffer, uint16_t type, uint16_t flags)
{
    return put_header(buffer, nft_type(type), flags, NFPROTO_INET, 0);
}

NftBatch::NftBatch(Netlink& netlink) : netlink_(netlink), buffer_(batch_size)
{
    mark(NFNL_MSG_BATCH_BEGIN);
    first_ = last_;
}

void NftBatch::mark(uint16_t type)
{
    nlmsghdr* header = put_header(buffer_.data() + used_, type, 0, AF_UNSPEC, NFNL_SUBSYS_NFTABLES);
    header->nlmsg_seq = last_ = netlink_.next_sequence();
    used_ += NLMSG_ALIGN(header->nlmsg_len);
}

uint32_t NftBatch::add(uint16_t type, uint16_t flags, std::string label,
                       FunctionRef<void(nlmsghdr*)> fill)
{
    if (buffer_.size() - used_ < message_size_max) {
        throw std::length_error("nf_tables batch");
    }
    labels_.push_back(std::move(label));
    last_message_ = nft_request(buffer_.data() + used_, type, flags);
    last_message_->nlmsg_seq = last_ = netlink_.next_sequence();
    fill(last_message_);
    used_ += NLMSG_ALIGN(last_message_->nlmsg_len);
    return last_;
}

Netlink::BatchResult NftBatch::send(Purpose purpose)
{
    const uint32_t last = last_;
    last_message_->nlmsg_flags |= NLM_F_ACK;
    if (purpose == Purpose::Commit) {
        mark(NFNL_MSG_BATCH_END);
    }
    return netlink_.transact(buffer_.data(), used_, first_, last);
}

std::string NftBatch::label(uint32_t sequence) const
{
    const uint32_t index = sequence - first_ - 1;
    return index < labels_.size() ? labels_[index] : "batch";
}

}  // namespace vxi
