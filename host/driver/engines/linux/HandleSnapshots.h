// What a handle keeps from a size or count request until its data are fetched.
#pragma once

#include <cerrno>
#include <memory>
#include <string>
#include <utility>

#include "api/Engine.h"
#include "api/Error.h"

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

// Moves a snapshot out of the handle, because it is served once. Throws Error when there is none.
template <typename Snapshot>
std::unique_ptr<Snapshot> TakeSnapshot(std::unique_ptr<Snapshot>& kept)
{
    if (!kept) {
        throw Error(-ENODATA, "no snapshot: ask for the size first");
    }
    return std::move(kept);
}

}  // namespace vxi
