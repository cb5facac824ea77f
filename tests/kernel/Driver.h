// The driver-interface library as its callers use it.
#pragma once

#include <array>

#include "platform/libvxi/Fixture.h"

namespace driver {

using Handle = OpenHandle;

inline Handle Open()
{
    EXPECT_EQ(vxi_engine_select("linux"), 0);
    Handle handle(vxi_open());
    EXPECT_TRUE(handle) << vxi_open_error();
    return handle;
}

inline std::string Error(const Handle& handle)
{
    return error_text(handle.get());
}

inline int Monitor(const Handle& handle, uint32_t direction, uint16_t port)
{
    return monitor_port(handle.get(), port, direction);
}

using Counters = std::array<uint64_t, VXI_SCAN_COUNTERS>;

inline int Fetch(const Handle& handle, uint32_t direction, uint16_t port, Counters& counters)
{
    scan_metrics_request request = scan_request(port, direction);
    const int status = vxi_get_scan_metrics(handle.get(), &request, sizeof request);
    if (status == 0) {
        EXPECT_EQ(request.counters, VXI_SCAN_COUNTERS);
        EXPECT_EQ(request.entries, 1u);
        memcpy(counters.data(), request.counter, sizeof counters);
    }
    return status;
}

}  // namespace driver
