// Hash index from the bytes of a key to its count.

#include "KeyIndex.h"

#include <cstring>

#include "Limits.h"

namespace fc {
namespace {

// A power of two; a full store has a load factor of 0.61.
constexpr std::size_t kBuckets = 16384;
static_assert(kMaxKeys < kBuckets);

}  // namespace

// Eight bytes at a time: this is most of the cost of refusing a key.
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
    return ascii && !key.empty() && !std::memchr(key.data(), '\0', key.size());
}

std::size_t KeyIndex::RecordSize(std::size_t key_length)
{
    return (offsetof(CacheLine, key) + key_length + sizeof(CacheLine) - 1) / sizeof(CacheLine);
}

char* KeyIndex::KeyOf(std::size_t record)
{
    return reinterpret_cast<char*>(&m_records[record]) + offsetof(CacheLine, key);
}

bool KeyIndex::IsInBucket(const Bucket& bucket, std::uint32_t fingerprint, std::string_view key)
{
    return bucket.fingerprint == fingerprint &&
           m_records[bucket.record - 1].key_length == key.size() &&
           std::memcmp(KeyOf(bucket.record - 1), key.data(), key.size()) == 0;
}

KeyIndex::Bucket& KeyIndex::FindBucket(std::string_view key, std::uint64_t hash)
{
    const auto fingerprint = static_cast<std::uint32_t>(hash >> 32);
    std::size_t at = hash & (kBuckets - 1);
    while (m_buckets[at].record != 0 && !IsInBucket(m_buckets[at], fingerprint, key))
        at = (at + 1) & (kBuckets - 1);
    return m_buckets[at];
}

bool KeyIndex::AddToKnown(std::string_view key, std::uint32_t count)
{
    if (m_buckets.empty()) return false;
    const Bucket& bucket = FindBucket(key, m_hash(key));
    if (bucket.record == 0) return false;
    m_records[bucket.record - 1].pending_count += count;
    return true;
}

void KeyIndex::Insert(std::string_view key, std::uint32_t* total)
{
    if (m_totals.size() >= kMaxKeys || key.size() > UINT32_MAX) return;
    if (m_buckets.empty()) m_buckets.resize(kBuckets);
    const std::uint64_t hash = m_hash(key);
    Bucket& bucket = FindBucket(key, hash);
    if (bucket.record != 0) return;
    const std::size_t record = m_records.size();
    m_records.reserve(kMaxKeys);
    m_totals.reserve(kMaxKeys);
    m_records.resize(record + RecordSize(key.size()));
    m_totals.push_back(total);
    m_records[record].key_length = static_cast<std::uint32_t>(key.size());
    std::memcpy(KeyOf(record), key.data(), key.size());
    bucket = {static_cast<std::uint32_t>(hash >> 32), static_cast<std::uint32_t>(record + 1)};
}

void KeyIndex::FlushAndClear()
{
    std::size_t record = 0;
    for (std::uint32_t* total : m_totals) {
        *total += m_records[record].pending_count;
        record += RecordSize(m_records[record].key_length);
    }
    *this = KeyIndex();
}

}  // namespace fc
