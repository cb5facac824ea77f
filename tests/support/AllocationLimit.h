// Memory that runs out, for programs that link "allocation_limit". Limits are the calling
// thread's own.
#pragma once

#include <cstddef>

namespace allocations {

// From now on `count` allocations by operator new succeed and all that follow fail; -1: none
// fails.
void Allow(long count);

// Lifts the limit; whether an allocation failed under it.
bool LiftLimit();

// The same for malloc and its kin, which operator new takes its memory from. False where the
// program has a sanitizer's malloc, which never fails.
bool AllowMalloc(long count);
bool LiftMallocLimit();

// From now on malloc and its kin refuse blocks of at least this size; 0: none. False likewise.
bool RefuseFrom(std::size_t size);

}  // namespace allocations
