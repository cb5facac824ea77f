// The network namespace of the calling thread.
#pragma once

#include <cstdint>
#include <optional>

namespace vxi {

// Inode of the calling thread's network namespace (namespaces(7)); nullopt where /proc does not
// show it.
std::optional<std::uint64_t> NetworkNamespace();

// Whether it is the namespace that the machine started with.
bool InInitialNamespace();

}  // namespace vxi
