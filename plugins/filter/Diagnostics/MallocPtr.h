// Owner of a driver record: a block from malloc or calloc, freed on every path.
#pragma once

#include <cstdlib>
#include <memory>

namespace Filter::Diagnostics {

struct FreeBlock {
    void operator()(void* block) const { std::free(block); }
};

template <typename Record>
using MallocPtr = std::unique_ptr<Record, FreeBlock>;

}  // namespace Filter::Diagnostics
