// Scripted failures: the grammar, how long they last, and that open handles meet them.
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
        {"vxi_get_conn_states=-5:after=2", {0, 0, -5, -5}},
        {"vxi_get_conn_states=-5:after=1:once", {0, -5, 0, 0}},
        {"vxi_get_conn_states=-5:once , vxi_get_conn_states = -110:after=1", {-5, 0, -110, -110}},
        {"vxi_get_conn_states=7", {7, 7}},
        {"vxi_get_stats=-5,vxi_open=-1", {0, 0}},
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
        const char* fault;
        const char* text;
    } cases[] = {
        {"-110", "Connection timed out"},
        {"-10017", "unknown variable"},
        {"-987654", "status -987654"},
        {"-5:no answer:once", "no answer"},
        {R"(-5:a\, b\: c\\ 100%s)", R"(a, b: c\x5c 100%s)"},
        {"-5:caf\xc3\xa9", R"(caf\xc3\xa9)"},
    };
    for (const auto& each : cases) {
        script(std::string("vxi_get_conn_states=") + each.fault);
        EXPECT_NE(0, states());
        EXPECT_EQ(std::string("engine sim: vxi_get_conn_states: ") + each.text,
                  error_text(handle()));
    }
}

TEST_F(Fault, MalformedScriptsChangeNothing)
{
    script("vxi_get_conn_states=-5");
    expect_refused(vxi_fault_script, {{"x", 0},
                                      {"=-5", 0},
                                      {"vxi_get_conn_states", 19},
                                      {"vxi_get_conn_states=five", 20},
                                      {"vxi_get_conn_states=0", 20},
                                      {"vxi_get_conn_states=99999999999", 20},
                                      {"vxi_get_conn_states=-5x", 22},
                                      {"vxi_get_conn_states=-5:after=1x", 29},
                                      {"vxi_get_conn_states=-5:times=-1", 29},
                                      {"vxi_get_conn_states=-5:once:no answer, really=1", 39},
                                      {"vxi_get_conn_states=-5:one:two", 27},
                                      {"vxi_open=-1;vxi_close=-1", 11}});
    EXPECT_EQ(-5, states());
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

TEST_F(Fault, EveryCallCanFail)
{
    std::string text;
    int status = -41;
    for (const auto& call : calls) {
        text += std::string(call.name) + "=" + std::to_string(status--) + ",";
    }
    script(text);
    status = -41;
    for (const auto& call : calls) {
        EXPECT_EQ(status--, call.make(handle())) << call.name;
    }
}

}  // namespace
