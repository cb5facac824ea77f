// vxi_get_blacklist: nf_tables sets and their elements (linux/netfilter/nf_tables.h).
#include "engines/linux/tables/Blacklist.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "api/Error.h"
#include "engines/linux/HandleSnapshots.h"
#include "engines/linux/Operations.h"
#include "engines/linux/netlink/NfTables.h"
#include "records/PublishedNames.h"
#include "records/TableOrigin.h"

namespace vxi {

namespace {

// Numbers of nft's data types ipv4_addr and ipv6_addr (TYPE_IPADDR and TYPE_IP6ADDR in nftables'
// datatype.h); the kernel only stores them.
constexpr std::uint32_t kKeyTypeIpv4 = 7;
constexpr std::uint32_t kKeyTypeIpv6 = 8;

constexpr std::string_view kNamePrefix = "blacklist";

// Callers add the size of the header to entries_size, in 32 bits.
constexpr std::size_t kEntriesMax =
    (std::numeric_limits<std::uint32_t>::max() - sizeof(vxa_blacklist_get_addrs_s)) /
    sizeof(vxa_blacklist_entry_s);

const char* SkipReason(std::uint32_t key_type, std::uint32_t flags)
{
    // The keys of a map select a value, they are not a list of addresses.
    if (flags & (NFT_SET_MAP | NFT_SET_OBJECT)) {
        return "a map";
    }
    return key_type == kKeyTypeIpv4 || key_type == kKeyTypeIpv6
               ? nullptr
               : "its elements are not of type ipv4_addr or ipv6_addr";
}

std::optional<Address> DecodeAddress(const nlattr* data, std::size_t size)
{
    Address address = {};
    const nlattr* const value = data ? Attributes(*data).Find(NFTA_DATA_VALUE) : nullptr;
    return CopyPayload(value, address.data(), size) ? std::optional(address) : std::nullopt;
}

Address HighestAddress(std::size_t size)
{
    Address address = {};
    std::fill_n(address.begin(), size, 0xff);
    return address;
}

// Returns address - 1; address must not be zero.
Address PreviousAddress(Address address, std::size_t size)
{
    std::size_t i = size;
    while (i > 0 && address[i - 1]-- == 0) {
        --i;
    }
    return address;
}

// Returns nullopt for an element without a key of the set's size.
std::optional<BlacklistElement> DecodeElement(const nlattr& attribute, const BlacklistSet& set)
{
    const Attributes attributes(attribute);
    const std::size_t size = set.AddressSize();
    const std::uint32_t flags = DecodeBe32(attributes.Find(NFTA_SET_ELEM_FLAGS)).value_or(0);
    BlacklistElement element;
    element.interval_end = flags & NFT_SET_ELEM_INTERVAL_END;
    element.timeout_ms = DecodeBe64(attributes.Find(NFTA_SET_ELEM_TIMEOUT));
    element.expires_ms = DecodeBe64(attributes.Find(NFTA_SET_ELEM_EXPIRATION));
    if (flags & NFT_SET_ELEM_CATCHALL) {
        element.key_end = HighestAddress(size);
        return element;
    }
    const auto key = DecodeAddress(attributes.Find(NFTA_SET_ELEM_KEY), size);
    if (!key) {
        return std::nullopt;
    }
    element.key = *key;
    element.key_end = DecodeAddress(attributes.Find(NFTA_SET_ELEM_KEY_END), size);
    return element;
}

std::uint32_t Seconds(std::uint64_t ms)
{
    return static_cast<std::uint32_t>(
        std::min<std::uint64_t>(ms / 1000, std::numeric_limits<std::uint32_t>::max()));
}

vxa_blacklist_entry_s MakeEntry(const BlacklistSet& set, std::uint16_t set_index,
                                const BlacklistElement& element, const Address& last)
{
    vxa_blacklist_entry_s entry = {};
    memcpy(entry.address, element.key.data(), sizeof entry.address);
    memcpy(entry.last, last.data(), sizeof entry.last);
    entry.family = set.family;
    entry.set_index = set_index;
    entry.flags = last != element.key ? VXA_BLACKLIST_RANGE : 0;
    if (element.expires_ms) {
        entry.flags |= VXA_BLACKLIST_TIMEOUT;
        entry.timeout_s = Seconds(element.timeout_ms.value_or(set.timeout_ms));
        entry.expires_s = Seconds(*element.expires_ms);
    }
    return entry;
}

using ElementIterator = std::vector<BlacklistElement>::const_iterator;

// Last address of the element at `at` in a list sorted by address.
Address LastAddress(const BlacklistSet& set, ElementIterator at, ElementIterator end)
{
    if (at->key_end || !set.intervals) {
        return at->key_end.value_or(at->key);
    }
    const auto next =
        std::find_if(at, end, [&](const BlacklistElement& other) { return other.key != at->key; });
    const std::size_t size = set.AddressSize();
    return next != end ? PreviousAddress(next->key, size) : HighestAddress(size);
}

std::vector<BlacklistSet> ReadSets(Netlink& netlink, BlacklistSnapshot& snapshot)
{
    std::vector<BlacklistSet> sets;
    const Consistency consistency = RetryInterrupted([&] {
        alignas(nlmsghdr) char buffer[kNftDumpSize];
        nlmsghdr* request = PutNftDump(buffer, NFT_MSG_GETSET, NFPROTO_UNSPEC);
        sets.clear();
        return netlink.Request(*request, [&](const nlmsghdr& message) {
            if (auto set = DecodeBlacklistSet(message)) {
                sets.push_back(std::move(*set));
            }
        });
    });
    snapshot.interrupted |= consistency == Consistency::kInterrupted;
    return sets;
}

struct SetElements {
    std::vector<BlacklistElement> elements;
    std::uint64_t unreadable;
    Consistency consistency;
};

// Returns nullopt if the set has been removed since the sets were listed.
std::optional<SetElements> ReadElements(Netlink& netlink, const BlacklistSet& set)
try {
    SetElements found;
    found.consistency = RetryInterrupted([&] {
        alignas(nlmsghdr) char buffer[kNftDumpSize];
        nlmsghdr* request = PutNftDump(buffer, NFT_MSG_GETSETELEM, set.nft_family);
        mnl_attr_put_strz(request, NFTA_SET_ELEM_LIST_TABLE, set.table.c_str());
        mnl_attr_put_strz(request, NFTA_SET_ELEM_LIST_SET, set.name.c_str());
        found.elements.clear();
        found.unreadable = 0;
        return netlink.Request(*request, [&](const nlmsghdr& message) {
            found.unreadable += AppendElements(message, set, found.elements);
        });
    });
    return found;
} catch (const Error& error) {
    if (error.Status() != -ENOENT) {
        throw;
    }
    return std::nullopt;
}

void AppendEntries(std::vector<vxa_blacklist_entry_s>&& entries, BlacklistSnapshot& snapshot)
{
    const std::size_t fitting = std::min(entries.size(), kEntriesMax - snapshot.entries.size());
    snapshot.dropped += entries.size() - fitting;
    snapshot.entries.insert(snapshot.entries.end(), entries.begin(),
                            entries.begin() + static_cast<std::ptrdiff_t>(fitting));
}

void ReadSet(Netlink& netlink, const BlacklistSet& set, BlacklistSnapshot& snapshot)
{
    const std::string name = NftFamilyName(set.nft_family) + " " + set.table + " " + set.name;
    if (set.skip_reason) {
        snapshot.skipped.push_back(name + ": " + set.skip_reason);
        return;
    }
    auto found = ReadElements(netlink, set);
    if (!found) {
        return;
    }
    constexpr std::size_t kIndexMax = std::numeric_limits<std::uint16_t>::max();
    const auto index = static_cast<std::uint16_t>(std::min(snapshot.sets.size(), kIndexMax));
    AppendEntries(BlacklistEntries(set, index, std::move(found->elements)), snapshot);
    snapshot.unreadable += found->unreadable;
    snapshot.interrupted |= found->consistency == Consistency::kInterrupted;
    snapshot.sets.push_back(name);
}

void NoteBlacklistSource(const vxi_handle_ops_s* handle, const BlacklistSnapshot& snapshot)
{
    const char* const engine = handle->engine->name;
    PublishNames(engine, NameList::kBlacklistSets, {snapshot.sets});
    PublishNames(engine, NameList::kBlacklistSkipped, {snapshot.skipped});
    std::string source = "nf_tables sets named blacklist*";
    if (snapshot.interrupted) {
        source += ", incomplete: they changed during each of six readings";
    }
    if (snapshot.unreadable > 0) {
        source += ", " + std::to_string(snapshot.unreadable) + " elements unreadable";
    }
    if (snapshot.dropped > 0) {
        source += ", " + std::to_string(snapshot.dropped) + " more do not fit";
    }
    SetTableSource(Table::kBlacklist, "%s", source.c_str());
}

std::uint32_t SizeInBytes(std::size_t entries)
{
    return static_cast<std::uint32_t>(entries * sizeof(vxa_blacklist_entry_s));
}

void SizeBlacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s& list)
{
    auto snapshot = std::make_unique<BlacklistSnapshot>(ReadBlacklist());
    NoteBlacklistSource(handle, *snapshot);
    list.entries_size = SizeInBytes(snapshot->entries.size());
    list.set_count = static_cast<std::uint32_t>(snapshot->sets.size());
    Snapshots(handle).blacklist = std::move(snapshot);
}

void FillBlacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s& list)
{
    const auto snapshot = TakeSnapshot(Snapshots(handle).blacklist);
    const std::size_t room = list.entries_size / sizeof(vxa_blacklist_entry_s);
    const std::uint32_t bytes = SizeInBytes(std::min(room, snapshot->entries.size()));
    // The header is 44 bytes long, so the entries after it are not aligned.
    std::copy_n(reinterpret_cast<const char*>(snapshot->entries.data()), bytes,
                reinterpret_cast<char*>(&list + 1));
    list.entries_size = bytes;
    list.set_count = static_cast<std::uint32_t>(snapshot->sets.size());
}

}  // namespace

std::optional<BlacklistSet> DecodeBlacklistSet(const nlmsghdr& message)
{
    if (!IsNft(message, NFT_MSG_NEWSET)) {
        return {};
    }
    const Attributes attributes(message, sizeof(nfgenmsg));
    const auto name = DecodeString(attributes.Find(NFTA_SET_NAME));
    const auto flags = DecodeBe32(attributes.Find(NFTA_SET_FLAGS)).value_or(0);
    const auto type = DecodeBe32(attributes.Find(NFTA_SET_KEY_TYPE)).value_or(0);
    if (name.substr(0, kNamePrefix.size()) != kNamePrefix) {
        return {};
    }
    BlacklistSet set;
    set.nft_family = NftFamily(message);
    set.table = DecodeString(attributes.Find(NFTA_SET_TABLE));
    set.name = name;
    set.family = type == kKeyTypeIpv4 ? 4 : 6;
    set.intervals = flags & NFT_SET_INTERVAL;
    set.timeout_ms = DecodeBe64(attributes.Find(NFTA_SET_TIMEOUT)).value_or(0);
    set.skip_reason = SkipReason(type, flags);
    return set;
}

std::uint64_t AppendElements(const nlmsghdr& message, const BlacklistSet& set,
                             std::vector<BlacklistElement>& elements)
{
    if (!IsNft(message, NFT_MSG_NEWSETELEM)) {
        return 0;
    }
    const nlattr* list = Attributes(message, sizeof(nfgenmsg)).Find(NFTA_SET_ELEM_LIST_ELEMENTS);
    if (!list) {
        return 0;  // an empty set
    }
    std::uint64_t unreadable = 0;
    for (const nlattr& attribute : Attributes(*list)) {
        if (const auto element = DecodeElement(attribute, set)) {
            elements.push_back(*element);
        } else {
            ++unreadable;
        }
    }
    return unreadable;
}

std::vector<vxa_blacklist_entry_s> BlacklistEntries(const BlacklistSet& set,
                                                    std::uint16_t set_index,
                                                    std::vector<BlacklistElement> elements)
{
    std::sort(elements.begin(), elements.end(),
              [](const auto& a, const auto& b) { return a.key < b.key; });
    std::vector<vxa_blacklist_entry_s> entries;
    entries.reserve(elements.size());
    for (auto element = elements.begin(); element != elements.end(); ++element) {
        if (!element->interval_end) {
            const Address last = LastAddress(set, element, elements.end());
            entries.push_back(MakeEntry(set, set_index, *element, last));
        }
    }
    return entries;
}

BlacklistSnapshot ReadBlacklist()
{
    Netlink netlink;
    OpenNfTables(netlink);
    try {
        BlacklistSnapshot snapshot;
        for (const BlacklistSet& set : ReadSets(netlink, snapshot)) {
            ReadSet(netlink, set, snapshot);
        }
        return snapshot;
    } catch (const Error& error) {
        ThrowError(error.Status(), "reading the nf_tables sets: %s", error.what());
    }
}

int LinuxOperations::GetBlacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list)
{
    if (list->entries_size == 0) {
        SizeBlacklist(handle, *list);
    } else {
        FillBlacklist(handle, *list);
    }
    return 0;
}

}  // namespace vxi
