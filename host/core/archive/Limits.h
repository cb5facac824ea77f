// What the archive reader accepts, and the writer keeps to.
#pragma once

#include <cstddef>
#include <cstdint>

namespace VxaCore {

constexpr std::size_t kMostEntries = 10000;
constexpr std::size_t kLongestName = 4096;                       // PATH_MAX
constexpr std::uint64_t kMostEntryBytes = 256ull * 1024 * 1024;  // larger than any driver table

}  // namespace VxaCore
