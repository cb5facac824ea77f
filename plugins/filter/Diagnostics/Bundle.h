// The driver's part of a diagnostic package.
#pragma once

#include "Export.h"
#include "VxaCore/Dom.h"
#include "VxaCore/ZipOutputStream.h"
#include "vxi/vxi.h"

namespace Filter::Diagnostics {

// Runs all dumps but the connection states, one after the other. Always returns true: a dump that
// fails is traced and does not stop the others.
FC_PUBLIC bool AddDriverContent(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                VxaCore::CZipOutputStream& zip);

}  // namespace Filter::Diagnostics
