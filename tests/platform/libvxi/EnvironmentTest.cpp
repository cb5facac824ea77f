// The environment is read once a process, so each case is a process of its own.
#include <cstdlib>

#include "Fixture.h"

namespace {

struct Variables {
    const char* engine;
    const char* sim;
    const char* fault;
};

void set_or_unset(const char* name, const char* value)
{
    value ? setenv(name, value, 1) : unsetenv(name);
}

// Writes to standard error which engine opened, or why none did, and what the check finds.
[[noreturn]] void open_with(const Variables& variables)
{
    set_or_unset("VXI_ENGINE", variables.engine);
    set_or_unset("VXI_SIM", variables.sim);
    set_or_unset("VXI_FAULT", variables.fault);
    const OpenHandle handle(vxi_open());
    std::fprintf(stderr, "%s %s %s|%s\n", handle ? "opened" : "failed", vxi_engine_name(),
                 vxi_open_error(), vxi_check_environment());
    std::_Exit(0);
}

TEST(EnvironmentDeathTest, ChoosesEngineSettingsAndFaults)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const struct {
        Variables variables;
        const char* said;
    } cases[] = {
        {{nullptr, "unused=1", nullptr}, "^opened linux [|]\n"},
        {{"", "", ""}, "^opened linux [|]\n"},
        {{"sim", "seed=4,scenario=idle", nullptr}, "^opened sim [|]\n"},
        {{"no\xc3\xa4", nullptr, nullptr},
         "^failed .* (VXI_ENGINE names no engine: \"no.xc3.xa4\" \\(known engines: linux, sim\\))"
         "[|]VXI_ENGINE names .*sim\\)\n"},
        {{"sim", "cpus=0", nullptr},
         "^failed sim engine sim: vxi_open: VXI_SIM cannot .*[|]VXI_SIM cannot be read at "
         "character 6: expected a number from 1 to 4096\n"},
        {{"sim", "cpu=8", nullptr}, "[|].* character 1: expected scenario or one of seed, port, "},
        {{"sim", nullptr, "vxi_get=1"},
         "^failed sim VXI_FAULT cannot .*[|]VXI_FAULT cannot be read at character 1: expected one "
         "of vxi_open, .*, vxi_capabilities\n"},
        {{"sim", nullptr, "vxi_open=-13"},
         "^failed sim engine sim: vxi_open: Permission denied[|]\n"},
        {{"sim", nullptr, "vxi_open=-13:the cable is out"},
         "^failed sim engine sim: vxi_open: the cable is out[|]\n"},
    };
    for (const auto& each : cases) {
        EXPECT_EXIT(open_with(each.variables), testing::ExitedWithCode(0), each.said);
    }
}

TEST(EngineChoice, OnlyKnownEngines)
{
    ASSERT_EQ(0, vxi_engine_select("sim"));
    for (const char* name : {"", "Linux", "fault", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(-EINVAL, vxi_engine_select(name));
        EXPECT_STREQ("sim", vxi_engine_name());
    }
    for (const char* const* name = vxi_engine_list(); *name; ++name) {
        EXPECT_EQ(0, vxi_engine_select(*name));
        EXPECT_STREQ(*name, vxi_engine_name());
    }
}

}  // namespace
