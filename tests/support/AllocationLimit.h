// Memory that runs out, for programs that link "allocation_limit". Limits are the calling thread's.
#pragma once

#include <cstddef>

namespace allocations {

// From now on `count` allocations by operator new succeed and all later ones fail.
void Allow(long count);

// The same for malloc and related functions, from which operator new gets its memory. A sanitizer's
// malloc never fails: under one, this returns false and limits operator new only.
bool AllowMalloc(long count);

// Lifts the limit; returns whether an allocation failed under it.
bool LiftLimit();

// From now on malloc and related functions refuse blocks of at least this size; 0 lifts that. Does
// nothing and returns false under a sanitizer.
bool RefuseFrom(std::size_t size);

}  // namespace allocations
