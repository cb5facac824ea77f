#include "engines/linux/HandleState.h"

#include "engines/linux/tables/Blacklist.h"
#include "engines/linux/tables/FlowSnapshot.h"
#include "engines/linux/Slots.h"

namespace vxi {

// Here, where the snapshots' types are complete.
HandleState::HandleState() = default;
HandleState::~HandleState() = default;

HandleState& state_of(vxi_handle_ops_s* handle)
{
    if (!handle->state) {
        handle->state = new HandleState;
    }
    return *static_cast<HandleState*>(handle->state);
}

void linux_slots::close(vxi_handle_ops_s* handle)
{
    delete static_cast<HandleState*>(handle->state);
}

}  // namespace vxi
