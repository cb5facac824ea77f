// Driver availability, and failed driver calls as agent events.
#pragma once

#include "Export.h"
#include "VxaCore/Dom.h"
#include "vxi/vxi.h"

namespace Filter::Diagnostics {

// Agent event of a failed driver call.
inline constexpr int kDriverCallFailedEvent = 1001;

// Returns whether the handle's driver is available.
FC_PUBLIC bool IsDriverOpen(vxi_handle_ops_s* handle);

// Returns whether the driver call `operation` succeeded, that is, returned 0. If not, writes
// the event with the operation, the status and the driver's error message, and traces it.
FC_PUBLIC bool ShowErrors(VxaCore::CDom* dom, vxi_handle_ops_s* handle, wchar_t const* operation,
                          int rc);

}  // namespace Filter::Diagnostics
