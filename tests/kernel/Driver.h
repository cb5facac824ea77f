// The driver-interface library as its callers use it.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "vxi/engine.h"

namespace driver {

struct Close {
    void operator()(vxi_handle_ops_s* handle) const { vxi_close(handle); }
};
using Handle = std::unique_ptr<vxi_handle_ops_s, Close>;

inline Handle Open()
{
    EXPECT_EQ(vxi_engine_select("linux"), 0);
    Handle handle(vxi_open());
    EXPECT_TRUE(handle) << vxi_open_error();
    return handle;
}

inline std::string Error(const Handle& handle)
{
    char text[256];
    EXPECT_EQ(vxi_get_error(handle.get(), text, sizeof text), 0);
    return text;
}

inline int Monitor(const Handle& handle, uint32_t direction, uint16_t port)
{
    auto config = std::make_unique<scan_monitor_config>();
    memset(config.get(), 0, sizeof *config);
    config->version = 1;
    auto& bitmap = direction == VXI_SCAN_INBOUND ? config->inbound : config->outbound;
    bitmap[port / 32] = 1u << port % 32;
    return vxi_set_scan_monitoring(handle.get(), config.get());
}

using Counters = std::array<uint64_t, VXI_SCAN_COUNTERS>;

inline int Fetch(const Handle& handle, uint32_t direction, uint16_t port, Counters& counters)
{
    scan_metrics_request request = {};
    request.version = 1;
    request.direction = direction;
    request.port = port;
    request.counters = VXI_SCAN_COUNTERS;
    request.entries = 1;
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
