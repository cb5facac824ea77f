// The simulated engine: one machine for the process, and what handles keep of it.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>

#include "api/Engine.h"
#include "api/FlowRoom.h"
#include "api/Profiler.h"
#include "api/Scan.h"
#include "api/Source.h"
#include "api/Variables.h"
#include "engines/sim/Machine.h"
#include "engines/sim/Settings.h"
#include "engines/sim/Tables.h"
#include "engines/sim/World.h"

namespace vxi::sim {

namespace {

constexpr std::uint8_t kUdp = 17;

struct Process {
    std::mutex mutex;
    View view;
    std::string environment_error;

    Process();
};

Process::Process()
{
    const char* text = std::getenv("VXI_SIM");
    Settings settings;
    SettingsError error;
    if (!read_settings(text ? text : "", settings, error)) {
        environment_error = "VXI_SIM cannot be read at character " +
                            std::to_string(error.position + 1) + ": expected " + error.expected;
    }
    view.world = std::make_shared<const World>(std::move(settings));
    NameStatistics();
}

Process& GlobalProcess()
{
    // Never destroyed: handles may be used until the process ends.
    static Process& instance = *new Process;
    return instance;
}

View PresentView()
{
    const std::lock_guard<std::mutex> lock(GlobalProcess().mutex);
    return GlobalProcess().view;
}

// What size and count requests leave for the fill requests that follow.
struct Snapshots {
    View flows;
    unsigned flow_fills_left = 0;
    FlowRoom room{};
    View blacklist;
    std::string profile;
};

Snapshots& SnapshotsOf(vxi_handle_ops_s* handle)
{
    if (!handle->state) {
        handle->state = new Snapshots;
    }
    return *static_cast<Snapshots*>(handle->state);
}

bool EnvironmentUsable(std::string& error)
{
    Process& machine = GlobalProcess();
    const std::lock_guard<std::mutex> lock(machine.mutex);
    error = machine.environment_error;
    return error.empty();
}

int Open(vxi_handle_ops_s*, std::string& error)
{
    return EnvironmentUsable(error) ? 0 : -EINVAL;
}

void Close(vxi_handle_ops_s* handle)
{
    delete static_cast<Snapshots*>(handle->state);
}

int Available(vxi_handle_ops_s*)
{
    return 1;
}

int get_stats(vxi_handle_ops_s*, vxa_stats_v2_s* stats, unsigned int)
{
    const View view = PresentView();
    FillStatistics(view, *stats);
    NoteSource(Table::kStatistics, "simulated machine at tick %llu",
               static_cast<unsigned long long>(view.tick));
    return 0;
}

int CountFlows(vxi_handle_ops_s* handle, vxa_dump_conntrack_s* section)
{
    Snapshots& kept = SnapshotsOf(handle);
    kept.flows = PresentView();
    kept.flow_fills_left = 2;
    kept.room = ShareFlowRoom(kept.flows.world->udp_flows, kept.flows.world->tcp_flows);
    section->entry_ct = static_cast<std::uint16_t>(kept.room.udp + kept.room.tcp);
    NoteSource(Table::kConntrack, "simulated machine at tick %llu",
               static_cast<unsigned long long>(kept.flows.tick));
    return 0;
}

void FillFlows(const View& view, vxa_dump_conntrack_s* section)
{
    auto* entry = reinterpret_cast<vxa_conntrack_entry_s*>(section + 1);
    for (std::uint32_t i = 0; i < section->entry_ct; ++i) {
        entry[i] = Flow(*view.world, section->protocol, i, view.tick);
    }
}

int get_conntrack(vxi_handle_ops_s* handle, vxa_dump_conntrack_s* section, unsigned int,
                  unsigned int*)
{
    if (section->protocol == 0) {
        return CountFlows(handle, section);
    }
    Snapshots& kept = SnapshotsOf(handle);
    if (kept.flow_fills_left == 0) {
        return Fail(handle, -ENODATA, "no snapshot: ask for the count first");
    }
    const bool is_udp = section->protocol == kUdp;
    const World& world = *kept.flows.world;
    section->total = is_udp ? world.udp_flows : world.tcp_flows;
    section->entry_ct = static_cast<std::uint16_t>(
        std::min<std::uint32_t>(section->entry_ct, is_udp ? kept.room.udp : kept.room.tcp));
    FillFlows(kept.flows, section);
    if (--kept.flow_fills_left == 0) {
        kept.flows = View();
    }
    return 0;
}

int SizeBlacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list)
{
    Snapshots& kept = SnapshotsOf(handle);
    kept.blacklist = PresentView();
    list->set_count = kBlacklistSets;
    list->entries_size = static_cast<std::uint32_t>(kept.blacklist.world->settings.blacklist *
                                                    sizeof(vxa_blacklist_entry_s));
    NoteSource(Table::kBlacklist, "simulated machine at tick %llu",
               static_cast<unsigned long long>(kept.blacklist.tick));
    return 0;
}

int get_blacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list)
{
    if (list->entries_size == 0) {
        return SizeBlacklist(handle, list);
    }
    Snapshots& kept = SnapshotsOf(handle);
    if (!kept.blacklist.world) {
        return Fail(handle, -ENODATA, "no snapshot: ask for the size first");
    }
    const std::uint64_t all = kept.blacklist.world->settings.blacklist;
    const auto count = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(list->entries_size / sizeof(vxa_blacklist_entry_s), all));
    auto* bytes = reinterpret_cast<unsigned char*>(list + 1);
    for (std::uint32_t i = 0; i < count; ++i) {
        // The header is 44 bytes long, so the entries behind it are not aligned.
        const auto entry = Blacklisted(*kept.blacklist.world, i, kept.blacklist.tick);
        std::memcpy(bytes + i * sizeof entry, &entry, sizeof entry);
    }
    list->entries_size = count * static_cast<std::uint32_t>(sizeof(vxa_blacklist_entry_s));
    list->set_count = kBlacklistSets;
    kept.blacklist = View();
    return 0;
}

int get_conn_states(vxi_handle_ops_s*, vxa_get_conn_states_s* states)
{
    const View view = PresentView();
    FillConnStates(view, *states);
    NoteSource(Table::kConnStates, "simulated machine at tick %llu",
               static_cast<unsigned long long>(view.tick));
    return 0;
}

int get_variable(vxi_handle_ops_s* handle, vxa_filter_variable_s* variable)
{
    variable->value = VariableValue(PresentView(), handle->trace_level, variable->number);
    return 0;
}

int SetVariable(vxi_handle_ops_s* handle, unsigned int number, unsigned int value)
{
    if (number != kVariableRuleProfiling) {
        return Fail(handle, -EROFS, "variable %u (%s) is not writable", number,
                    VariableName(number));
    }
    Process& machine = GlobalProcess();
    const std::lock_guard<std::mutex> lock(machine.mutex);
    machine.view.rule_profiling = value;
    machine.view.profiled_since = machine.view.tick;
    SwitchProfiling(value == 1);
    return 0;
}

int get_profile_stats(vxi_handle_ops_s* handle, void* record)
{
    Snapshots& kept = SnapshotsOf(handle);
    std::uint32_t size = 0;
    std::memcpy(&size, record, sizeof size);
    if (size == 0) {
        kept.profile = RuleProfile(PresentView());
        size = static_cast<std::uint32_t>(kept.profile.size());
    } else {
        size = static_cast<std::uint32_t>(std::min<std::size_t>(size, kept.profile.size()));
        std::memcpy(static_cast<char*>(record) + sizeof size, kept.profile.data(), size);
        kept.profile = std::string();
    }
    std::memcpy(record, &size, sizeof size);
    return 0;
}

int SetScanMonitoring(vxi_handle_ops_s*, scan_monitor_config* config)
{
    ScanTarget target;
    TargetOf(*config, target);
    const ProfilingPause pause;
    Process& machine = GlobalProcess();
    const std::lock_guard<std::mutex> lock(machine.mutex);
    if (!(machine.view.target == target)) {
        machine.view.target = target;
        machine.view.counters = Counters{};
    }
    return 0;
}

void NextTick(View& view)
{
    const Settings& settings = view.world->settings;
    if (CountersRestart(settings, MomentAt(settings, view.tick))) {
        view.counters = Counters{};
    }
    if (settings.port == 0 || settings.port == view.target.port) {
        AddTraffic(settings, view.tick, view.counters);
    }
    ++view.tick;
}

int get_scan_metrics(vxi_handle_ops_s* handle, scan_metrics_request* request, unsigned int)
{
    Process& machine = GlobalProcess();
    const std::lock_guard<std::mutex> lock(machine.mutex);
    if (!(machine.view.target == TargetOf(*request))) {
        return Fail(handle, -ENOENT, "port %u is not monitored in that direction",
                    unsigned{request->port});
    }
    NextTick(machine.view);
    DeliverCounters(machine.view.counters, *request);
    return 0;
}

int Capabilities(vxi_handle_ops_s*, vxi_capability_s* rows, unsigned int count)
{
    constexpr auto kAll = static_cast<unsigned int>(std::size(kFacilityNames));
    for (unsigned int i = 0; i < std::min(count, kAll); ++i) {
        rows[i] = {kFacilityNames[i], 1, "simulated"};
    }
    return static_cast<int>(kAll);
}

Operations MakeOperations()
{
    Operations table{};
    table.engine = kEngineName;
    table.close = Close;
    table.available = Available;
    table.get_stats = get_stats;
    table.get_conntrack = get_conntrack;
    table.get_blacklist = get_blacklist;
    table.get_conn_states = get_conn_states;
    table.get_variable = get_variable;
    table.set_variable = SetVariable;
    table.get_profile_stats = get_profile_stats;
    table.set_scan_monitoring = SetScanMonitoring;
    table.get_scan_metrics = get_scan_metrics;
    table.capabilities = Capabilities;
    return table;
}

}  // namespace

}  // namespace vxi::sim

const vxi::Engine& vxi::SimEngine()
{
    static const Operations kOperations = sim::MakeOperations();
    static const Engine kEngine{sim::kEngineName, &kOperations, sim::Open, sim::EnvironmentUsable};
    return kEngine;
}

int vxi_sim_configure(const char* settings, unsigned int* position)
try {
    using namespace vxi::sim;
    Settings chosen;
    SettingsError error;
    if (!read_settings(settings ? settings : "", chosen, error)) {
        if (position) {
            *position = static_cast<unsigned int>(error.position);
        }
        return -EINVAL;
    }
    auto world = std::make_shared<const World>(std::move(chosen));
    Process& machine = GlobalProcess();
    const std::lock_guard<std::mutex> lock(machine.mutex);
    // Monitoring is a setting of the driver, not of the machine it watches.
    View fresh;
    fresh.world = std::move(world);
    fresh.target = machine.view.target;
    machine.view = std::move(fresh);
    machine.environment_error.clear();
    return 0;
} catch (const std::exception&) {
    return -ENOMEM;
}

void vxi_sim_machine(vxi_sim_machine_s* machine)
{
    if (machine) {
        const vxi::sim::View view = vxi::sim::PresentView();
        *machine = vxi::sim::MachineAt(view.world->settings, view.tick);
    }
}

void vxi_sim_tick(void)
{
    vxi::sim::Process& machine = vxi::sim::GlobalProcess();
    const std::lock_guard<std::mutex> lock(machine.mutex);
    vxi::sim::NextTick(machine.view);
}
