// Lives of the module as it is built, on a machine that this program plays, against the replay of
// their record: every action of every policy must be the same.

#include "Replay.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <fstream>
#include <random>

#include "LuaHost.h"
#include "RecordingDriver.h"
#include "ScratchDirectory.h"

namespace {

// What the module's collectors read.
struct {
    char uptime[80] = "", nproc[8] = "", meminfo[80] = "";
} s_files;

FILE* Stream(char* text)
{
    return fmemopen(text, std::strlen(text), "r");
}

template <typename Function>
Function* Libc(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kLives = 4, kCycles = 1500;
#else
constexpr int kLives = 20, kCycles = 10500;
#endif

// The first one is that of the recorded run.
const std::string kPort =
    R"({"SYS_CONF_CONN_REFUSAL_PORT":443,"SYS_THR_CONN_REFUSAL_PCT":{"value":50},)"
    R"("SYS_THR_CONN_EST_PER_CPU":{"value":8},"SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU":{"value":3})";
const std::string kOwn = R"("SYS_THR_RUNQ":{"value":8},"SYS_THR_FREE_MEM":{"value":12.5})";
const std::string kPolicies[] = {
    kPort + "," + kOwn + "}",
    "{\"SYS_CONF_MIN_ACT_DURATION\":0,\"SYS_THR_MAX_ITERATION_INVL\":{\"value\":30}," + kOwn + "}",
    "{\"SYS_CONF_MIN_ACT_DURATION\":60," + kOwn + "}",
    kPort + ",\"SYS_CONF_MIN_ACT_DURATION\":1}",
    kPort + ",\"SYS_CONF_MIN_ACT_DURATION\":0.9,\"SYS_THR_MAX_ITERATION_INVL\":{\"value\":60}}",
};
constexpr std::size_t kPolicyCount = std::size(kPolicies);

std::string Shortest(double value)
{
    char text[32];
    return {text, std::to_chars(text, std::end(text), value).ptr};
}

// One life of a machine; the same seed lives the same life.
class Machine {
public:
    Machine(unsigned int seed, std::uint64_t now_us) : m_random(seed), m_nowUs(now_us) {}

    enum class Fault { kNone, kNoLoad, kNoCpus, kNoMemory, kBadState, kNoPolicy, kNoDriver };
    Fault fault = Fault::kNone;
    replay::Row row{};  // what the cycle should sample

    void Advance()
    {
        const std::uint64_t step_us = Step();
        m_nowUs += step_us;
        row = {m_nowUs, 0, false, 443, {}, 0, false, {}};
        fault = Chance(30) ? static_cast<Fault>(m_random() % 7) : Fault::kNone;
        const unsigned int cpus = 1 + m_random() % 8;
        if (m_hasRun) Know(fc::kMetricInterval, static_cast<double>(step_us) / 1000000.0);
        m_hasRun = true;
        SampleLoad(cpus);
        SampleMemory();
        SampleDriver(step_us, cpus);
        driver::SetClock(m_nowUs);
    }

    // The row as a run records it.
    std::string Text() const
    {
        const auto seconds = static_cast<std::time_t>(m_nowUs / 1000000);
        std::tm utc{};
        gmtime_r(&seconds, &utc);
        char text[80];
        const std::size_t length = std::strftime(text, sizeof text, "%F %T", &utc);
        std::snprintf(text + length, sizeof text - length, ".%06u,%d,%s,443",
                      static_cast<unsigned int>(m_nowUs % 1000000), row.action,
                      row.activated ? "Activated" : "Deactivated");
        std::string line = text;
        for (std::size_t i = 0; i < fc::kMetricCount; ++i)
            line += "," + (row.Knows(i) ? Shortest(row.values[i]) : "");
        return line + ",\n";
    }

private:
    static constexpr std::uint64_t kSecondUs = 1000000, kDayUs = 86400 * kSecondUs;

    bool Chance(unsigned int one_in) { return m_random() % one_in == 0; }

    void Know(fc::Metric metric, double value)
    {
        row.values[metric] = value;
        row.known |= 1u << metric;
    }

    // Mostly 10 s; ties with thresholds and with the ends of minimum durations; a clock that is set
    // ahead or back.
    std::uint64_t Step()
    {
        constexpr std::uint64_t kSpecial[] = {30 * kSecondUs, 45 * kSecondUs,   45 * kSecondUs + 1,
                                              60 * kSecondUs, 1800 * kSecondUs, kDayUs};
        if (Chance(400)) return 0 - m_random() % (std::uint64_t{10800} * kSecondUs) - 1;
        if (Chance(100)) return kSpecial[m_random() % std::size(kSpecial)];
        return Chance(5) ? 10 * kSecondUs + m_random() % 1001 - 500 : 10 * kSecondUs;
    }

    // Seldom around the threshold, or equal to it.
    std::uint64_t Around(std::uint64_t calm, std::uint64_t threshold)
    {
        return Chance(60) ? threshold - 1 + m_random() % 3 : calm;
    }

    void SampleLoad(unsigned int cpus)
    {
        const auto tenths = static_cast<unsigned int>(Around(5, 80));
        std::snprintf(s_files.uptime, sizeof s_files.uptime, " up 1 day%s: %u.%u9, 1.00, 1.00\n",
                      fault == Fault::kNoLoad ? "" : ", load average", tenths / 10, tenths % 10);
        std::snprintf(s_files.nproc, sizeof s_files.nproc, "%u\n",
                      fault == Fault::kNoCpus ? 0 : cpus);
        if (fault != Fault::kNoLoad) Know(fc::kMetricRunQueue, tenths / 10.0);
    }

    void SampleMemory()
    {
        const auto free = static_cast<int>(Around(m_random() % 500000 + 130000, 125000));
        std::snprintf(s_files.meminfo, sizeof s_files.meminfo, "MemTotal: 1000000 kB\n%s: %d kB\n",
                      fault == Fault::kNoMemory ? "x" : "MemFree", free);
        if (fault != Fault::kNoMemory) Know(fc::kMetricFreeMemory, free * 100.0 / 1000000);
    }

    // The counters go on while nothing reads them, so that what is read next is a burst.
    void SampleDriver(std::uint64_t step_us, unsigned int cpus)
    {
        driver::Answers answers;
        answers.statuses["get_scan_metrics"] = {fault == Fault::kNoDriver ? -1 : 0};
        if (Chance(500)) m_counters = {};
        m_counters[VXI_SCAN_NEW] += Around(80, 51);
        m_counters[VXI_SCAN_HALF_OPEN_CLOSED] += Around(4, 40);
        m_counters[VXI_SCAN_ESTABLISHED] += Around(70, std::uint64_t{80} * cpus);
        m_counters[VXI_SCAN_BYTES_FORWARD] += Around(1000000, std::uint64_t{20} * cpus << 20);
        m_counters[VXI_SCAN_BYTES_BACKWARD] += Around(1000000, std::uint64_t{10} * cpus << 20);
        answers.values = m_counters;
        driver::SetAnswers(answers);
        if (fault != Fault::kNone) return;
        if (m_hasCounted) CalculateRates(static_cast<double>(step_us) / 1000000.0, cpus);
        m_read = m_counters;
        m_hasCounted = true;
    }

    void CalculateRates(double seconds, double cpus)
    {
        const auto rate = [&](int i) {
            return m_counters[i] >= m_read[i]
                       ? static_cast<double>(m_counters[i] - m_read[i]) / seconds
                       : 0.0;
        };
        const double opened = rate(VXI_SCAN_NEW), refused = rate(VXI_SCAN_HALF_OPEN_CLOSED);
        Know(fc::kMetricRefusalPct, opened > 5 ? 100.0 * refused / opened : 0.0);
        Know(fc::kMetricEstablished, rate(VXI_SCAN_ESTABLISHED) / cpus);
        Know(fc::kMetricScanMbytes,
             (rate(VXI_SCAN_BYTES_FORWARD) + rate(VXI_SCAN_BYTES_BACKWARD)) / (cpus * 1048576.0));
    }

    std::mt19937_64 m_random;
    std::uint64_t m_nowUs;
    bool m_hasRun = false, m_hasCounted = false;
    std::array<std::uint64_t, VXI_SCAN_COUNTERS> m_counters{}, m_read{};
};

// The script that owns the state, around the module.
class Script {
public:
    explicit Script(const std::string& policy)
        : m_policy(policy), m_judged(replay::ParsePolicy(policy))
    {
        const std::string error = m_lua.Run(std::string(kLoadModules) + "vxa.capture(true)");
        if (!error.empty()) Die(error.c_str());
    }

    void Cycle(Machine& machine)
    {
        lua_State* const l = m_lua.l;
        using Fault = Machine::Fault;
        lua_getglobal(l, "filter");
        lua_getfield(l, -1, "CheckSystemHealthMetrics");
        lua_getglobal(l, "doc");
        const char* const state = m_activated ? "Activated" : "Deactivated";
        lua_pushstring(l, machine.fault == Fault::kBadState ? "?" : state);
        lua_pushstring(l, machine.fault == Fault::kNoPolicy ? "{}" : m_policy.c_str());
        if (lua_pcall(l, 3, 1, 0) != 0) Die(lua_tostring(l, -1));
        lua_getfield(l, -1, "action");
        machine.row.action = static_cast<int>(lua_tointeger(l, -1));
        lua_settop(l, 0);
        Act(machine.row);
        machine.row.activated = m_activated;
        driver::TakeCalls();
    }

private:
    [[noreturn]] static void Die(const char* message)
    {
        std::fprintf(stderr, "%s\n", message);
        _exit(1);
    }

    void Act(const replay::Row& row)
    {
        if (row.IsMeasured()) {
            const bool wait = m_missed && !m_activated && !IsOverWithoutRates(row);
            m_activated = row.action == fc::kActionFailOpen && !wait;
        }
        const bool has_rates = row.Knows(fc::kMetricEstablished);
        m_hasHadRates = m_hasHadRates || has_rates;
        m_missed = !row.IsMeasured() || (m_hasHadRates && !has_rates);
    }

    bool IsOverWithoutRates(const replay::Row& row) const
    {
        const auto& thresholds = m_judged.thresholds;
        const auto is_judged = [&](fc::Metric m) { return (m_judged.judged >> m & 1) != 0; };
        return (is_judged(fc::kMetricRunQueue) && row.values[0] > thresholds[0]) ||
               (is_judged(fc::kMetricFreeMemory) && row.values[4] < thresholds[4]) ||
               row.values[5] > thresholds[5];
    }

    LuaHost m_lua;
    std::string m_policy;
    replay::Policy m_judged;
    bool m_activated = false, m_missed = false, m_hasHadRates = false;
};

char Code(int action, bool activated)
{
    return static_cast<char>('a' + 2 * action + (activated ? 1 : 0));
}

void Append(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::app) << text;
}

// In a process of its own, because the module cannot be loaded twice.
void Live(Machine machine, std::size_t policy, const std::string& record,
          const std::string& actions)
{
    std::string rows, codes;
    Script script(kPolicies[policy]);
    for (int i = 0; i < kCycles; ++i) {
        machine.Advance();
        script.Cycle(machine);
        codes += Code(machine.row.action, machine.row.activated);
        rows += machine.Text();
    }
    if (policy == 0) Append(record, rows);
    Append(actions, codes);
}

const std::string kHeading =
    "# vxa record 1\n# version 1.0.0, engine linux, host a, processors 2, interval 10 s\n# "
    "policy " +
    kPolicies[0] + "\n";
constexpr char kColumns[] =
    "time,action,state,port,rqpct,refusalpct,estab,scanmb,frepct,delta_t,errors\n";

std::vector<replay::Policy> AllPolicies()
{
    std::vector<replay::Policy> policies;
    for (const std::string& text : kPolicies) policies.push_back(replay::ParsePolicy(text));
    return policies;
}

std::string Actions(const ScratchDirectory& folder, std::size_t policy)
{
    return folder.Path("actions" + std::to_string(policy));
}

// Each life begins where the one before ended.
void LiveAll(const ScratchDirectory& folder)
{
    std::uint64_t now_us = 1767225600000000;
    for (int life = 0; life < kLives; ++life) {
        Machine machine(static_cast<unsigned int>(life), now_us);
        Append(folder.Path("record"), kHeading + (life == 0 ? kColumns : ""));
        for (std::size_t policy = 0; policy < kPolicyCount; ++policy) {
            if (fork() != 0) continue;
            Live(machine, policy, folder.Path("record"), Actions(folder, policy));
            _exit(0);
        }
        for (int i = 0; i < kCycles; ++i) machine.Advance();
        now_us = machine.row.time_us;
        int status = 0;
        while (wait(&status) > 0) ASSERT_EQ(status, 0);
    }
}

// What the recorded run did is what its policy does.
void CheckOutcomes(const std::string& record)
{
    replay::Replay replayed(record, AllPolicies());
    while (replayed.Read(1000)) continue;
    const auto figures = [](const replay::Outcome& o) {
        return std::tie(o.entries, o.fail_open_us, o.enforced_us, o.longest_us, o.causes);
    };
    EXPECT_EQ(figures(replayed.Recorded()), figures(replayed.Trackers()[0].GetOutcome()));
    for (const auto& tracker : replayed.Trackers()) {
        const replay::Outcome& outcome = tracker.GetOutcome();
        EXPECT_EQ(outcome.enforced_us + outcome.fail_open_us, replayed.Summary().counted_us);
        EXPECT_EQ(outcome.stretches.size(), std::min<std::size_t>(outcome.entries, 1000));
    }
}

TEST(Replay, DecidesAsTheModule)
{
    const ScratchDirectory folder;
    LiveAll(folder);
    std::vector<replay::Monitor> monitors;
    std::vector<std::string> expected, found(kPolicyCount);
    for (std::size_t i = 0; i < kPolicyCount; ++i) expected.push_back(ReadText(Actions(folder, i)));
    for (const auto& policy : AllPolicies()) monitors.emplace_back(policy);
    replay::RecordReader reader(folder.Path("record"));
    for (;;) {
        const auto event = reader.Next();
        if (event == replay::RecordReader::Event::kEnd) break;
        for (std::size_t i = 0; i < kPolicyCount; ++i) {
            if (event == replay::RecordReader::Event::kRestart) monitors[i].Restart();
            if (event != replay::RecordReader::Event::kRow) continue;
            const int action = monitors[i].Cycle(reader.CurrentRow());
            found[i] += Code(action, monitors[i].IsActivated());
        }
    }
    for (std::size_t i = 0; i < kPolicyCount; ++i) {
        ASSERT_EQ(found[i].size(), std::size_t{kLives} * kCycles);
        const auto differ = std::mismatch(found[i].begin(), found[i].end(), expected[i].begin());
        EXPECT_EQ(differ.first - found[i].begin(), kLives * kCycles)
            << "policy " << i << ": " << *differ.first << " for " << *differ.second;
    }
    CheckOutcomes(folder.Path("record"));
}

}  // namespace

// The headers rename fopen and open to fopen64 and open64, here and in the module.
#pragma GCC visibility push(default)
extern "C" {

FILE* popen(const char* command, const char*)
{
    return Stream(std::strcmp(command, "nproc") == 0 ? s_files.nproc : s_files.uptime);
}

FILE* fopen(const char* path, const char* mode)
{
    static auto* const kNext = Libc<FILE*(const char*, const char*)>("fopen64");
    return std::strcmp(path, "/proc/meminfo") == 0 ? Stream(s_files.meminfo) : kNext(path, mode);
}

// The settings in force are not logged.
int open(const char* path, int flags, ...)
{
    static auto* const kNext = Libc<int(const char*, int, ...)>("open64");
    std::va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return kNext(std::strncmp(path, "/var/opt/", 9) == 0 ? "/dev/null" : path, flags, mode);
}

}  // extern "C"
