// operator new that runs out of memory, for programs that link "allocation_limit".
#pragma once

namespace allocations {

// From now on `count` allocations succeed and all that follow fail; -1: none fails.
void Allow(long count);

// Lifts the limit; whether an allocation failed under it.
bool LiftLimit();

}  // namespace allocations
