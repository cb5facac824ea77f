// Scripted failures: the grammar, how long they last, and that open handles meet them.
#include <cerrno>

#include "Fixture.h"

namespace {

class Fault : public SimulatedMachine {
protected:
    void script(const std::string& text)
    {
        unsigned position = 0;
        ASSERT_EQ(0, vxi_fault_script(text.c_str(), &position)) << text << " at " << position;
    }
    int states()
    {
        vxa_get_conn_states_s record;
        return vxi_get_conn_states(handle(), &record);
    }
};

TEST_F(Fault, LastsAsLongAsTheScriptSays)
{
    const struct {
        const char* script;
        std::vector<int> statuses;
    } cases[] = {
        {"vxi_get_conn_states=-5", {-5, -5, -5, -5}},
        {"vxi_get_conn_states=-5:once", {-5, 0, 0}},
        {"vxi_get_conn_states=-5:times=2", {-5, -5, 0, 0}},
        {"vxi_get_conn_states=-5:times=0", {0, 0}},
        {"vxi_get_conn_states=-5:after=2", {0, 0, -5, -5}},
        {"vxi_get_conn_states=-5:after=1:once", {0, -5, 0, 0}},
        {"vxi_get_conn_states=-5:once , vxi_get_conn_states = -110:after=1", {-5, 0, -110, -110}},
        {"vxi_get_conn_states=7", {7, 7}},
        {"vxi_get_stats=-5,vxi_open=-1", {0, 0}},
        {"", {0, 0}},
    };
    for (const auto& each : cases) {
        script(each.script);
        for (std::size_t call = 0; call < each.statuses.size(); ++call) {
            EXPECT_EQ(each.statuses[call], states()) << each.script << ", call " << call;
        }
    }
}

TEST_F(Fault, OnlySuccessesCountForAfter)
{
    script("vxi_set_var=-5:after=2");
    EXPECT_EQ(-EROFS, vxi_set_var(handle(), 64, 0));
    EXPECT_EQ(0, vxi_set_var(handle(), 62, 0));
    EXPECT_EQ(-EROFS, vxi_set_var(handle(), 64, 0));
    EXPECT_EQ(0, vxi_set_var(handle(), 62, 0));
    EXPECT_EQ(-5, vxi_set_var(handle(), 62, 0));
}

TEST_F(Fault, TextsNameEngineAndOperation)
{
    const struct {
        const char* script;
        const char* text;
    } cases[] = {
        {"vxi_get_conn_states=-110", "Connection timed out"},
        {"vxi_get_conn_states=-10017", "unknown variable"},
        {"vxi_get_conn_states=-987654", "status -987654"},
        {"vxi_get_conn_states=-5:no answer:once", "no answer"},
        {"vxi_get_conn_states=-5:once:no answer, really=1", nullptr},
        {R"(vxi_get_conn_states=-5:a\, b\: c\\ 100%s)", R"(a, b: c\x5c 100%s)"},
        {"vxi_get_conn_states=-5:caf\xc3\xa9", R"(caf\xc3\xa9)"},
    };
    for (const auto& each : cases) {
        if (!each.text) {
            EXPECT_EQ(-EINVAL, vxi_fault_script(each.script, nullptr)) << each.script;
            continue;
        }
        script(each.script);
        EXPECT_NE(0, states());
        EXPECT_EQ(std::string("engine sim: vxi_get_conn_states: ") + each.text,
                  error_text(handle()));
    }
}

TEST_F(Fault, MalformedScriptsChangeNothing)
{
    script("vxi_get_conn_states=-5");
    const struct {
        const char* script;
        unsigned position;
    } cases[] = {
        {"x", 0},
        {"=-5", 0},
        {"vxi_get_conn_states", 19},
        {"vxi_get_conn_states-5", 0},
        {"vxi_get_conn_states=", 20},
        {"vxi_get_conn_states=five", 20},
        {"vxi_get_conn_states=0", 20},
        {"vxi_get_conn_states=99999999999", 20},
        {"vxi_get_conn_states=-5x", 22},
        {"vxi_get_conn_states=-5:after=", 29},
        {"vxi_get_conn_states=-5:after=1x", 29},
        {"vxi_get_conn_states=-5:times=-1", 29},
        {"vxi_get_conn_states=-5:one:two", 27},
        {"vxi_open=-1,tb_dump_stats=-1", 12},
        {"vxi_open=-1;vxi_close=-1", 11},
    };
    for (const auto& each : cases) {
        unsigned position = 999;
        EXPECT_EQ(-EINVAL, vxi_fault_script(each.script, &position)) << each.script;
        EXPECT_EQ(each.position, position) << each.script;
        EXPECT_EQ(-EINVAL, vxi_fault_script(each.script, nullptr));
        EXPECT_EQ(-5, states()) << each.script;
    }
}

TEST_F(Fault, OpeningAndAvailabilityCanFail)
{
    script("vxi_open=-1:once,vxi_driver_available=0:after=1");
    EXPECT_FALSE(vxi_open());
    EXPECT_STREQ("engine sim: vxi_open: Operation not permitted", vxi_open_error());
    EXPECT_TRUE(OpenHandle(vxi_open()));
    EXPECT_STREQ("", vxi_open_error());
    EXPECT_EQ(1, vxi_driver_available(handle()));
    EXPECT_EQ(0, vxi_driver_available(handle()));
    script("");
    EXPECT_EQ(1, vxi_driver_available(handle()));
}

// Every scripted name reaches its call.
TEST_F(Fault, EveryCallCanFail)
{
    script(
        "vxi_driver_available=-41,vxi_get_stats=-42,vxi_get_conntrack=-43,vxi_get_blacklist=-44,"
        "vxi_get_conn_states=-45,vxi_get_varv=-46,vxi_get_var=-47,vxi_set_var=-48,"
        "vxi_get_profile_stats=-49,vxi_set_scan_monitoring=-50,vxi_get_scan_metrics=-51,"
        "vxi_capabilities=-52");
    vxa_filter_variable_s variable{};
    scan_metrics_request request = scan_request(port);
    vxi_handle_ops_s* const h = handle();
    const int statuses[] = {vxi_driver_available(h),
                            vxi_get_stats(h, nullptr, 0),
                            vxi_get_conntrack(h, nullptr, 0, nullptr),
                            vxi_get_blacklist(h, nullptr),
                            vxi_get_conn_states(h, nullptr),
                            vxi_get_varv(h, &variable),
                            vxi_get_var(h, 1, &variable),
                            vxi_set_var(h, 62, 1),
                            vxi_get_profile_stats(h, nullptr),
                            vxi_set_scan_monitoring(h, scan_config(port).get()),
                            vxi_get_scan_metrics(h, &request, sizeof request),
                            vxi_capabilities(h, nullptr, 0)};
    int expected = -41;
    for (const int status : statuses) {
        EXPECT_EQ(expected--, status);
    }
}

}  // namespace
