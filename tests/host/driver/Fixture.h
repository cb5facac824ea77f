// A simulated machine in a known state, and every call with a record that it takes.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "vxi/engine.h"

using Handle = vxi_handle_ops_s*;

struct CloseHandle {
    void operator()(Handle handle) const { vxi_close(handle); }
};
using OpenHandle = std::unique_ptr<vxi_handle_ops_s, CloseHandle>;

inline std::string ErrorText(Handle handle)
{
    char text[256] = "";
    vxi_get_error(handle, text, sizeof text);
    return text;
}

inline scan_monitor_config ScanConfig(std::uint16_t port,
                                      std::uint32_t direction = VXI_SCAN_INBOUND)
{
    scan_monitor_config config{};
    config.version = 1;
    auto& bitmap = direction == VXI_SCAN_INBOUND ? config.inbound : config.outbound;
    bitmap[port / 32] = 1U << (port % 32);
    return config;
}

inline int MonitorPort(Handle handle, std::uint16_t port,
                       std::uint32_t direction = VXI_SCAN_INBOUND)
{
    scan_monitor_config config = ScanConfig(port, direction);
    return vxi_set_scan_monitoring(handle, &config);
}

inline scan_metrics_request ScanRequest(std::uint16_t port,
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

inline vxa_dump_conntrack_s ConntrackRequest(std::uint8_t protocol = 0)
{
    vxa_dump_conntrack_s section{};
    section.request = VXA_CONNTRACK_REQUEST_TABLE;
    section.protocol = protocol;
    return section;
}

// All zero, with its areas where they belong.
struct Statistics : vxa_stats_v2_s {
    Statistics() : vxa_stats_v2_s{}
    {
        area1 = body1;
        area2 = body2;
        area3 = body3;
    }
};

// A record of each kind, as a first request of it.
struct Records {
    Statistics stats;
    vxa_dump_conntrack_s section = ConntrackRequest();
    vxa_blacklist_get_addrs_s list = {};
    vxa_get_conn_states_s states = {};
    vxa_filter_variable_s variable = {};
    std::uint32_t profile_size = 0;
    scan_metrics_request scan = ScanRequest(80);
};

struct Call {
    const char* name;
    int (*with)(Handle, Records&);
    int Make(Handle handle) const
    {
        Records records;
        return with(handle, records);
    }
};

// Without memory of their own, and in an order in which each can succeed.
inline constexpr Call kCalls[] = {
    {"vxi_driver_available", [](Handle h, Records&) { return vxi_driver_available(h); }},
    {"vxi_get_stats",
     [](Handle h, Records& r) { return vxi_get_stats(h, &r.stats, sizeof(vxa_stats_v2_s)); }},
    {"vxi_get_conntrack",
     [](Handle h, Records& r) {
         return vxi_get_conntrack(h, &r.section, sizeof r.section, nullptr);
     }},
    {"vxi_get_blacklist", [](Handle h, Records& r) { return vxi_get_blacklist(h, &r.list); }},
    {"vxi_get_conn_states", [](Handle h, Records& r) { return vxi_get_conn_states(h, &r.states); }},
    {"vxi_get_varv", [](Handle h, Records& r) { return vxi_get_varv(h, &r.variable); }},
    {"vxi_get_var", [](Handle h, Records& r) { return vxi_get_var(h, 7, &r.variable); }},
    {"vxi_set_var", [](Handle h, Records&) { return vxi_set_var(h, 62, 0); }},
    {"vxi_get_profile_stats",
     [](Handle h, Records& r) { return vxi_get_profile_stats(h, &r.profile_size); }},
    {"vxi_set_scan_monitoring", [](Handle h, Records&) { return MonitorPort(h, 80); }},
    {"vxi_get_scan_metrics",
     [](Handle h, Records& r) { return vxi_get_scan_metrics(h, &r.scan, sizeof r.scan); }},
    {"vxi_capabilities", [](Handle h, Records&) { return vxi_capabilities(h, nullptr, 0); }},
};

// Takes what one call may bring, and no more.
inline void Print(tb_dump_s* dump, const char* format, ...)
{
    char call[1024];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(call, sizeof call, format, arguments);
    va_end(arguments);
    EXPECT_TRUE(length > 0 && length < 1024) << length;
    EXPECT_EQ('\n', call[std::strlen(call) - 1]) << "a line was torn";
    for (const char c : std::string(call)) {
        EXPECT_TRUE(c == '\n' || (c >= ' ' && c < 0x7f)) << int{c};
    }
    *static_cast<std::string*>(dump->context) += call;
}

template <typename Record, typename... More>
std::string TextOf(void (*dump)(tb_dump_s*, Record*, More...), Record* record, More... more)
{
    std::string text;
    tb_dump_s sink{Print, &text};
    dump(&sink, record, more...);
    return text;
}

class SimulatedMachine : public testing::Test {
protected:
    static constexpr std::uint16_t kPort = 8080;

    void SetUp() override
    {
        ASSERT_EQ(0, vxi_engine_select("sim"));
        ASSERT_EQ(0, vxi_fault_script(nullptr, nullptr));
        Configure("");
        m_handle.reset(vxi_open());
        ASSERT_TRUE(m_handle) << vxi_open_error();
    }
    void TearDown() override { vxi_fault_script(nullptr, nullptr); }

    static void Configure(const std::string& settings)
    {
        ASSERT_EQ(0, vxi_sim_configure(settings.c_str(), nullptr)) << settings;
    }
    Handle Driver() const { return m_handle.get(); }

private:
    OpenHandle m_handle;
};
