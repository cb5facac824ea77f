// The three Lua queries, over every state of the tables that they read.

#include <cmath>
#include <limits>

#include <lua.hpp>

#include "Fixture.h"

namespace {

class QueriesTest : public HealthTest {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        HealthTest::SetUp();
    }
    ~QueriesTest() override { lua_close(L); }

    // Leaves the results on the stack; arguments are ignored.
    int Call(lua_CFunction function)
    {
        lua_settop(L, 0);
        lua_pushcfunction(L, function);
        lua_pushliteral(L, "ignored");
        lua_newtable(L);
        EXPECT_EQ(lua_pcall(L, 2, LUA_MULTRET, 0), LUA_OK) << lua_tostring(L, -1);
        return lua_gettop(L);
    }

    double Field(const char* name)
    {
        lua_getfield(L, -1, name);
        EXPECT_EQ(lua_type(L, -1), LUA_TNUMBER) << name;
        const double value = lua_tonumber(L, -1);
        lua_pop(L, 1);
        return value;
    }

    lua_State* L = luaL_newstate();
};

TEST_F(QueriesTest, EnabledAndPort)
{
    const struct {
        int enabled, port_set;
        double port;
        bool is_enabled, is_monitored;
        double reported;
    } cases[] = {
        {0, 1, 8080, false, false, 0},  {1, 0, 8080, true, false, 0},
        {1, 1, 8080, true, true, 8080}, {2, 1, 8080, true, false, 0},
        {-1, 1, 8080, true, false, 0},  {1, 1, 80.9, true, true, 80},
        {1, 1, 0, true, true, 0},
    };
    for (const auto& c : cases) {
        syshealth_enabled = c.enabled;
        vxa_syshealth_config[kConfPort].set = c.port_set;
        vxa_syshealth_config[kConfPort].value = c.port;
        ASSERT_EQ(Call(GetSysHealthEnabled), 1);
        EXPECT_TRUE(lua_isboolean(L, 1));
        EXPECT_EQ(lua_toboolean(L, 1) != 0, c.is_enabled);
        ASSERT_EQ(Call(GetScanMetricPort), 2);
        EXPECT_TRUE(lua_isboolean(L, 1));
        EXPECT_EQ(lua_toboolean(L, 1) != 0, c.is_monitored);
        EXPECT_EQ(lua_tonumber(L, 2), c.reported);
        EXPECT_EQ(host::TakeTraceLines(),
                  (Lines{"SysHealth.eng GetSysHealthEnabled: GetSysHealthEnabled() called",
                         "SysHealth.eng GetSysHealthEnabled: GetSysHealthEnabled() returning " +
                             std::to_string(c.enabled),
                         "SysHealth.metr GetScanMetricPort: GetScanMetricPort() called",
                         "SysHealth.eng GetScanMetricPort: GetScanMetricPort() returning"}));
    }
}

TEST_F(QueriesTest, MetricsAreTruncatedTowardZero)
{
    sandbox::SetOutput("nproc", "6\n");
    const double inf = std::numeric_limits<double>::infinity();
    const double lowest = -9223372036854775808.0;
    const struct {
        double value, reported;
    } cases[] = {{37.8, 37},    {-0.7, 0},      {99.99, 99},           {0.5, 0},
                 {-3.9, -3},    {1e15, 1e15},   {1e300, lowest},       {-1e300, lowest},
                 {inf, lowest}, {-inf, lowest}, {std::nan(""), lowest}};
    for (const auto& c : cases) {
        health_metrics[4].value = c.value;
        health_metrics[2].threshold = c.value;
        ASSERT_EQ(Call(GetSysHealthMetrics), 2);
        lua_rawgeti(L, 2, 5);
        EXPECT_EQ(Field("value"), c.reported) << c.value;
        lua_rawgeti(L, 2, 3);
        EXPECT_EQ(Field("threshold"), c.reported) << c.value;
    }
}

TEST_F(QueriesTest, MetricsHaveSevenEntries)
{
    const char* const names[] = {"rqpct", "refusalpct", "estab", "scanmb", "frepct", "delta_t"};
    const double thresholds[] = {50, 10, 50, 100, 100, 100};
    for (const char* processors : {"6\n", ""}) {
        sandbox::SetOutput("nproc", processors);
        ASSERT_EQ(Call(GetSysHealthMetrics), 2);
        EXPECT_TRUE(lua_isboolean(L, 1) && lua_toboolean(L, 1));
        EXPECT_EQ(lua_rawlen(L, 2), 7u);
        for (int row = 1; row <= 6; ++row) {
            lua_rawgeti(L, 2, row);
            lua_getfield(L, -1, "name");
            EXPECT_STREQ(lua_tostring(L, -1), names[row - 1]);
            lua_pop(L, 1);
            EXPECT_EQ(Field("value"), 0);
            EXPECT_EQ(Field("threshold"), thresholds[row - 1]);
        }
        lua_rawgeti(L, 2, 7);
        EXPECT_EQ(Field("cpu_count"), processors[0] == '6' ? 6 : 0);
        lua_pushliteral(L, "cpu_count");
        ASSERT_TRUE(lua_next(L, -2) == 0) << "another field";
    }
    const Lines traces = host::TakeTraceLines();
    ASSERT_EQ(traces.size(), 5u);  // the second time with the collector's own
    EXPECT_EQ(traces.front(), "SysHealth.metr GetSysHealthMetrics: GetSysHealthMetrics() called");
    EXPECT_EQ(traces.back(), "SysHealth.metr GetSysHealthMetrics: GetSysHealthMetrics() returning");
}

}  // namespace
