// A simulated machine in a known state, and helpers to ask it.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "vxi/engine.h"

struct CloseHandle {
    void operator()(vxi_handle_ops_s* handle) const { vxi_close(handle); }
};
using OpenHandle = std::unique_ptr<vxi_handle_ops_s, CloseHandle>;

inline std::string error_text(vxi_handle_ops_s* handle)
{
    char text[256] = "";
    vxi_get_error(handle, text, sizeof text);
    return text;
}

inline std::unique_ptr<scan_monitor_config> scan_config(std::uint16_t port,
                                                        std::uint32_t direction = VXI_SCAN_INBOUND)
{
    auto config = std::make_unique<scan_monitor_config>();
    config->version = 1;
    auto& bitmap = direction == VXI_SCAN_INBOUND ? config->inbound : config->outbound;
    bitmap[port / 32] = 1U << (port % 32);
    return config;
}

inline scan_metrics_request scan_request(std::uint16_t port,
                                         std::uint32_t direction = VXI_SCAN_INBOUND)
{
    scan_metrics_request request{};
    request.version = 1;
    request.direction = direction;
    request.port = port;
    request.counters = VXI_SCAN_COUNTERS;
    request.entries = 1;
    return request;
}

// With its areas where they belong.
inline std::unique_ptr<vxa_stats_v2_s> stats_record()
{
    auto stats = std::make_unique<vxa_stats_v2_s>();
    stats->area1 = stats->body1;
    stats->area2 = stats->body2;
    stats->area3 = stats->body3;
    return stats;
}

class SimulatedMachine : public testing::Test {
protected:
    static constexpr std::uint16_t port = 8080;

    void SetUp() override
    {
        ASSERT_EQ(0, vxi_engine_select("sim"));
        ASSERT_EQ(0, vxi_fault_script(nullptr, nullptr));
        configure("");
        handle_.reset(vxi_open());
        ASSERT_TRUE(handle_) << vxi_open_error();
    }
    void TearDown() override { vxi_fault_script(nullptr, nullptr); }

    static void configure(const std::string& settings)
    {
        unsigned position = 0;
        ASSERT_EQ(0, vxi_sim_configure(settings.c_str(), &position)) << settings << position;
    }
    void monitor() { ASSERT_EQ(0, vxi_set_scan_monitoring(handle(), scan_config(port).get())); }
    std::vector<std::uint64_t> tick()
    {
        scan_metrics_request request = scan_request(port);
        EXPECT_EQ(0, vxi_get_scan_metrics(handle(), &request, sizeof request))
            << error_text(handle());
        return {request.counter, request.counter + VXI_SCAN_COUNTERS};
    }
    vxi_handle_ops_s* handle() const { return handle_.get(); }

private:
    OpenHandle handle_;
};
