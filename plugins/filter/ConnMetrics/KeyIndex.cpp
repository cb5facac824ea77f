#include "KeyIndex.h"

#include <sys/random.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
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

// Where the kernel has no random numbers yet, the moment and the place in memory must do.
KeyHash::KeyHash()
{
    if (getrandom(m_secret, sizeof m_secret, GRND_NONBLOCK) == sizeof m_secret) return;
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    m_secret[0] = static_cast<std::uint64_t>(now) * UINT64_C(0x9e3779b97f4a7c15);
    m_secret[1] = reinterpret_cast<std::uintptr_t>(this) * UINT64_C(0xd6e8feb86659fd93);
}

std::size_t KeyIndex::CellsFor(std::size_t length)
{
    return (offsetof(Cell, bytes) + length + sizeof(Cell) - 1) / sizeof(Cell);
}

char* KeyIndex::BytesOf(std::size_t cell)
{
    return reinterpret_cast<char*>(&m_cells[cell]) + offsetof(Cell, bytes);
}

bool KeyIndex::Holds(const Slot& slot, std::uint32_t tag, std::string_view key)
{
    return slot.tag == tag && m_cells[slot.record - 1].length == key.size() &&
           std::memcmp(BytesOf(slot.record - 1), key.data(), key.size()) == 0;
}

KeyIndex::Slot& KeyIndex::Find(std::string_view key, std::uint64_t hash)
{
    const auto tag = static_cast<std::uint32_t>(hash >> 32);
    std::size_t at = hash & (kSlots - 1);
    while (m_slots[at].record != 0 && !Holds(m_slots[at], tag, key)) at = (at + 1) & (kSlots - 1);
    return m_slots[at];
}

bool KeyIndex::Count(std::string_view key, std::uint32_t count)
{
    if (m_slots.empty()) return false;
    const Slot& slot = Find(key, m_hash(key));
    if (slot.record == 0) return false;
    m_cells[slot.record - 1].pending += count;
    return true;
}

void KeyIndex::Insert(std::string_view key, std::uint32_t* total)
{
    if (m_totals.size() >= kMostKeys || key.size() > UINT32_MAX) return;
    if (m_slots.empty()) m_slots.resize(kSlots);
    const std::uint64_t hash = m_hash(key);
    Slot& slot = Find(key, hash);
    if (slot.record != 0) return;
    const std::size_t cell = m_cells.size();
    m_cells.reserve(kMostKeys);
    m_totals.reserve(kMostKeys);
    m_cells.resize(cell + CellsFor(key.size()));
    m_totals.push_back(total);
    m_cells[cell].length = static_cast<std::uint32_t>(key.size());
    std::memcpy(BytesOf(cell), key.data(), key.size());
    slot = {static_cast<std::uint32_t>(hash >> 32), static_cast<std::uint32_t>(cell + 1)};
}

void KeyIndex::Flush()
{
    std::size_t cell = 0;
    for (std::uint32_t* total : m_totals) {
        *total += m_cells[cell].pending;
        m_cells[cell].pending = 0;
        cell += CellsFor(m_cells[cell].length);
    }
}

void KeyIndex::Clear()
{
    *this = KeyIndex();
}

}  // namespace fc
