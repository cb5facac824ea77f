// The driver-interface library as its callers use it.
#pragma once

#include <array>
#include <cstdarg>
#include <cstdio>

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

inline void Append(tb_dump_s* sink, const char* format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    *static_cast<std::string*>(sink->context) += text;
}

// What a text routine prints of a record.
template <typename Record>
std::string Text(void (*routine)(tb_dump_s*, Record*), Record* record)
{
    std::string text;
    tb_dump_s sink = {Append, &text};
    routine(&sink, record);
    return text;
}

}  // namespace driver
