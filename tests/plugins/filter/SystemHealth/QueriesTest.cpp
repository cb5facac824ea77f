// The three Lua queries, over every state of the tables that they read.

#include <cmath>
#include <limits>

#include <lua.hpp>

#include "Fixture.h"

namespace {

class QueriesTest : public SandboxedHealthTest {
protected:
    QueriesTest()
    {
        luaL_openlibs(L);
        lua_register(L, "enabled", GetSysHealthEnabled);
        lua_register(L, "port", GetScanMetricPort);
        lua_register(L, "metrics", GetSysHealthMetrics);
    }
    ~QueriesTest() override { lua_close(L); }

    // The text that the chunk returns, or its error.
    std::string Run(const char* chunk)
    {
        lua_settop(L, 0);
        luaL_dostring(L, chunk);
        return lua_tostring(L, -1);
    }

    lua_State* L = luaL_newstate();
};

TEST_F(QueriesTest, EnabledAndPort)
{
    const struct {
        int enabled, port_set;
        double port;
        const char* told;
    } cases[] = {
        {0, 1, 8080, "false false 0"}, {1, 0, 8080, "true false 0"}, {1, 1, 80.9, "true true 80"},
        {1, 1, 0, "true true 0"},      {2, 1, 8080, "true false 0"}, {-1, 1, 8080, "true false 0"},
    };
    for (const auto& c : cases) {
        syshealth_enabled = c.enabled;
        vxa_syshealth_config[kConfPort].set = c.port_set;
        vxa_syshealth_config[kConfPort].value = c.port;
        EXPECT_EQ(Run("local on, more = enabled('ignored', {}) assert(more == nil)\n"
                      "local monitored, port, more = port('ignored', {}) assert(more == nil)\n"
                      "return ('%s %s %s'):format(on, monitored, port)"),
                  c.told);
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
    const char* const lowest = "-9223372036854775808";
    const std::pair<double, const char*> cases[] = {
        {37.8, "37"},    {-0.7, "0"},    {-3.9, "-3"},          {1e15, "1000000000000000"},
        {1e300, lowest}, {-inf, lowest}, {std::nan(""), lowest}};
    for (const auto& [value, told] : cases) {
        health_metrics[kMetFreeMemory].value = value;
        health_metrics[kMetEstablished].threshold = value;
        EXPECT_EQ(Run("local _, rows = metrics()\n"
                      "assert(rows[5].value == rows[3].threshold)\n"
                      "return ('%.0f'):format(rows[5].value)"),
                  told);
    }
}

TEST_F(QueriesTest, MetricsHaveSevenEntries)
{
    constexpr const char* list = R"(
        local ok, rows, more = metrics('ignored', {})
        assert(ok == true and more == nil)
        local told = {}
        for i, row in ipairs(rows) do
            local fields = {}
            for name, value in pairs(row) do fields[#fields + 1] = name .. '=' .. value end
            table.sort(fields)
            told[i] = table.concat(fields, ' ')
        end
        return table.concat(told, '\n'))";
    const std::string six =
        "name=rqpct threshold=50 value=0\nname=refusalpct threshold=10 value=0\n"
        "name=estab threshold=50 value=0\nname=scanmb threshold=100 value=0\n"
        "name=frepct threshold=100 value=0\nname=delta_t threshold=100 value=0\n";
    sandbox::SetOutput("nproc", "6\n");
    EXPECT_EQ(Run(list), six + "cpu_count=6");
    EXPECT_EQ(TakeMessages("SysHealth.metr GetSysHealthMetrics: "),
              (Lines{"GetSysHealthMetrics() called", "GetSysHealthMetrics() returning"}));
    sandbox::SetOutput("nproc", "");
    EXPECT_EQ(Run(list), six + "cpu_count=0");
}

}  // namespace
