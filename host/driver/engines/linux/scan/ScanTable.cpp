// The messages that create a scan table, without its rules.
#include "engines/linux/scan/ScanTable.h"

#include <libnftnl/chain.h>
#include <libnftnl/object.h>
#include <libnftnl/set.h>
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include "engines/linux/scan/Nftnl.h"
#include "engines/linux/scan/ScanRules.h"
#include "vxi/records.h"

namespace vxi {

const std::array<const char*, kScanNamedCount> kScanCounterNames = {
    "new_connections",       "established_connections", "refused_connections",
    "other_resets",          "retransmitted_syns",      "fins_to_port",
    "uncounted_connections",
};

namespace {

// Before the filter chains at priority 0, after connection tracking.
constexpr int kHookPriority = -140;

constexpr std::uint64_t kMsPerS = 1000;

auto MakeTable(const std::string& name)
{
    auto table = OwnNftnl<nftnl_table_free>(nftnl_table_alloc());
    CheckNftnlSet(nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, name.c_str()));
    return table;
}

std::uint32_t AddTable(NftBatch& batch, const ScanTableSpec& spec)
{
    const auto table = MakeTable(spec.name);
    if (spec.owned) {
        nftnl_table_set_u32(table.get(), NFTNL_TABLE_FLAGS, NFT_TABLE_F_OWNER);
    }
    return batch.Add(
        NFT_MSG_NEWTABLE, NLM_F_CREATE | NLM_F_EXCL, "table " + spec.name,
        [&](nlmsghdr* header) { nftnl_table_nlmsg_build_payload(header, table.get()); });
}

void AddCounter(NftBatch& batch, const std::string& table, const char* name)
{
    auto counter = OwnNftnl<nftnl_obj_free>(nftnl_obj_alloc());
    nftnl_obj_set_u32(counter.get(), NFTNL_OBJ_FAMILY, NFPROTO_INET);
    nftnl_obj_set_u32(counter.get(), NFTNL_OBJ_TYPE, NFT_OBJECT_COUNTER);
    nftnl_obj_set_str(counter.get(), NFTNL_OBJ_TABLE, table.c_str());
    nftnl_obj_set_str(counter.get(), NFTNL_OBJ_NAME, name);
    // These setters do not report that memory ran out.
    if (!nftnl_obj_get_str(counter.get(), NFTNL_OBJ_TABLE) ||
        !nftnl_obj_get_str(counter.get(), NFTNL_OBJ_NAME)) {
        throw std::bad_alloc();
    }
    nftnl_obj_set_u64(counter.get(), NFTNL_OBJ_CTR_PKTS, 0);
    nftnl_obj_set_u64(counter.get(), NFTNL_OBJ_CTR_BYTES, 0);
    batch.Add(NFT_MSG_NEWOBJ, NLM_F_CREATE | NLM_F_EXCL, std::string("counter ") + name,
              [&](nlmsghdr* header) { nftnl_obj_nlmsg_build_payload(header, counter.get()); });
}

void AddSet(NftBatch& batch, const ScanTableSpec& spec, const HalfOpenSet& half_open)
{
    auto set = OwnNftnl<nftnl_set_free>(nftnl_set_alloc());
    CheckNftnlSet(nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, spec.name.c_str()));
    CheckNftnlSet(nftnl_set_set_str(set.get(), NFTNL_SET_NAME, half_open.set.name));
    nftnl_set_set_u32(set.get(), NFTNL_SET_FAMILY, NFPROTO_INET);
    nftnl_set_set_u32(set.get(), NFTNL_SET_ID, half_open.set.id);
    nftnl_set_set_u32(set.get(), NFTNL_SET_FLAGS, NFT_SET_EVAL | NFT_SET_TIMEOUT);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, half_open.key_type);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, KeySize(half_open));
    nftnl_set_set_u32(set.get(), NFTNL_SET_DESC_SIZE, kHalfOpenMax);
    nftnl_set_set_u64(set.get(), NFTNL_SET_TIMEOUT, spec.half_open_timeout_s * kMsPerS);
    batch.Add(NFT_MSG_NEWSET, NLM_F_CREATE | NLM_F_EXCL, std::string("set ") + half_open.set.name,
              [&](nlmsghdr* header) { nftnl_set_nlmsg_build_payload(header, set.get()); });
}

// Adds a base chain on a hook (NF_INET_*), or without `hook` one that other chains go to.
void AddChain(NftBatch& batch, const std::string& table, const char* name,
              const std::uint32_t* hook)
{
    auto chain = OwnNftnl<nftnl_chain_free>(nftnl_chain_alloc());
    CheckNftnlSet(nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, table.c_str()));
    CheckNftnlSet(nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name));
    if (hook) {
        CheckNftnlSet(nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, "filter"));
        nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, *hook);
        nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, kHookPriority);
        nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
    }
    batch.Add(NFT_MSG_NEWCHAIN, NLM_F_CREATE | NLM_F_EXCL, std::string("chain ") + name,
              [&](nlmsghdr* header) { nftnl_chain_nlmsg_build_payload(header, chain.get()); });
}

struct HookRow {
    const char* chain;
    std::uint32_t hook;
    std::uint32_t port_offset;
    const char* target;
};

void AddHook(NftBatch& batch, const ScanTableSpec& spec, const HookRow& row)
{
    AddChain(batch, spec.name, row.chain, &row.hook);
    AddPortRule(batch, spec, row.chain, row.port_offset, row.target);
}

}  // namespace

std::uint32_t AddScanTable(NftBatch& batch, const ScanTableSpec& spec)
{
    const bool inbound = spec.target.direction == VXI_SCAN_INBOUND;
    const std::uint32_t to_port = inbound ? NF_INET_LOCAL_IN : NF_INET_LOCAL_OUT;
    const std::uint32_t from_port = inbound ? NF_INET_LOCAL_OUT : NF_INET_LOCAL_IN;
    const std::uint32_t table = AddTable(batch, spec);
    for (const char* counter : kScanCounterNames) {
        AddCounter(batch, spec.name, counter);
    }
    for (const HalfOpenSet& half_open : kHalfOpenSets) {
        AddSet(batch, spec, half_open);
    }
    for (const char* chain : kCountChains) {
        AddChain(batch, spec.name, chain, nullptr);
    }
    AddCountRules(batch, spec);
    AddHook(batch, spec, {"to_port", to_port, kDestinationPortOffset, kCountToPortChain});
    AddHook(batch, spec, {"from_port", from_port, kSourcePortOffset, kCountFromPortChain});
    return table;
}

void AddTableRemoval(NftBatch& batch, const std::string& name)
{
    const auto table = MakeTable(name);
    batch.Add(NFT_MSG_DELTABLE, 0, "removal of table " + name,
              [&](nlmsghdr* header) { nftnl_table_nlmsg_build_payload(header, table.get()); });
}

}  // namespace vxi
