// A simulated machine in a known state, and every call of the driver interface.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
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

inline int MonitorPort(Handle handle, std::uint16_t port,
                       std::uint32_t direction = VXI_SCAN_INBOUND)
{
    scan_monitor_config config{1, 0, {}, {}};
    auto& bitmap = direction == VXI_SCAN_INBOUND ? config.inbound : config.outbound;
    bitmap[port / 32] = 1U << (port % 32);
    return vxi_set_scan_monitoring(handle, &config);
}

inline scan_metrics_request ScanRequest(std::uint16_t port,
                                        std::uint32_t direction = VXI_SCAN_INBOUND)
{
    return {1, direction, port, 0, VXI_SCAN_COUNTERS, 0, 1, {}, {}};
}

inline vxa_dump_conntrack_s ConntrackRequest(std::uint8_t protocol = 0)
{
    return {VXA_CONNTRACK_REQUEST_TABLE, 0, 0, 0, protocol, {}};
}

struct Statistics : vxa_stats_v2_s {
    Statistics() : vxa_stats_v2_s{}
    {
        area1 = body1;
        area2 = body2;
        area3 = body3;
    }
};

template <typename Record>
Record* Pointer(Record&& record)
{
    return &record;
}

struct Call {
    const char* name;
    int (*call)(Handle);
    int Make(Handle handle) const { return call(handle); }
};

// Each with a record that it accepts, without allocating, and in an order in which all succeed.
inline constexpr Call kCalls[] = {
    {"vxi_driver_available", vxi_driver_available},
    {"vxi_get_stats", [](Handle h) { return vxi_get_stats(h, Pointer(Statistics()), 6408); }},
    {"vxi_get_conntrack",
     [](Handle h) { return vxi_get_conntrack(h, Pointer(ConntrackRequest()), 16, nullptr); }},
    {"vxi_get_blacklist",
     [](Handle h) { return vxi_get_blacklist(h, Pointer(vxa_blacklist_get_addrs_s())); }},
    {"vxi_get_conn_states",
     [](Handle h) { return vxi_get_conn_states(h, Pointer(vxa_get_conn_states_s())); }},
    {"vxi_get_varv", [](Handle h) { return vxi_get_varv(h, Pointer(vxa_filter_variable_s())); }},
    {"vxi_get_var", [](Handle h) { return vxi_get_var(h, 7, Pointer(vxa_filter_variable_s())); }},
    {"vxi_set_var", [](Handle h) { return vxi_set_var(h, 62, 0); }},
    {"vxi_get_profile_stats",
     [](Handle h) { return vxi_get_profile_stats(h, Pointer(std::uint32_t())); }},
    {"vxi_set_scan_monitoring", [](Handle h) { return MonitorPort(h, 80); }},
    {"vxi_get_scan_metrics",
     [](Handle h) { return vxi_get_scan_metrics(h, Pointer(ScanRequest(80)), 192); }},
    {"vxi_capabilities", [](Handle h) { return vxi_capabilities(h, nullptr, 0); }},
};

// A sink that accepts what one call may bring: whole lines of ASCII, at most 1023 characters.
[[gnu::format(printf, 2, 3)]] inline void Print(tb_dump_s* dump, const char* format, ...)
{
    char call[1024];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf_safe(call, sizeof call, format, arguments);
    va_end(arguments);
    EXPECT_TRUE(length > 0 && call[length - 1] == '\n') << "a line was cut: " << call;
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

    SimulatedMachine()
    {
        EXPECT_EQ(0, vxi_engine_select("sim") + vxi_fault_script(nullptr, nullptr));
        Configure("");
        m_handle.reset(vxi_open());
        EXPECT_TRUE(m_handle) << vxi_open_error();
    }
    ~SimulatedMachine() override { vxi_fault_script(nullptr, nullptr); }

    static void Configure(const std::string& settings)
    {
        ASSERT_EQ(0, vxi_sim_configure(settings.c_str(), nullptr)) << settings;
    }
    Handle Driver() const { return m_handle.get(); }

private:
    OpenHandle m_handle;
};
