// Which engine the process uses.
#pragma once

#include "api/Engine.h"

namespace vxi {

// The engine of the next handle. Throws an Error while VXI_ENGINE names an unknown engine and
// vxi_engine_select has not chosen one. Takes no lock.
const Engine& ChosenEngine();

}  // namespace vxi
