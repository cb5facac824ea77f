// The rules of this network namespace as JSON, by libnftables.
#pragma once

#include <string>

#include "engines/linux/Outcome.h"

namespace vxi {

// What "nft -j list ruleset" prints, without the line's end. Access must have been checked
// before (OpenNfTables).
//
// The library runs in a child of this process: it aborts the process that it runs in when
// the kernel holds a name that is no UTF-8 (anybody who may make a table can give it one),
// ends it when memory runs out, and writes to standard error.
Outcome RulesetJson(std::string& json);

}  // namespace vxi
