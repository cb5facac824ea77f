#include "engines/linux/HandleState.h"

#include "engines/linux/Operations.h"
#include "engines/linux/tables/Blacklist.h"
#include "engines/linux/tables/FlowSnapshot.h"

namespace vxi {

// Here, where the snapshots' types are complete.
HandleState::HandleState() = default;
HandleState::~HandleState() = default;

HandleState& StateOf(vxi_handle_ops_s* handle)
{
    if (!handle->state) {
        handle->state = new HandleState;
    }
    return *static_cast<HandleState*>(handle->state);
}

void LinuxOperations::Close(vxi_handle_ops_s* handle)
{
    delete static_cast<HandleState*>(handle->state);
}

}  // namespace vxi
