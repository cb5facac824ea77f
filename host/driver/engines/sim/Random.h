// Random numbers without state: each is a function of its coordinates, so that any tick and any row
// can be computed on its own and is the same on every machine.
#pragma once

#include <cstdint>

namespace vxi::sim {

// SplitMix64's finisher (Steele, Lea, Flood: Fast splittable pseudorandom number
// generators, 2014).
inline std::uint64_t Scramble(std::uint64_t x)
{
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9U;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebU;
    return x ^ (x >> 31);
}

inline std::uint64_t Draw(std::uint64_t seed, std::uint64_t stream, std::uint64_t index)
{
    constexpr std::uint64_t kOdd = 0x9e3779b97f4a7c15U;
    return Scramble(Scramble(seed * kOdd + stream) + (index + 1) * kOdd);
}

// In [0, 1).
inline double Fraction(std::uint64_t drawn)
{
    return static_cast<double>(drawn >> 11) * 0x1p-53;
}

}  // namespace vxi::sim
