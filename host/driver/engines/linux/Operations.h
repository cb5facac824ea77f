// The Linux engine's operations. Each is defined in the file of the table that it serves; what they
// do is described in vxi/vxi.h, how they fail in api/Engine.h.
#pragma once

#include <cstdint>

#include "api/Engine.h"

namespace vxi {

struct LinuxOperations {
    static void Close(vxi_handle_ops_s* handle);
#define OPERATION(Name, name, parameters) static int Name parameters;
#include "api/operations.def"
};

// Bit n is set when row n of the capabilities is available. Scan metrics count as available where
// nf_tables is: loading their table to find out takes too long.
std::uint32_t FacilityBits();

}  // namespace vxi
