// Lets the host end long reads; see vxi_set_cancel_check.
#pragma once

namespace vxi {

// Whether the host wants the read that is going on to end.
bool IsCancelled();

}  // namespace vxi
