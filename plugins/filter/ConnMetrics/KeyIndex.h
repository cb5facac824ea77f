// Byte index in front of the working store, for keys of plain ASCII without NUL: these
// mean the same text in every locale, so their bytes stand for the converted key.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace fc {

// Non-empty, no NUL, no byte above 127.
bool IsPlainAscii(std::string_view key);

class KeyIndex {
public:
    // Adds to the count kept for the key. False when the key is not in the index.
    bool Count(std::string_view key, std::uint32_t count)
    {
        Slot* slot = m_slots.empty() ? nullptr : Find(key, Hash(key));
        if (slot == nullptr || slot->key == nullptr) return false;
        slot->pending += count;
        return true;
    }

    // Lets the key stand for the entry whose count is at `total`, which must stay where it
    // is until Clear. A key that is in already, or for which there is no room, is left.
    void Insert(std::string_view key, std::uint32_t* total);

    // Adds what was counted to the entries' totals.
    void Flush();

    void Clear();

    std::size_t size() const { return m_keys.size(); }

private:
    struct Key {
        std::string bytes;
        std::uint32_t* total;
    };
    struct Slot {
        std::uint32_t hash;
        std::uint32_t pending;
        Key* key;
    };

    static std::uint32_t Hash(std::string_view key)
    {
        return static_cast<std::uint32_t>(std::hash<std::string_view>{}(key));
    }
    // The key's slot, or the free one where it belongs.
    Slot* Find(std::string_view key, std::uint32_t hash);

    std::vector<Slot> m_slots;  // a power of two; never full
    std::deque<Key> m_keys;     // elements do not move
};

}  // namespace fc
