// The network namespace of the calling thread.
#pragma once

#include <cstdint>

namespace vxi {

// Its inode; 0 when that cannot be told.
uint64_t network_namespace();

// Whether it is the one that the machine started with.
bool in_initial_namespace();

}  // namespace vxi
