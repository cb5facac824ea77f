// What a handle keeps from a size or count request until its data are fetched.
#pragma once

#include <memory>
#include <string>

#include "api/Engine.h"

namespace vxi {

struct BlacklistSnapshot;
struct FlowSnapshot;

// Null where nothing was asked for, or it has been fetched.
struct HandleSnapshots {
    HandleSnapshots();
    ~HandleSnapshots();

    std::unique_ptr<FlowSnapshot> flows;
    std::unique_ptr<BlacklistSnapshot> blacklist;
    std::unique_ptr<std::string> profile;
};

// The handle's own, made at the first call; the engine's close deletes them.
HandleSnapshots& Snapshots(vxi_handle_ops_s* handle);

}  // namespace vxi
