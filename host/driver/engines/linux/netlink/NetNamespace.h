// The network namespace of the calling thread.
#pragma once

#include <cstdint>

namespace vxi {

// Its inode; 0 when that cannot be told.
std::uint64_t NetworkNamespace();

// Whether it is the one that the machine started with.
bool InInitialNamespace();

}  // namespace vxi
