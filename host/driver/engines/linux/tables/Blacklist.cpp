#include "engines/linux/tables/Blacklist.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "api/Message.h"
#include "api/Source.h"
#include "engines/linux/HandleState.h"
#include "engines/linux/Operations.h"
#include "engines/linux/netlink/NftDump.h"

namespace vxi {

namespace {

// What nft calls ipv4_addr and ipv6_addr; the kernel only stores the number.
constexpr std::uint32_t kEyTypeIpv4 = 7;
constexpr std::uint32_t kEyTypeIpv6 = 8;

// A caller adds the header to the size in 32 bits.
constexpr std::size_t kEntriesMax =
    (std::numeric_limits<std::uint32_t>::max() - sizeof(vxa_blacklist_get_addrs_s)) /
    sizeof(vxa_blacklist_entry_s);

const char* WhySkipped(std::uint32_t key_type, std::uint32_t flags)
{
    // Its keys select a value, they are not a list of addresses.
    if (flags & (NFT_SET_MAP | NFT_SET_OBJECT)) {
        return "a map";
    }
    return key_type == kEyTypeIpv4 || key_type == kEyTypeIpv6
               ? nullptr
               : "its elements are not of type ipv4_addr or ipv6_addr";
}

bool StartsWith(std::string_view text, std::string_view start)
{
    return text.substr(0, start.size()) == start;
}

bool read_address(const nlattr* data, std::size_t size, Address& address)
{
    const nlattr* value = data ? Attributes(*data).Find(NFTA_DATA_VALUE) : nullptr;
    if (!value || mnl_attr_get_payload_len(value) != size) {
        return false;
    }
    memcpy(address.data(), mnl_attr_get_payload(value), size);
    return true;
}

Address Highest(std::size_t size)
{
    Address address = {};
    std::fill_n(address.begin(), size, 0xff);
    return address;
}

// Returns address - 1; address must not be zero.
Address Before(Address address, std::size_t size)
{
    std::size_t i = size;
    while (i > 0 && address[i - 1]-- == 0) {
        --i;
    }
    return address;
}

bool read_element(const nlattr& attribute, const BlacklistSet& set, BlacklistElement& element)
{
    const Attributes attributes(attribute);
    const std::size_t size = set.address_size();
    const std::uint32_t flags = Be32Of(attributes.Find(NFTA_SET_ELEM_FLAGS)).value_or(0);
    element.ends_interval = flags & NFT_SET_ELEM_INTERVAL_END;
    element.timeout_ms = Be64Of(attributes.Find(NFTA_SET_ELEM_TIMEOUT));
    element.expires_ms = Be64Of(attributes.Find(NFTA_SET_ELEM_EXPIRATION));
    if (flags & NFT_SET_ELEM_CATCHALL) {
        element.last = Highest(size);
        return true;
    }
    Address last;
    if (read_address(attributes.Find(NFTA_SET_ELEM_KEY_END), size, last)) {
        element.last = last;
    }
    return read_address(attributes.Find(NFTA_SET_ELEM_KEY), size, element.key);
}

std::uint32_t Seconds(std::uint64_t ms)
{
    return static_cast<std::uint32_t>(
        std::min<std::uint64_t>(ms / 1000, std::numeric_limits<std::uint32_t>::max()));
}

vxa_blacklist_entry_s EntryOf(const BlacklistSet& set, std::uint16_t set_index,
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

using ElementsAt = std::vector<BlacklistElement>::const_iterator;

// Last address of the element at `at`; those after it have the same address or higher ones.
Address LastOf(const BlacklistSet& set, ElementsAt at, ElementsAt end)
{
    if (at->last || !set.intervals) {
        return at->last.value_or(at->key);
    }
    const auto next =
        std::find_if(at, end, [&](const BlacklistElement& other) { return other.key != at->key; });
    const std::size_t size = set.address_size();
    return next != end ? Before(next->key, size) : Highest(size);
}

int read_sets(Netlink& netlink, std::vector<BlacklistSet>& sets)
{
    return RetryInterrupted([&] {
        alignas(nlmsghdr) char buffer[kNftDumpSize];
        nlmsghdr* request = NftDump(buffer, NFT_MSG_GETSET, NFPROTO_UNSPEC);
        sets.clear();
        return netlink.Request(*request, [&](const nlmsghdr& message) {
            if (auto set = DecodeSet(message)) {
                sets.push_back(std::move(*set));
            }
            return 0;
        });
    });
}

int read_elements(Netlink& netlink, const BlacklistSet& set,
                  std::vector<BlacklistElement>& elements, std::uint64_t& unreadable)
{
    return RetryInterrupted([&] {
        alignas(nlmsghdr) char buffer[kNftDumpSize];
        nlmsghdr* request = NftDump(buffer, NFT_MSG_GETSETELEM, set.nft_family);
        mnl_attr_put_strz(request, NFTA_SET_ELEM_LIST_TABLE, set.table.c_str());
        mnl_attr_put_strz(request, NFTA_SET_ELEM_LIST_SET, set.name.c_str());
        elements.clear();
        unreadable = 0;
        return netlink.Request(*request, [&](const nlmsghdr& message) {
            unreadable += TakeElements(message, set, elements);
            return 0;
        });
    });
}

void append(std::vector<vxa_blacklist_entry_s>&& entries, BlacklistSnapshot& snapshot)
{
    const std::size_t fitting = std::min(entries.size(), kEntriesMax - snapshot.entries.size());
    snapshot.beyond += entries.size() - fitting;
    snapshot.entries.insert(snapshot.entries.end(), entries.begin(), entries.begin() + fitting);
}

// What came of an interrupted dump is used: six readings without rest are answer enough.
bool Usable(int status, BlacklistSnapshot& snapshot)
{
    snapshot.interrupted = snapshot.interrupted || status == -EINTR;
    return status == 0 || status == -EINTR;
}

int read_set(Netlink& netlink, const BlacklistSet& set, BlacklistSnapshot& snapshot)
{
    const std::string name = NftFamilyName(set.nft_family) + " " + set.table + " " + set.name;
    if (set.skipped) {
        snapshot.skipped.push_back(name + ": " + set.skipped);
        return 0;
    }
    constexpr std::size_t kIndexMax = std::numeric_limits<std::uint16_t>::max();
    std::vector<BlacklistElement> elements;
    std::uint64_t unreadable = 0;
    const int status = read_elements(netlink, set, elements, unreadable);
    if (status == -ENOENT) {
        return 0;  // removed since the sets were listed
    }
    if (!Usable(status, snapshot)) {
        return status;
    }
    const auto index = static_cast<std::uint16_t>(std::min(snapshot.sets.size(), kIndexMax));
    append(EntriesOf(set, index, std::move(elements)), snapshot);
    snapshot.unreadable += unreadable;
    snapshot.sets.push_back(name);
    return 0;
}

Outcome read_failure(int status)
{
    return Failure(status, "reading the nf_tables sets: %s", DescribeStatus(status).c_str());
}

void TellSource(const vxi_handle_ops_s* handle, const BlacklistSnapshot& snapshot)
{
    const char* const engine = handle->engine->name;
    SetSlotNames(engine, Area::kBlacklistSets, {snapshot.sets});
    SetSlotNames(engine, Area::kBlacklistSkipped, {snapshot.skipped});
    std::string text = "nf_tables sets named blacklist*";
    if (snapshot.interrupted) {
        text += ", incomplete: they changed during each of six readings";
    }
    if (snapshot.unreadable > 0) {
        text += ", " + std::to_string(snapshot.unreadable) + " elements unreadable";
    }
    if (snapshot.beyond > 0) {
        text += ", " + std::to_string(snapshot.beyond) + " more do not fit";
    }
    NoteSource(Table::kBlacklist, "%s", text.c_str());
}

std::uint32_t BytesOf(std::size_t entries)
{
    return static_cast<std::uint32_t>(entries * sizeof(vxa_blacklist_entry_s));
}

int SizeBlacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list)
{
    Netlink netlink;
    auto snapshot = std::make_unique<BlacklistSnapshot>();
    const Outcome outcome = read_blacklist(netlink, *snapshot);
    if (outcome.Failed()) {
        ThrowError(outcome.status, "%s", outcome.text.c_str());
    }
    TellSource(handle, *snapshot);
    list->entries_size = BytesOf(snapshot->entries.size());
    list->set_count = static_cast<std::uint32_t>(snapshot->sets.size());
    StateOf(handle).blacklist = std::move(snapshot);
    return 0;
}

}  // namespace

std::optional<BlacklistSet> DecodeSet(const nlmsghdr& message)
{
    if (!IsNft(message, NFT_MSG_NEWSET)) {
        return {};
    }
    const Attributes attributes(message, sizeof(nfgenmsg));
    const auto name = TextOf(attributes.Find(NFTA_SET_NAME));
    const auto flags = Be32Of(attributes.Find(NFTA_SET_FLAGS)).value_or(0);
    const auto type = Be32Of(attributes.Find(NFTA_SET_KEY_TYPE)).value_or(0);
    if (!StartsWith(name, "blacklist")) {
        return {};
    }
    BlacklistSet set;
    set.nft_family = NftFamily(message);
    set.table = TextOf(attributes.Find(NFTA_SET_TABLE));
    set.name = name;
    set.family = type == kEyTypeIpv4 ? 4 : 6;
    set.intervals = flags & NFT_SET_INTERVAL;
    set.timeout_ms = Be64Of(attributes.Find(NFTA_SET_TIMEOUT)).value_or(0);
    set.skipped = WhySkipped(type, flags);
    return set;
}

std::uint64_t TakeElements(const nlmsghdr& message, const BlacklistSet& set,
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
        BlacklistElement element;
        if (read_element(attribute, set, element)) {
            elements.push_back(element);
        } else {
            ++unreadable;
        }
    }
    return unreadable;
}

std::vector<vxa_blacklist_entry_s> EntriesOf(const BlacklistSet& set, std::uint16_t set_index,
                                             std::vector<BlacklistElement> elements)
{
    // An end before a start at the same address: neighbours may touch.
    std::sort(elements.begin(), elements.end(), [](const auto& a, const auto& b) {
        return a.key != b.key ? a.key < b.key : a.ends_interval > b.ends_interval;
    });
    std::vector<vxa_blacklist_entry_s> entries;
    entries.reserve(elements.size());
    for (auto element = elements.begin(); element != elements.end(); ++element) {
        if (!element->ends_interval) {
            const Address last = LastOf(set, element, elements.end());
            entries.push_back(EntryOf(set, set_index, *element, last));
        }
    }
    return entries;
}

Outcome read_blacklist(Netlink& netlink, BlacklistSnapshot& snapshot)
{
    const Outcome opened = OpenNfTables(netlink);
    if (opened.Failed()) {
        return opened;
    }
    std::vector<BlacklistSet> sets;
    int status = read_sets(netlink, sets);
    if (!Usable(status, snapshot)) {
        return read_failure(status);
    }
    for (const BlacklistSet& set : sets) {
        status = read_set(netlink, set, snapshot);
        if (status < 0) {
            return read_failure(status);
        }
    }
    return {};
}

int LinuxOperations::GetBlacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list)
{
    if (list->entries_size == 0) {
        return SizeBlacklist(handle, list);
    }
    const auto snapshot = std::move(StateOf(handle).blacklist);
    if (!snapshot) {
        ThrowError(-ENODATA, "no snapshot: ask for the size first");
    }
    const std::size_t room = list->entries_size / sizeof(vxa_blacklist_entry_s);
    const std::uint32_t bytes = BytesOf(std::min(room, snapshot->entries.size()));
    // The header is 44 bytes long, so the entries behind it are not aligned.
    std::copy_n(reinterpret_cast<const char*>(snapshot->entries.data()), bytes,
                reinterpret_cast<char*>(list + 1));
    list->entries_size = bytes;
    list->set_count = static_cast<std::uint32_t>(snapshot->sets.size());
    return 0;
}

}  // namespace vxi
