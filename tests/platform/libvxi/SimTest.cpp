// The simulated machine: the same for a seed, true to its scenario, one truth in all tables.
#include "Fixture.h"

namespace {

constexpr unsigned opened = VXI_SCAN_NEW;
constexpr unsigned refused = VXI_SCAN_HALF_OPEN_CLOSED;
constexpr unsigned established = VXI_SCAN_ESTABLISHED;

using Counters = std::vector<std::uint64_t>;

class Sim : public SimulatedMachine {
protected:
    std::vector<Counters> run(const std::string& settings, unsigned ticks)
    {
        configure(settings);
        monitor();
        std::vector<Counters> history;
        for (unsigned i = 0; i < ticks; ++i) {
            history.push_back(tick());
        }
        return history;
    }
    static vxi_sim_machine_s machine()
    {
        vxi_sim_machine_s figures;
        vxi_sim_machine(&figures);
        return figures;
    }
};

TEST_F(Sim, SameSeedSameHistory)
{
    const std::string settings = "scenario=busy:5/overloaded:5/recovering,seed=";
    const auto first = run(settings + "7", 60);
    EXPECT_NE(first, run(settings + "8", 60));
    EXPECT_EQ(first, run(settings + "7", 60));
    const double queue = machine().run_queue_length;
    run(settings + "7", 59);
    EXPECT_NE(queue, machine().run_queue_length);
    tick();
    EXPECT_EQ(queue, machine().run_queue_length);
}

// Per CPU and second over many ticks, and the machine's own figures, lie where each
// scenario is meant to lie against the usual thresholds.
TEST_F(Sim, ScenariosLookLikeTheirNames)
{
    constexpr unsigned ticks = 300;
    const struct {
        const char* scenario;
        // least and most of: opened, percent refused, run queue, percent of free memory
        double ranges[4][2];
    } cases[] = {
        {"idle", {{0.4, 0.6}, {0, 0}, {0.1, 1}, {70, 90}}},
        {"busy", {{38, 42}, {0.5, 2}, {4, 8}, {40, 50}}},
        {"overloaded", {{290, 310}, {34, 36}, {35, 50}, {3, 5}}},
        {"closing", {{38, 42}, {100, 100}, {4, 8}, {40, 50}}},
        {"recovering:100", {{10, 25}, {25, 35}, {0.1, 1}, {70, 90}}},  // recovered at the end
    };
    for (const auto& each : cases) {
        const std::string settings = std::string("interval_s=5,cpus=8,scenario=") + each.scenario;
        const Counters last = run(settings, ticks).back();
        const vxi_sim_machine_s now = machine();
        EXPECT_EQ(8U, now.cpu_count);
        EXPECT_EQ(last[opened], last[established] + last[refused]) << each.scenario;
        const auto count = static_cast<double>(last[opened]);
        const double figures[] = {count / (ticks * 5.0 * 8),
                                  static_cast<double>(last[refused]) / count * 100,
                                  now.run_queue_length,
                                  static_cast<double>(now.memory_free_kb) /
                                      static_cast<double>(now.memory_total_kb) * 100};
        for (unsigned i = 0; i < 4; ++i) {
            EXPECT_GE(figures[i], each.ranges[i][0]) << each.scenario << i;
            EXPECT_LE(figures[i], each.ranges[i][1]) << each.scenario << i;
        }
    }
}

TEST_F(Sim, TimelineClosesThePortAndReopensIt)
{
    const auto history = run("scenario=busy:3/closing:2/busy", 8);
    for (unsigned i = 1; i < history.size(); ++i) {
        const bool closed = i == 3 || i == 4;
        EXPECT_EQ(closed, history[i][established] == history[i - 1][established]) << i;
        EXPECT_EQ(closed, history[i][refused] - history[i - 1][refused] ==
                              history[i][opened] - history[i - 1][opened])
            << i;
    }
}

TEST_F(Sim, CountersRestart)
{
    const auto history = run("scenario=restarting,restart_ticks=4", 20);
    for (unsigned i = 1; i < history.size(); ++i) {
        EXPECT_EQ(i % 4 == 0, history[i][opened] < history[i - 1][opened]) << i;
    }
}

TEST_F(Sim, MalformedSettingsChangeNothing)
{
    configure("cpus=3");
    const std::vector<Malformed> cases = {{"cpu=4", 0},
                                          {"cpus", 4},
                                          {"cpus=0", 5},
                                          {"cpus=4097", 5},
                                          {"cpus=4x", 6},
                                          {"seed=1,,cpus=2", 7},
                                          {"seed=1 cpus=2", 7},
                                          {"seed=18446744073709551616", 5},
                                          {"scenario=Busy", 9},
                                          {"scenario=busy:0", 14},
                                          {"scenario=busy:3/melting", 16}};
    expect_refused(vxi_sim_configure, cases);
    EXPECT_EQ(3U, machine().cpu_count);
    EXPECT_EQ(0, vxi_sim_configure(" seed=1 , cpus=2\n", nullptr));
    EXPECT_EQ(2U, machine().cpu_count);
    EXPECT_EQ(0, vxi_sim_configure(nullptr, nullptr));
    EXPECT_EQ(4U, machine().cpu_count);
}

struct Flows {
    std::vector<vxa_conntrack_entry_s> udp, tcp;
    std::uint32_t udp_total, tcp_total;
};

// Asks for more than there is room for, by a part of an entry.
std::vector<vxa_conntrack_entry_s> fill(Handle handle, std::uint8_t protocol,
                                        std::uint32_t capacity, std::uint32_t& total)
{
    std::vector<std::uint64_t> block(2 + 9 * (capacity + 1), 0xeeeeeeeeeeeeeeeeU);
    auto* section = reinterpret_cast<vxa_dump_conntrack_s*>(block.data());
    *section = conntrack_request(protocol);
    section->entry_ct = 65535;
    EXPECT_EQ(0, vxi_get_conntrack(handle, section, 16 + 72 * capacity + 71, nullptr))
        << error_text(handle);
    EXPECT_LE(section->entry_ct, capacity);
    for (std::size_t i = 2 + 9U * section->entry_ct; i < block.size(); ++i) {
        EXPECT_EQ(0xeeeeeeeeeeeeeeeeU, block[i]);
    }
    total = section->total;
    const auto* entries = reinterpret_cast<const vxa_conntrack_entry_s*>(section + 1);
    return {entries, entries + section->entry_ct};
}

Flows fetch_flows(Handle handle)
{
    Flows flows;
    vxa_dump_conntrack_s header = conntrack_request();
    EXPECT_EQ(0, vxi_get_conntrack(handle, &header, sizeof header, nullptr));
    flows.udp = fill(handle, 17, header.entry_ct, flows.udp_total);
    const auto left = header.entry_ct - static_cast<std::uint32_t>(flows.udp.size());
    flows.tcp = fill(handle, 6, left, flows.tcp_total);
    EXPECT_EQ(header.entry_ct, flows.udp.size() + flows.tcp.size());
    return flows;
}

TEST_F(Sim, FlowTablesFitTheirCount)
{
    const struct {
        unsigned flows, udp, tcp;
    } cases[] = {{0, 0, 0}, {200, 40, 160}, {65540, 13108, 52427}, {1000000, 32767, 32768}};
    for (const auto& each : cases) {
        configure("flows=" + std::to_string(each.flows));
        const Flows flows = fetch_flows(handle());
        EXPECT_EQ(each.udp, flows.udp.size());
        EXPECT_EQ(each.tcp, flows.tcp.size());
        EXPECT_EQ(each.flows, flows.udp_total + flows.tcp_total);
    }
    configure("flows=50");
    vxa_dump_conntrack_s header = conntrack_request();
    ASSERT_EQ(0, vxi_get_conntrack(handle(), &header, sizeof header, nullptr));
    std::uint32_t total = 0;
    EXPECT_EQ(3U, fill(handle(), 6, 3, total).size());
    EXPECT_EQ(40U, total);
}

std::uint32_t variable(Handle handle, std::uint32_t number)
{
    vxa_filter_variable_s record{};
    EXPECT_EQ(0, vxi_get_var(handle, number, &record)) << number << error_text(handle);
    EXPECT_EQ(number, record.number);
    return record.value;
}

std::string fetch_profile(Handle handle)
{
    std::uint32_t size = 0;
    EXPECT_EQ(0, vxi_get_profile_stats(handle, &size));
    std::vector<std::uint32_t> block(2 + size / 4);
    block[0] = size;
    EXPECT_EQ(0, vxi_get_profile_stats(handle, block.data()));
    return {reinterpret_cast<const char*>(block.data() + 1), block[0]};
}

TEST_F(Sim, TablesAgree)
{
    configure("flows=500,blacklist=33,rules=12,scenario=busy:2/closing");
    monitor();
    for (unsigned round = 0; round < 4; ++round) {
        const Counters counters = tick();
        const bool closed = round >= 1;  // the next tick's phase is what tables show
        const Flows flows = fetch_flows(handle());
        std::uint64_t by_state[16] = {};
        for (const auto& entry : flows.tcp) {
            ++by_state[entry.tcp_state];
        }
        vxa_get_conn_states_s states;
        std::memset(&states, 0xee, sizeof states);
        ASSERT_EQ(0, vxi_get_conn_states(handle(), &states));
        EXPECT_EQ(1U, states.version);
        EXPECT_EQ(500U + !closed, states.count);
        EXPECT_EQ(flows.udp.size(), states.udp4 + states.udp6);
        EXPECT_EQ(by_state[3], states.tcp4[1] + states.tcp6[1]);  // established
        EXPECT_EQ(by_state[7], states.tcp4[6] + states.tcp6[6]);  // time-wait
        Statistics stats;
        ASSERT_EQ(0, vxi_get_stats(handle(), &stats, sizeof(vxa_stats_v2_s)));
        EXPECT_EQ(500U, stats.body2[0]);
        EXPECT_EQ(by_state[3], stats.body1[5]);
        EXPECT_EQ(counters[refused], stats.body1[3]);
    }
    const std::pair<std::uint32_t, std::uint32_t> variables[] = {
        {61, 33}, {60, 12}, {19, 500}, {6, port}};
    for (const auto& [number, value] : variables) {
        EXPECT_EQ(value, variable(handle(), number)) << number;
    }
    std::size_t rules = 0;
    const std::string profile = fetch_profile(handle());
    for (std::size_t at = 0; (at = profile.find("\"rule\"", at)) != profile.npos; ++at) {
        ++rules;
    }
    EXPECT_EQ(12U, rules);
}

TEST_F(Sim, ProfileHoldsDifferencesWhileSwitchedOn)
{
    configure("rules=3");
    monitor();
    tick();
    EXPECT_EQ(std::string::npos, fetch_profile(handle()).find("\"profile\""));
    ASSERT_EQ(0, vxi_set_var(handle(), 62, 1));
    tick();
    tick();
    EXPECT_NE(std::string::npos, fetch_profile(handle()).find("\"profile\": {\"ticks\": 2"));
    for (const std::uint32_t value : {2U, 0U}) {
        ASSERT_EQ(0, vxi_set_var(handle(), 62, value));
        EXPECT_EQ(value, variable(handle(), 62));
        EXPECT_EQ(std::string::npos, fetch_profile(handle()).find("\"profile\""));
    }
    EXPECT_EQ(0, profiler_running());
}

}  // namespace
