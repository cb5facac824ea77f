// The simulated machine: the same for a seed, true to its scenario, one truth in all tables.
#include <cerrno>
#include <set>

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
    EXPECT_EQ(first, run(settings + "7", 60));
    EXPECT_NE(first, run(settings + "8", 60));
    configure(settings + "7");
    const double queue = machine().run_queue_length;
    tick();
    EXPECT_NE(queue, machine().run_queue_length);
    configure(settings + "7");
    EXPECT_EQ(queue, machine().run_queue_length);
    EXPECT_EQ(0U, machine().tick);
}

TEST_F(Sim, CountersAddUpAndGrow)
{
    for (const char* scenario : {"idle", "busy", "overloaded", "recovering", "closing"}) {
        const auto history = run(std::string("scenario=") + scenario, 200);
        for (std::size_t i = 0; i < history.size(); ++i) {
            EXPECT_EQ(history[i][opened], history[i][established] + history[i][refused]);
            for (unsigned counter = 0; i > 0 && counter < VXI_SCAN_COUNTERS; ++counter) {
                EXPECT_GE(history[i][counter], history[i - 1][counter]) << scenario << counter;
            }
        }
        EXPECT_GT(history.back()[opened], 0U) << scenario;
    }
}

// Per CPU and second over many ticks, and the machine's own figures, lie where each
// scenario is meant to lie against the usual thresholds.
TEST_F(Sim, ScenariosLookLikeTheirNames)
{
    constexpr unsigned ticks = 300;
    constexpr unsigned cpus = 8;
    const struct {
        const char* scenario;
        double least_opened, most_opened, least_refused_pct, most_refused_pct;
        double least_queue, most_queue, least_free_pct, most_free_pct;
    } cases[] = {
        {"idle", 0.4, 0.6, 0, 0, 0.1, 1, 70, 90},
        {"busy", 38, 42, 0.5, 2, 4, 8, 40, 50},
        {"overloaded", 290, 310, 34, 36, 35, 50, 3, 5},
        {"closing", 38, 42, 100, 100, 4, 8, 40, 50},
        {"recovering:100", 10, 25, 25, 35, 0.1, 1, 70, 90},  // recovered at the end
    };
    for (const auto& each : cases) {
        const auto history =
            run("interval_s=5,cpus=8,scenario=" + std::string(each.scenario), ticks);
        const double rate = static_cast<double>(history.back()[opened]) / (ticks * 5.0 * cpus);
        const double pct = 100.0 * static_cast<double>(history.back()[refused]) /
                           static_cast<double>(history.back()[opened]);
        EXPECT_TRUE(rate >= each.least_opened && rate <= each.most_opened) << each.scenario << rate;
        EXPECT_TRUE(pct >= each.least_refused_pct && pct <= each.most_refused_pct)
            << each.scenario << pct;
        const vxi_sim_machine_s now = machine();
        const double free_pct = 100.0 * static_cast<double>(now.memory_free_kb) /
                                static_cast<double>(now.memory_total_kb);
        EXPECT_EQ(ticks, now.tick);
        EXPECT_EQ(cpus, now.cpu_count);
        EXPECT_TRUE(now.run_queue_length >= each.least_queue &&
                    now.run_queue_length <= each.most_queue)
            << each.scenario << now.run_queue_length;
        EXPECT_TRUE(free_pct >= each.least_free_pct && free_pct <= each.most_free_pct)
            << each.scenario << free_pct;
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

TEST_F(Sim, MonitoringKeepsOrRestartsCounters)
{
    configure("");
    monitor();
    const Counters before = tick();
    monitor();
    EXPECT_GT(tick()[opened], before[opened]) << "the same port again";
    ASSERT_EQ(0, vxi_set_scan_monitoring(handle(), scan_config(port, VXI_SCAN_OUTBOUND).get()));
    scan_metrics_request request = scan_request(port);
    EXPECT_EQ(-ENOENT, vxi_get_scan_metrics(handle(), &request, sizeof request));
    monitor();
    EXPECT_LT(tick()[opened], 2 * before[opened]) << "another direction in between";
    const auto elsewhere = run("port=25", 5);
    EXPECT_EQ(Counters(VXI_SCAN_COUNTERS), elsewhere.back()) << "no traffic on this port";
}

TEST_F(Sim, ScenariosAreRunForAMillionTicks)
{
    configure("scenario=overloaded");
    monitor();
    std::uint64_t before = 0;
    for (unsigned i = 0; i < 1000000; ++i) {
        scan_metrics_request request = scan_request(port);
        ASSERT_EQ(0, vxi_get_scan_metrics(handle(), &request, sizeof request));
        ASSERT_GT(request.counter[opened], before);
        before = request.counter[opened];
    }
    EXPECT_EQ(1000000U, machine().tick);
}

TEST_F(Sim, MalformedSettingsChangeNothing)
{
    configure("cpus=3");
    const struct {
        const char* settings;
        unsigned position;
    } cases[] = {
        {"cpu=4", 0},           {"cpus", 4},
        {"cpus=", 5},           {"cpus=0", 5},
        {"cpus=4097", 5},       {"cpus=four", 5},
        {"cpus=4x", 6},         {"seed=1,,cpus=2", 7},
        {"seed=-1", 5},         {"seed=18446744073709551616", 5},
        {"port=65536", 5},      {"scenario=", 9},
        {"scenario=Busy", 9},   {"scenario=busy:0", 14},
        {"scenario=busy/", 14}, {"scenario=busy:3/melting", 16},
        {"seed=1 cpus=2", 7},   {"flows=1000001", 6},
    };
    for (const auto& each : cases) {
        unsigned position = 999;
        EXPECT_EQ(-EINVAL, vxi_sim_configure(each.settings, &position)) << each.settings;
        EXPECT_EQ(each.position, position) << each.settings;
        EXPECT_EQ(-EINVAL, vxi_sim_configure(each.settings, nullptr));
        EXPECT_EQ(3U, machine().cpu_count) << each.settings;
    }
    EXPECT_EQ(0, vxi_sim_configure(" seed=1 , cpus=2\n", nullptr));
    EXPECT_EQ(2U, machine().cpu_count);
    EXPECT_EQ(0, vxi_sim_configure(nullptr, nullptr));
    EXPECT_EQ(4U, machine().cpu_count);
}

struct Flows {
    std::uint32_t counted;
    std::vector<vxa_conntrack_entry_s> udp, tcp;
    std::uint32_t udp_total, tcp_total;
};

std::vector<vxa_conntrack_entry_s> fill(vxi_handle_ops_s* handle, std::uint8_t protocol,
                                        std::uint32_t capacity, std::uint32_t& total)
{
    std::vector<std::uint64_t> block((16 + 72 * capacity) / 8);
    auto* section = reinterpret_cast<vxa_dump_conntrack_s*>(block.data());
    section->request = VXA_CONNTRACK_REQUEST_TABLE;
    section->entry_ct = static_cast<std::uint16_t>(capacity);
    section->protocol = protocol;
    EXPECT_EQ(0, vxi_get_conntrack(handle, section, 16 + 72 * capacity, nullptr))
        << error_text(handle);
    total = section->total;
    const auto* entries = reinterpret_cast<const vxa_conntrack_entry_s*>(section + 1);
    return {entries, entries + section->entry_ct};
}

Flows fetch_flows(vxi_handle_ops_s* handle)
{
    Flows flows;
    vxa_dump_conntrack_s header{};
    header.request = VXA_CONNTRACK_REQUEST_TABLE;
    EXPECT_EQ(0, vxi_get_conntrack(handle, &header, sizeof header, nullptr));
    flows.counted = header.entry_ct;
    flows.udp = fill(handle, 17, flows.counted, flows.udp_total);
    const auto left = flows.counted - static_cast<std::uint32_t>(flows.udp.size());
    flows.tcp = fill(handle, 6, left, flows.tcp_total);
    return flows;
}

TEST_F(Sim, FlowTablesFitTheirCount)
{
    const struct {
        unsigned flows, counted, udp, tcp;
    } cases[] = {
        {0, 0, 0, 0},
        {1, 1, 0, 1},
        {200, 200, 40, 160},
        {65535, 65535, 13107, 52428},
        {65540, 65535, 13108, 52427},
        {1000000, 65535, 32767, 32768},
    };
    for (const auto& each : cases) {
        configure("flows=" + std::to_string(each.flows));
        const Flows flows = fetch_flows(handle());
        EXPECT_EQ(each.counted, flows.counted);
        EXPECT_EQ(each.udp, flows.udp.size());
        EXPECT_EQ(each.tcp, flows.tcp.size());
        EXPECT_EQ(each.flows, flows.udp_total + flows.tcp_total);
        std::set<std::string> keys;
        for (const auto* table : {&flows.udp, &flows.tcp}) {
            for (const auto& entry : *table) {
                keys.emplace(reinterpret_cast<const char*>(&entry), 37);
            }
            EXPECT_EQ(table->size(), keys.size());
            keys.clear();
        }
    }
}

TEST_F(Sim, FillNeverExceedsItsSize)
{
    configure("flows=50");
    vxa_dump_conntrack_s header{};
    header.request = VXA_CONNTRACK_REQUEST_TABLE;
    ASSERT_EQ(0, vxi_get_conntrack(handle(), &header, sizeof header, nullptr));
    std::vector<std::uint64_t> block(2 + 9 * 4, 0xeeeeeeeeeeeeeeeeU);
    auto* section = reinterpret_cast<vxa_dump_conntrack_s*>(block.data());
    *section = header;
    section->entry_ct = 65535;
    section->protocol = 6;
    ASSERT_EQ(0, vxi_get_conntrack(handle(), section, 16 + 72 * 3 + 71, nullptr));
    EXPECT_EQ(3, section->entry_ct);
    EXPECT_EQ(40U, section->total);
    for (unsigned i = 2 + 9 * 3; i < block.size(); ++i) {
        EXPECT_EQ(0xeeeeeeeeeeeeeeeeU, block[i]);
    }
}

std::uint32_t variable(vxi_handle_ops_s* handle, std::uint32_t number)
{
    vxa_filter_variable_s record{};
    EXPECT_EQ(0, vxi_get_var(handle, number, &record)) << number << error_text(handle);
    EXPECT_EQ(number, record.number);
    return record.value;
}

std::vector<vxa_blacklist_entry_s> fetch_blacklist(vxi_handle_ops_s* handle)
{
    vxa_blacklist_get_addrs_s header{};
    EXPECT_EQ(0, vxi_get_blacklist(handle, &header));
    std::vector<std::uint32_t> block((sizeof header + header.entries_size) / 4);
    auto* list = reinterpret_cast<vxa_blacklist_get_addrs_s*>(block.data());
    *list = header;
    EXPECT_EQ(0, vxi_get_blacklist(handle, list));
    std::vector<vxa_blacklist_entry_s> entries(list->entries_size / sizeof(vxa_blacklist_entry_s));
    if (!entries.empty()) {
        std::memcpy(entries.data(), list + 1, list->entries_size);
    }
    return entries;
}

std::string fetch_profile(vxi_handle_ops_s* handle)
{
    std::uint32_t size = 0;
    EXPECT_EQ(0, vxi_get_profile_stats(handle, &size));
    std::vector<std::uint32_t> block(2 + size / 4);
    block[0] = size;
    EXPECT_EQ(0, vxi_get_profile_stats(handle, block.data()));
    return {reinterpret_cast<const char*>(block.data() + 1), block[0]};
}

std::size_t occurrences(const std::string& text, const std::string& what)
{
    std::size_t count = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
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
        std::uint64_t sockets = 0;
        for (unsigned i = 0; i < 16; ++i) {
            sockets += states.tcp4[i] + states.tcp6[i];
        }
        EXPECT_EQ(states.count, sockets + states.udp4 + states.udp6);

        EXPECT_EQ(33U, fetch_blacklist(handle()).size());
        EXPECT_EQ(33U, variable(handle(), 61));
        EXPECT_EQ(12U, variable(handle(), 60));
        EXPECT_EQ(12U, occurrences(fetch_profile(handle()), "\"rule\""));
        EXPECT_EQ(500U, variable(handle(), 19));
        EXPECT_EQ(port, variable(handle(), 6));

        auto stats = stats_record();
        ASSERT_EQ(0, vxi_get_stats(handle(), stats.get(), sizeof *stats));
        EXPECT_EQ(500U, stats->body2[0]);
        EXPECT_EQ(by_state[3], stats->body1[5]);
        EXPECT_EQ(counters[refused], stats->body1[3]);
    }
    for (std::uint32_t number = 0; number < VXA_FILTER_VARIABLE_COUNT; ++number) {
        variable(handle(), number);
    }
}

TEST_F(Sim, BlacklistedAddressesAreOrdered)
{
    configure("blacklist=1000");
    unsigned ranges = 0;
    for (const auto& entry : fetch_blacklist(handle())) {
        const int order = std::memcmp(entry.address, entry.last, sizeof entry.last);
        EXPECT_EQ((entry.flags & VXA_BLACKLIST_RANGE) != 0, order < 0);
        EXPECT_LE(order, 0);
        EXPECT_LE(entry.expires_s, entry.timeout_s);
        ranges += order < 0;
    }
    EXPECT_GT(ranges, 0U);
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

TEST_F(Sim, DeliversEverything)
{
    vxi_capability_s rows[8] = {};
    EXPECT_EQ(7, vxi_capabilities(handle(), nullptr, 0));
    ASSERT_EQ(7, vxi_capabilities(handle(), rows, 8));
    for (unsigned i = 0; i < 7; ++i) {
        EXPECT_EQ(1, rows[i].available) << rows[i].name;
    }
    EXPECT_FALSE(rows[7].name);
}

}  // namespace
