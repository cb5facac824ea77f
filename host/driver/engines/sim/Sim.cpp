// The simulated engine: one machine per process, and the snapshots that handles keep of it.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "api/Engine.h"
#include "api/HostMessages.h"
#include "api/Profiler.h"
#include "engines/TextParser.h"
#include "engines/sim/Machine.h"
#include "engines/sim/Settings.h"
#include "engines/sim/Tables.h"
#include "engines/sim/World.h"
#include "records/FlowShares.h"
#include "records/ScanTarget.h"
#include "records/TableOrigin.h"
#include "records/Variables.h"

namespace vxi::sim {

namespace {

constexpr std::uint8_t kUdp = 17;

struct Machine {
    std::mutex mutex;
    View view;
    std::string environment_error;  // empty: VXI_SIM can be used, or has been replaced

    Machine();
};

Machine::Machine()
{
    const char* const text = std::getenv("VXI_SIM");
    Settings settings;
    try {
        settings = ParseSettings(text ? text : "");
    } catch (const ParseError& error) {
        environment_error = std::string("VXI_SIM ") + error.what();
    }
    view.world = std::make_shared<const World>(std::move(settings));
    PublishStatisticsNames();
}

Machine& ProcessMachine()
{
    // Never destroyed: handles may be used until the process ends.
    static Machine& instance = *new Machine;
    return instance;
}

void CheckEnvironment()
{
    Machine& machine = ProcessMachine();
    const std::lock_guard<std::mutex> lock(machine.mutex);
    if (!machine.environment_error.empty()) {
        throw Error(-EINVAL, machine.environment_error);
    }
}

View CurrentView()
{
    const std::lock_guard<std::mutex> lock(ProcessMachine().mutex);
    return ProcessMachine().view;
}

// What size and count requests keep for the fill requests that follow.
struct Snapshots {
    View flows;
    unsigned flow_fills_left = 0;
    FlowShares flows_offered{};
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

void NoteTick(Table table, const View& view)
{
    SetTableSource(table, "simulated machine at tick %llu",
                   static_cast<unsigned long long>(view.tick));
}

void CountFlows(Snapshots& kept, vxa_dump_conntrack_s& section)
{
    kept.flows = CurrentView();
    kept.flow_fills_left = 2;
    kept.flows_offered = ShareFlowTable(kept.flows.world->udp_flows, kept.flows.world->tcp_flows);
    section.entry_ct = static_cast<std::uint16_t>(kept.flows_offered.udp + kept.flows_offered.tcp);
    NoteTick(Table::kConntrack, kept.flows);
}

void FillFlows(Snapshots& kept, vxa_dump_conntrack_s& section)
{
    const View& view = kept.flows;
    const bool is_udp = section.protocol == kUdp;
    section.total = is_udp ? view.world->udp_flows : view.world->tcp_flows;
    section.entry_ct = static_cast<std::uint16_t>(std::min<std::uint32_t>(
        section.entry_ct, is_udp ? kept.flows_offered.udp : kept.flows_offered.tcp));
    auto* const entries = reinterpret_cast<vxa_conntrack_entry_s*>(&section + 1);
    for (std::uint32_t i = 0; i < section.entry_ct; ++i) {
        entries[i] = Flow(*view.world, section.protocol, i, view.tick);
    }
    if (--kept.flow_fills_left == 0) {
        kept.flows = View();
    }
}

void SizeBlacklist(Snapshots& kept, vxa_blacklist_get_addrs_s& list)
{
    kept.blacklist = CurrentView();
    list.entries_size = static_cast<std::uint32_t>(kept.blacklist.world->settings.blacklist *
                                                   sizeof(vxa_blacklist_entry_s));
    NoteTick(Table::kBlacklist, kept.blacklist);
}

void FillBlacklist(Snapshots& kept, vxa_blacklist_get_addrs_s& list)
{
    const std::uint64_t all = kept.blacklist.world->settings.blacklist;
    const auto count = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(list.entries_size / sizeof(vxa_blacklist_entry_s), all));
    auto* const bytes = reinterpret_cast<unsigned char*>(&list + 1);
    for (std::uint32_t i = 0; i < count; ++i) {
        // The header is 44 bytes long, so the entries after it are not aligned.
        const auto entry = Blacklisted(*kept.blacklist.world, i, kept.blacklist.tick);
        std::memcpy(bytes + i * sizeof entry, &entry, sizeof entry);
    }
    list.entries_size = count * static_cast<std::uint32_t>(sizeof(vxa_blacklist_entry_s));
    kept.blacklist = View();
}

void AdvanceTick(View& view)
{
    const Settings& settings = view.world->settings;
    if (CountersRestart(settings, MomentAt(settings, view.tick))) {
        view.counters = Counters{};
    }
    if (settings.port == 0 || settings.port == view.target.port) {
        AddTraffic(settings, view.tick, view.counters);
        view.uncounted += settings.uncounted;
        view.uncounted_unread += settings.uncounted;
    }
    ++view.tick;
}

// Advances the machine and reads its counters. Returns how many new connections none of them has.
std::uint64_t ReadScan(scan_metrics_request& request)
{
    Machine& machine = ProcessMachine();
    const std::lock_guard<std::mutex> lock(machine.mutex);
    if (!(machine.view.target == RequestedTarget(request))) {
        ThrowError(-ENOENT, "port %u is not monitored in that direction", unsigned{request.port});
    }
    AdvanceTick(machine.view);
    WriteCounters(machine.view.counters, request);
    return std::exchange(machine.view.uncounted_unread, 0);
}

struct SimOperations : DefaultOperations {
    static void Close(vxi_handle_ops_s* handle) { delete static_cast<Snapshots*>(handle->state); }

    static int DriverAvailable(vxi_handle_ops_s*) { return 1; }

    static int GetStats(vxi_handle_ops_s*, vxa_stats_v2_s* stats, unsigned int)
    {
        const View view = CurrentView();
        FillStatistics(view, *stats);
        NoteTick(Table::kStatistics, view);
        return 0;
    }

    static int GetConntrack(vxi_handle_ops_s* handle, vxa_dump_conntrack_s* section, unsigned int,
                            unsigned int*)
    {
        Snapshots& kept = SnapshotsOf(handle);
        if (section->protocol == 0) {
            CountFlows(kept, *section);
        } else if (kept.flow_fills_left > 0) {
            FillFlows(kept, *section);
        } else {
            throw Error(-ENODATA, "no snapshot: ask for the count first");
        }
        return 0;
    }

    static int GetBlacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list)
    {
        Snapshots& kept = SnapshotsOf(handle);
        list->set_count = kBlacklistSets;
        if (list->entries_size == 0) {
            SizeBlacklist(kept, *list);
        } else if (kept.blacklist.world) {
            FillBlacklist(kept, *list);
        } else {
            throw Error(-ENODATA, "no snapshot: ask for the size first");
        }
        return 0;
    }

    static int GetConnStates(vxi_handle_ops_s*, vxa_get_conn_states_s* states)
    {
        const View view = CurrentView();
        FillConnStates(view, *states);
        NoteTick(Table::kConnStates, view);
        return 0;
    }

    static int GetVarv(vxi_handle_ops_s* handle, vxa_filter_variable_s* variable)
    {
        variable->value = VariableValue(CurrentView(), handle->trace_level, variable->number);
        return 0;
    }

    static int SetVar(vxi_handle_ops_s*, unsigned int number, unsigned int value)
    {
        if (number != kVariableRuleProfiling) {
            ThrowError(-EROFS, "variable %u (%s) is not writable", number, VariableName(number));
        }
        Machine& machine = ProcessMachine();
        const std::lock_guard<std::mutex> lock(machine.mutex);
        machine.view.rule_profiling = value;
        machine.view.profiled_since = machine.view.tick;
        SetProfiling(value == 1);
        return 0;
    }

    static int GetProfileStats(vxi_handle_ops_s* handle, void* record)
    {
        Snapshots& kept = SnapshotsOf(handle);
        std::uint32_t size = 0;
        std::memcpy(&size, record, sizeof size);
        if (size == 0) {
            kept.profile = RuleProfile(CurrentView());
            size = static_cast<std::uint32_t>(kept.profile.size());
        } else {
            size = static_cast<std::uint32_t>(std::min<std::size_t>(size, kept.profile.size()));
            std::memcpy(static_cast<char*>(record) + sizeof size, kept.profile.data(), size);
            kept.profile = std::string();
        }
        std::memcpy(record, &size, sizeof size);
        return 0;
    }

    static int SetScanMonitoring(vxi_handle_ops_s*, const ScanTarget& target)
    {
        const ProfilingPause pause;
        Machine& machine = ProcessMachine();
        const std::lock_guard<std::mutex> lock(machine.mutex);
        if (!(machine.view.target == target)) {
            machine.view.target = target;
            machine.view.counters = Counters{};
            machine.view.uncounted = machine.view.uncounted_unread = 0;
        }
        return 0;
    }

    static int GetScanMetrics(vxi_handle_ops_s*, scan_metrics_request* request, unsigned int)
    {
        const std::uint64_t uncounted = ReadScan(*request);
        if (uncounted > 0) {
            ReportToHost(UncountedMessage(request->port, uncounted, "simulated lack of room"));
        }
        return 0;
    }

    static int Capabilities(vxi_handle_ops_s*, vxi_capability_s* rows, unsigned int count)
    {
        const auto copied = std::min<std::size_t>(count, std::size(kFacilityNames));
        for (std::size_t i = 0; i < copied; ++i) {
            rows[i] = {kFacilityNames[i], 1, "simulated"};
        }
        return static_cast<int>(std::size(kFacilityNames));
    }
};

}  // namespace

}  // namespace vxi::sim

const vxi::Engine vxi::kSimEngine = {VXI_ABI_VERSION, sim::kEngineName,
                                     MakeOperations<sim::SimOperations>(), sim::CheckEnvironment,
                                     true};

int vxi_sim_configure(const char* settings, unsigned int* position)
{
    using namespace vxi::sim;
    return vxi::ApplySettings(position, [&] {
        auto world = std::make_shared<const World>(ParseSettings(settings ? settings : ""));
        Machine& machine = ProcessMachine();
        const std::lock_guard<std::mutex> lock(machine.mutex);
        // The monitored port is a setting of the driver, not of the machine that it watches.
        View fresh;
        fresh.world = std::move(world);
        fresh.target = machine.view.target;
        machine.view = std::move(fresh);
        machine.environment_error.clear();
    });
}

void vxi_sim_machine(vxi_sim_machine_s* machine)
{
    if (machine) {
        const vxi::sim::View view = vxi::sim::CurrentView();
        *machine = vxi::sim::MachineAt(view.world->settings, view.tick);
    }
}

void vxi_sim_tick(void)
{
    vxi::sim::Machine& machine = vxi::sim::ProcessMachine();
    const std::lock_guard<std::mutex> lock(machine.mutex);
    vxi::sim::AdvanceTick(machine.view);
}
