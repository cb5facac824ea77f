// What a handle of this engine keeps from one call to the next: a member for each table
// whose fills are served from the snapshot that the size or count request took.
#pragma once

#include <memory>
#include <string>

#include "api/Engine.h"

namespace vxi {

struct BlacklistSnapshot;
struct FlowSnapshot;

struct HandleState {
    HandleState();
    ~HandleState();

    std::unique_ptr<FlowSnapshot> flows;
    std::unique_ptr<BlacklistSnapshot> blacklist;
    std::unique_ptr<std::string> profile;
};

// The handle's own, made when it is first asked for; the engine's close deletes it.
HandleState& StateOf(vxi_handle_ops_s* handle);

}  // namespace vxi
