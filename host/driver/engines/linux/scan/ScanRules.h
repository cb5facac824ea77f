// The rules of a scan table: which packets go where, and what is counted there.
#pragma once

#include <array>
#include <cstdint>

#include "engines/linux/netlink/NftBatch.h"
#include "engines/linux/scan/NftRule.h"
#include "engines/linux/scan/ScanTable.h"

namespace vxi {

// The half-open set of an IP version, and where the parts of its keys are in a packet.
struct HalfOpenSet {
    NftSetReference set;
    std::uint8_t family;  // NFPROTO_*
    std::uint32_t source_offset;
    std::uint32_t destination_offset;
    std::uint32_t address_size;
    std::uint32_t key_type;
};
extern const std::array<HalfOpenSet, 2> kHalfOpenSets;

// Size of a set's key in bytes: each part fills whole registers.
std::uint32_t KeySize(const HalfOpenSet& set);

// The chains that the rules fill. They have no hook: packets come from the rules of AddPortRule.
extern const std::array<const char*, 6> kCountChains;

// Adds the rules of kCountChains.
void AddCountRules(NftBatch& batch, const ScanTableSpec& spec);

// Adds the rule of a chain on a hook: sends packets whose port at `port_offset` of the TCP header
// is the monitored one to `target`.
constexpr std::uint32_t kSourcePortOffset = 0;
constexpr std::uint32_t kDestinationPortOffset = 2;
void AddPortRule(NftBatch& batch, const ScanTableSpec& spec, const char* chain,
                 std::uint32_t port_offset, const char* target);

}  // namespace vxi
