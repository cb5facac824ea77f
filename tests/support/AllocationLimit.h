// Memory that runs out, for programs that link "allocation_limit". Limits are the calling
// thread's own.
#pragma once

#include <cstddef>

namespace allocations {

// From now on `count` allocations by operator new succeed and all that follow fail.
void Allow(long count);

// Instead by malloc and its kin, which operator new takes its memory from. False in a program
// with a sanitizer, whose malloc never fails: then the limit is operator new's.
bool AllowMalloc(long count);

// Lifts the limit; whether an allocation failed under it.
bool LiftLimit();

// From now on malloc and its kin refuse blocks of at least this size; 0: none. False with a
// sanitizer.
bool RefuseFrom(std::size_t size);

}  // namespace allocations
