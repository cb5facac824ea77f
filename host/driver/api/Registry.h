// Which engine the process uses.
#pragma once

#include "api/Engine.h"

namespace vxi {

// The engine of the next handle. Throws an Error while VXI_ENGINE names an engine that is unknown
// or was compiled for another version, and vxi_engine_select has not chosen one. Takes no lock.
const Engine& ChosenEngine();

}  // namespace vxi
