// Choosing libvxi's engine, scripted faults, the simulated machine, and the latest counters.
#include <errno.h>

#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Values.h"
#include "vxi/engine.h"

namespace vxa {

namespace {

int Engine(lua_State* L)
{
    const char* name = luaL_optstring(L, 1, nullptr);
    const int status = name ? vxi_engine_select(name) : 0;
    if (status != 0) return PushError(L, vxi_unknown_engine(name), status);
    lua_pushstring(L, vxi_engine_name());
    return 1;
}

int Engines(lua_State* L)
{
    lua_newtable(L);
    int index = 0;
    for (const char* const* name = vxi_engine_list(); *name; ++name) {
        lua_pushstring(L, *name);
        lua_rawseti(L, -2, ++index);
    }
    return 1;
}

// Passes argument 1 to a function of libvxi that parses settings. Pushes true, or the results of a
// failure with where they cannot be parsed. [-0, +(1|3), v]
int Configure(lua_State* L, const char* what, int (*apply)(const char*, unsigned*))
{
    const char* text = luaL_optstring(L, 1, "");
    unsigned position = 0;
    const int status = apply(text, &position);
    if (status == 0) {
        lua_pushboolean(L, 1);
        return 1;
    }
    lua_pushnil(L);
    lua_pushfstring(L, "%s: cannot be read from character %d on: '%s'", what,
                    static_cast<int>(position) + 1, text + position);
    lua_pushinteger(L, status);
    return kErrorResults;
}

int Fault(lua_State* L)
{
    return Configure(L, "fault script", vxi_fault_script);
}

int Simulate(lua_State* L)
{
    return Configure(L, "simulation settings", vxi_sim_configure);
}

int CheckEnvironment(lua_State* L)
{
    const char* error = vxi_check_environment();
    if (!*error) {
        lua_pushboolean(L, 1);
        return 1;
    }
    return PushError(L, error, -EINVAL);
}

// For machines without a monitored port, where nothing else advances the simulation.
int SimulatedTick(lua_State*)
{
    vxi_sim_tick();
    return 0;
}

// Returns nothing for an engine that is not simulated.
int SimulatedMachine(lua_State* L)
{
    if (!vxi_engine_is_simulated()) {
        return 0;
    }
    vxi_sim_machine_s machine{};
    vxi_sim_machine(&machine);
    lua_createtable(L, 0, 5);
    SetNumber(L, "tick", static_cast<lua_Number>(machine.tick));
    SetNumber(L, "run_queue_length", machine.run_queue_length);
    SetNumber(L, "cpu_count", machine.cpu_count);
    SetNumber(L, "memory_total_kb", static_cast<lua_Number>(machine.memory_total_kb));
    SetNumber(L, "memory_free_kb", static_cast<lua_Number>(machine.memory_free_kb));
    return 1;
}

// Returns nothing until the process has read all counters once.
int LatestScan(lua_State* L)
{
    vxi_latest_scan_s scan{};
    vxi_latest_scan(&scan);
    if (scan.reads == 0 || scan.counters < VXI_SCAN_COUNTERS) {
        return 0;
    }
    const auto set_counter = [&](const char* name, int counter) {
        SetNumber(L, name, static_cast<lua_Number>(scan.counter[counter]));
    };
    lua_createtable(L, 0, 8);
    SetNumber(L, "reads", static_cast<lua_Number>(scan.reads));
    SetNumber(L, "port", scan.port);
    SetBoolean(L, "outbound", scan.direction == VXI_SCAN_OUTBOUND);
    set_counter("new", VXI_SCAN_NEW);
    set_counter("established", VXI_SCAN_ESTABLISHED);
    set_counter("half_open_closed", VXI_SCAN_HALF_OPEN_CLOSED);
    set_counter("bytes_forward", VXI_SCAN_BYTES_FORWARD);
    set_counter("bytes_backward", VXI_SCAN_BYTES_BACKWARD);
    return 1;
}

constexpr luaL_Reg kFunctions[] = {
    {"engine", Engine},
    {"engines", Engines},
    {"fault", Fault},
    {"simulate", Simulate},
    {"check_environment", CheckEnvironment},
    {"simulated_machine", SimulatedMachine},
    {"simulated_tick", SimulatedTick},
    {"latest_scan", LatestScan},
    {nullptr, nullptr},
};

}  // namespace

void OpenEngines(lua_State* L)
{
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
