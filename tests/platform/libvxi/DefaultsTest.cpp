// An engine of one's own: what it leaves out is answered, what it throws is caught.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "Engine.h"

namespace {

struct Made {
    explicit Made(const vxi::Operations& operations)
        : engine{"made", &operations, nullptr}, handle{}
    {
        handle.operations = vxi::complete(engine);
    }
    std::string error()
    {
        char text[256];
        vxi_get_error(&handle, text, sizeof text);
        return text;
    }
    vxi::Engine engine;
    vxi_handle_ops_s handle;
};

TEST(Defaults, EveryEmptySlotNamesEngineAndOperation)
{
    static const vxi::Operations none{};
    static Made made(none);
    vxi_handle_ops_s* const h = &made.handle;
    static vxa_stats_v2_s stats{};
    stats.area1 = stats.body1;
    stats.area2 = stats.body2;
    stats.area3 = stats.body3;
    static vxa_dump_conntrack_s section{};
    section.request = VXA_CONNTRACK_REQUEST_TABLE;
    static vxa_blacklist_get_addrs_s list{};
    static vxa_get_conn_states_s states{};
    static vxa_filter_variable_s variable{};
    static scan_monitor_config config{};
    config.version = 1;
    config.inbound[0] = 1;
    static scan_metrics_request request{};
    request.version = 1;
    request.direction = VXI_SCAN_INBOUND;
    static std::uint32_t profile = 0;
    const struct {
        int (*call)(vxi_handle_ops_s*);
        int status;
        const char* operation;
    } cases[] = {
        {vxi_driver_available, 0, "vxi_driver_available"},
        {[](vxi_handle_ops_s* p) { return vxi_get_stats(p, &stats, sizeof stats); }, -EOPNOTSUPP,
         "vxi_get_stats"},
        {[](vxi_handle_ops_s* p) { return vxi_get_conntrack(p, &section, 16, nullptr); },
         -EOPNOTSUPP, "vxi_get_conntrack"},
        {[](vxi_handle_ops_s* p) { return vxi_get_blacklist(p, &list); }, -EOPNOTSUPP,
         "vxi_get_blacklist"},
        {[](vxi_handle_ops_s* p) { return vxi_get_conn_states(p, &states); }, -EOPNOTSUPP,
         "vxi_get_conn_states"},
        {[](vxi_handle_ops_s* p) { return vxi_get_varv(p, &variable); }, -EOPNOTSUPP,
         "vxi_get_varv"},
        {[](vxi_handle_ops_s* p) { return vxi_get_var(p, 7, &variable); }, -EOPNOTSUPP,
         "vxi_get_var"},
        {[](vxi_handle_ops_s* p) { return vxi_set_var(p, 7, 0); }, -EOPNOTSUPP, "vxi_set_var"},
        {[](vxi_handle_ops_s* p) { return vxi_get_profile_stats(p, &profile); }, -EOPNOTSUPP,
         "vxi_get_profile_stats"},
        {[](vxi_handle_ops_s* p) { return vxi_set_scan_monitoring(p, &config); }, -EOPNOTSUPP,
         "vxi_set_scan_monitoring"},
        {[](vxi_handle_ops_s* p) { return vxi_get_scan_metrics(p, &request, sizeof request); },
         -EOPNOTSUPP, "vxi_get_scan_metrics"},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(each.status, each.call(h)) << each.operation;
        EXPECT_EQ(std::string("not supported by engine made: ") + each.operation, made.error());
    }
    vxi_capability_s rows[7];
    ASSERT_EQ(7, vxi_capabilities(h, rows, 7));
    for (const vxi_capability_s& row : rows) {
        EXPECT_EQ(0, row.available);
        EXPECT_STREQ("not supported by engine made", row.detail);
    }
    h->operations->close(h);
}

TEST(Defaults, TableIsCompletedOnce)
{
    static const vxi::Operations none{};
    static const vxi::Engine engine{"twice", &none, nullptr};
    EXPECT_EQ(vxi::complete(engine), vxi::complete(engine));
}

// Whatever an engine does, the caller gets a status and a text that belongs to it.
TEST(Dispatch, NothingOfAnEngineEscapes)
{
    using States = int (*)(vxi_handle_ops_s*, vxa_get_conn_states_s*);
    const struct {
        States slot;
        int status;
        const char* text;
    } cases[] = {
        {[](vxi_handle_ops_s*, vxa_get_conn_states_s*) -> int { throw std::bad_alloc(); }, -ENOMEM,
         "engine made: vxi_get_conn_states: out of memory"},
        {[](vxi_handle_ops_s*, vxa_get_conn_states_s*) -> int {
             throw std::runtime_error("p\xc3\xa9rdu");
         },
         -EIO, "engine made: vxi_get_conn_states: p\\xc3\\xa9rdu"},
        {[](vxi_handle_ops_s*, vxa_get_conn_states_s*) { return -EPERM; }, -EPERM,
         "engine made: vxi_get_conn_states: Operation not permitted"},
        {[](vxi_handle_ops_s* h, vxa_get_conn_states_s*) {
             return vxi::fail(h, -EPERM, "%s", std::string(600, 'x').c_str());
         },
         -EPERM, nullptr},
    };
    for (const auto& each : cases) {
        vxi::Operations operations{};
        operations.get_conn_states = each.slot;
        // Completed tables live for the process and so must what they are made from.
        static std::vector<std::unique_ptr<vxi::Operations>> tables;
        tables.push_back(std::make_unique<vxi::Operations>(operations));
        static std::vector<std::unique_ptr<Made>> engines;
        engines.push_back(std::make_unique<Made>(*tables.back()));
        Made& made = *engines.back();
        vxa_get_conn_states_s states;
        EXPECT_EQ(VXI_E_UNKNOWN_VARIABLE, vxi_set_var(&made.handle, 999, 0)) << "an earlier text";
        EXPECT_EQ(each.status, vxi_get_conn_states(&made.handle, &states));
        if (each.text) {
            EXPECT_EQ(each.text, made.error());
        } else {
            EXPECT_EQ(255U, made.error().size());
        }
    }
}

}  // namespace
