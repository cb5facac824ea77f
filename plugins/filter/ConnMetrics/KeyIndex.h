// Byte index in front of the working store, for keys of plain ASCII without NUL: those
// decode to the same key in every locale, so comparing their bytes is enough.
//
// Feeding a known key reads a slot, and a record that holds the key's count next to its
// bytes. The slots are few enough to stay in the cache, and the record of a key of up to 56
// bytes is one cache line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "KeyHash.h"

namespace fc {

// Non-empty, no NUL, no byte above 127.
bool IsPlainAscii(std::string_view key);

class KeyIndex {
public:
    // Adds to the count kept for the key. False when the key is not in the index.
    bool Count(std::string_view key, std::uint32_t count);

    // Adds a key whose entry has its count at `total`, which must stay valid until Clear.
    // Ignores keys that are known, and all keys once the index is full.
    void Insert(std::string_view key, std::uint32_t* total);

    // Adds what was counted to the entries' totals.
    void Flush();

    // Forgets all keys and releases their memory.
    void Clear();

    std::size_t size() const { return m_totals.size(); }

private:
    struct Slot {
        std::uint32_t tag;     // upper half of the hash
        std::uint32_t record;  // number of its first cell, plus 1; 0: the slot is free
    };
    // A record fills as many successive cells as its key needs: beyond the first, all 64
    // bytes of a cell are the key's.
    struct alignas(64) Cell {
        std::uint32_t pending;
        std::uint32_t length;
        char bytes[56];
    };
    static_assert(sizeof(Cell) == 64, "one cache line");

    static std::size_t CellsFor(std::size_t length);
    char* BytesOf(std::size_t cell);
    bool Holds(const Slot& slot, std::uint32_t tag, std::string_view key);
    // The key's slot, or the free one where it belongs.
    Slot& Find(std::string_view key, std::uint64_t hash);

    KeyHash m_hash;
    std::vector<Slot> m_slots;  // a power of two; never full
    std::vector<Cell> m_cells;
    std::vector<std::uint32_t*> m_totals;  // by record, in the order of the cells
};

}  // namespace fc
