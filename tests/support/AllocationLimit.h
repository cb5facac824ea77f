// Memory that runs out, for programs that link "allocation_limit". Limits are the calling thread's.
#pragma once

#include <cstddef>

namespace allocations {

// From now on `count` allocations by operator new succeed and all later ones fail.
void Allow(long count);

// The same of malloc and its kin, which operator new takes its memory from. A sanitizer's malloc
// never fails: beside one it returns false, and the limit is operator new's.
bool AllowMalloc(long count);

// Lifts the limit; returns whether an allocation failed under it.
bool LiftLimit();

// From now on malloc and its kin refuse blocks of at least this size; 0 lifts that. Does nothing
// and returns false beside a sanitizer.
bool RefuseFrom(std::size_t size);

}  // namespace allocations
