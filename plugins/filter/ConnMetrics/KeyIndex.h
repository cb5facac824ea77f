// Hash index from the bytes of a key to its count, in front of the working store.
//
// It takes keys of plain ASCII without NUL: those decode to the same string in every locale, so
// comparing bytes is enough. Open addressing with linear probing. Feeding a known key reads a
// bucket and a record, which has the key's count next to its bytes. The buckets are few enough to
// stay in the cache, and the record of a key of up to 56 bytes is one cache line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "KeyHash.h"

namespace fc {

// Returns whether the key is not empty and has neither a NUL nor a byte above 127.
bool IsPlainAscii(std::string_view key);

class KeyIndex {
public:
    // Adds to the pending count of a key. Returns false if the key is not in the index.
    bool AddToKnown(std::string_view key, std::uint32_t count);

    // Adds a key of the store, whose total must stay valid until FlushAndClear. Ignores known keys,
    // and all keys once the index is full. Throws std::bad_alloc.
    void Insert(std::string_view key, std::uint32_t* total);

    // Adds the pending counts to the totals, then removes all keys and releases their memory.
    void FlushAndClear();

    // Returns the number of keys.
    std::size_t Size() const { return m_totals.size(); }

private:
    struct Bucket {
        std::uint32_t fingerprint;  // upper half of the hash
        std::uint32_t record;       // number of its first cache line plus 1; 0: free
    };
    // A record is as many successive cache lines as its key needs: the key continues over all of
    // the later ones.
    struct alignas(64) CacheLine {
        std::uint32_t pending_count;
        std::uint32_t key_length;
        char key[56];
    };
    static_assert(sizeof(CacheLine) == 64);

    static std::size_t RecordSize(std::size_t key_length);  // in cache lines
    char* KeyOf(std::size_t record);
    bool IsInBucket(const Bucket& bucket, std::uint32_t fingerprint, std::string_view key);
    // Returns the key's bucket, or the free one where it belongs.
    Bucket& FindBucket(std::string_view key, std::uint64_t hash);

    KeyHash m_hash;
    std::vector<Bucket> m_buckets;  // empty, or a power of two of which some are free
    std::vector<CacheLine> m_records;
    std::vector<std::uint32_t*> m_totals;  // in the order of the records
};

}  // namespace fc
