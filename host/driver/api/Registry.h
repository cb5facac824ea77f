// Which engines there are and which one the process uses.
#pragma once

#include <string>

#include "api/Engine.h"

namespace vxi {

// The engine of the next handle, with its table filled. Null with `error` set when
// VXI_ENGINE names none. Takes no lock.
const Engine* ChosenEngine(const Operations*& operations, std::string& error);

}  // namespace vxi
