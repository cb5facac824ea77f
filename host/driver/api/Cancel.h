// Lets the host end long reads; see vxi_set_cancel_check.
#pragma once

namespace vxi {

// Throws Error with -ECANCELED when the host wants the current read to end. `source` is what is
// being read, for the message.
void ThrowIfCancelled(const char* source);

}  // namespace vxi
