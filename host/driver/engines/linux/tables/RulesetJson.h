// The rules of this network namespace as JSON, listed by libnftables.
#pragma once

#include <string>

namespace vxi {

// What "nft -j list ruleset" prints (libnftables-json(5)), without a newline at the end. Check
// access first (OpenNfTables). Throws Error.
//
// The library runs in a child process: it aborts its process when the kernel has a name that is
// not UTF-8 (anyone who may create a table can choose one), exits when memory runs out, and writes
// to standard error.
std::string RulesetJson();

}  // namespace vxi
