// Snapshots from the first request of a handle to its close.
#include "engines/linux/HandleSnapshots.h"

#include "engines/linux/Operations.h"
#include "engines/linux/tables/Blacklist.h"
#include "engines/linux/tables/FlowSnapshot.h"

namespace vxi {

// Defined where the snapshots' types are complete.
HandleSnapshots::HandleSnapshots() = default;
HandleSnapshots::~HandleSnapshots() = default;

HandleSnapshots& Snapshots(vxi_handle_ops_s* handle)
{
    if (!handle->state) {
        handle->state = new HandleSnapshots;
    }
    return *static_cast<HandleSnapshots*>(handle->state);
}

void LinuxOperations::Close(vxi_handle_ops_s* handle)
{
    delete static_cast<HandleSnapshots*>(handle->state);
}

}  // namespace vxi
