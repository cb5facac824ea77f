#include "KeyIndex.h"

#include <algorithm>
#include <cstring>

namespace fc {
namespace {

// Holds the 10000 keys of a full store at a load of 0.61.
constexpr std::size_t kSlots = 16384;
constexpr std::size_t kMostKeys = 10000;

}  // namespace

// Eight bytes a step: this is most of what refusing a key costs.
bool IsPlainAscii(std::string_view key)
{
    std::uint64_t all = 0;
    std::size_t at = 0;
    for (; at + sizeof all <= key.size(); at += sizeof all) {
        std::uint64_t bytes;
        std::memcpy(&bytes, key.data() + at, sizeof bytes);
        all |= bytes;
    }
    for (; at < key.size(); ++at) all |= static_cast<unsigned char>(key[at]);
    const bool ascii = (all & UINT64_C(0x8080808080808080)) == 0;
    return ascii && !key.empty() && std::memchr(key.data(), '\0', key.size()) == nullptr;
}

KeyIndex::Slot* KeyIndex::Find(std::string_view key, std::uint32_t hash)
{
    std::size_t at = hash & (kSlots - 1);
    while (m_slots[at].key != nullptr) {
        Slot& slot = m_slots[at];
        if (slot.hash == hash && slot.key->bytes == key) return &slot;
        at = (at + 1) & (kSlots - 1);
    }
    return &m_slots[at];
}

void KeyIndex::Insert(std::string_view key, std::uint32_t* total)
{
    if (m_slots.empty()) m_slots.resize(kSlots);
    const std::uint32_t hash = Hash(key);
    Slot* slot = Find(key, hash);
    if (slot->key != nullptr || m_keys.size() >= kMostKeys) return;
    m_keys.push_back({std::string(key), total});
    *slot = {hash, 0, &m_keys.back()};
}

void KeyIndex::Flush()
{
    for (Slot& slot : m_slots)
        if (slot.pending != 0) {
            *slot.key->total += slot.pending;
            slot.pending = 0;
        }
}

void KeyIndex::Clear()
{
    std::fill(m_slots.begin(), m_slots.end(), Slot{});
    m_keys.clear();
}

}  // namespace fc
