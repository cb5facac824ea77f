// Both configuration readers and the JSON log of what is in force.

#include <cjson/cJSON.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <sstream>

#include "Fixture.h"

namespace {

namespace fs = std::filesystem;

class ConfigTest : public SandboxedHealthTest {
protected:
    // "ROW=VALUE ..." of those that are set.
    static std::string InForce()
    {
        std::ostringstream text;
        text << std::setprecision(9);
        for (int row = 0; row < kConfRows; ++row)
            if (vxa_syshealth_config[row].set == 1)
                text << " " << row << "=" << vxa_syshealth_config[row].value;
        return text.str();
    }

    // What a reader left behind: "COUNT: ROW=VALUE ...", then what it told the document, if
    // anything, and what it logged.
    std::string Outcome(int count)
    {
        std::string text = std::to_string(count) + ":" + InForce();
        const auto unload = host::TakeSetting(*document, "vxp.filter.FailOpenUnloadDriver");
        if (unload) text += *unload ? ", unload" : ", keep";
        for (const std::string& line : host::TakeLog()) text += "\n" + line;
        return text;
    }

    std::string FromFile(const std::string& text, int state = 0)
    {
        sandbox::SetConfigFile(text.c_str());
        vxa_syshealth_config[kConfFreeMemory].set = 1;  // of an earlier cycle
        return Outcome(readSystemHealthConfig(document.get(), state));
    }

    std::string FromPolicy(const char* json, int state = 0)
    {
        vxa_syshealth_config[kConfFreeMemory].set = 1;
        return Outcome(readSystemHealthPolicy(document.get(), state, json));
    }

    std::unique_ptr<VxaCore::CDom> document = host::MakeDocument();
};

constexpr const char* kFileReader = "SysHealth.conf readSystemHealthConfig: ";
constexpr const char* kPolicyReader = "SysHealth.conf readSystemHealthPolicy: ";
constexpr const char* kPolicyComplaint = "SysHealth.eng readSystemHealthPolicy: ";

std::string Rejected(const char* stored, const std::string& key, int maximum)
{
    return std::string("\nerror: value ") + stored + " for  " + key +
           " is out of range, max= " + std::to_string(maximum) + ".000000";
}

TEST_F(ConfigTest, FileCases)
{
    const std::string runq = "SYSTEM_RUNQ_PCT_THRESHOLD=";
    const std::string rejected = "0:, keep" + Rejected("0.000000", runq, 200);
    const std::pair<std::string, std::string> cases[] = {
        {"", "0:, keep"},
        {runq + "0", rejected},
        {runq + "-1\n", rejected},
        {runq + "much\n", rejected},
        {runq + "nan\n", rejected},
        {runq + "inf\n", rejected},
        {runq + "\n", rejected},
        {runq + "50\n" + runq + "250\n", "1: 5=50, keep" + Rejected("50.000000", runq, 200)},
        {runq + "50\n" + runq + "60\n", "2: 5=60, keep"},
        {" " + runq + "50\nsystem_runq_pct_threshold=50\n# comment\n", "0:, keep"},
        {runq + " 50 percent\nSYSTEM_MIN_ACT_DURATION=0x10", "2: 3=16 5=50, keep"},
        {runq + "0.1\n", "1: 5=0.100000001, keep"},  // single precision
        // A long line is read in pieces.
        {std::string(1023, 'x') + runq + "7\n" + std::string(1022, 'x') + runq + "8\n",
         "1: 5=7, keep"},
        {"SYSTEM_UNLOAD_DRIVER=0.5\n", "1: 10=0.5, keep"},
    };
    for (const auto& [text, outcome] : cases) EXPECT_EQ(FromFile(text), outcome) << text;
    sandbox::SetConfigFile(nullptr);
    EXPECT_EQ(Outcome(readSystemHealthConfig(document.get(), 0)), "0:");
    ASSERT_EQ(mkfifo("/etc/vx_filter.conf", 0600), 0);
    EXPECT_EQ(Outcome(readSystemHealthConfig(document.get(), 0)), "0:, keep");
}

TEST_F(ConfigTest, PolicyCases)
{
    const struct {
        const char* json;
        const char* outcome;
        int out_of_bounds;  // settings traced so
    } cases[] = {
        {"{}", "0:, keep", 0},
        {"[1, 2]", "0:, keep", 0},
        {R"({"SYS_CONF_CONN_REFUSAL_PORT": 8080, "SYS_THR_RUNQ": {"value": 0.1}} tail)",
         "2: 0=8080 5=0.1, keep", 0},
        // A plain number may be 0, a threshold not.
        {R"({"SYS_CONF_MIN_ACT_DURATION": 0, "SYS_THR_RUNQ": {"value": 0}})", "1: 3=0, keep", 1},
        {R"({"SYS_CONF_RECOVER_FACTOR": -1, "SYS_THR_RUNQ": {"value": -1},
             "SYS_THR_CONN_EST_PER_CPU": {"value": 1e999}})",
         "0:, keep", 3},
        {R"({"SYS_THR_RUNQ": 50, "SYS_THR_FREE_MEM": {"value": "10"},
             "SYS_THR_CONN_REFUSAL_PCT": {"limit": 1}, "SYS_THR_CONN_EST_PER_CPU": null})",
         "0:, keep", 0},
        // A plain setting that is no number counts as 0.
        {R"({"SYS_CONF_CONN_REFUSAL_PORT": "8080", "SYS_CONF_UNLOAD_DRIVER": {"value": 1}})",
         "2: 0=0 10=0, keep", 0},
        {R"({"sys_thr_runq": {"VALUE": 5}, "SYS_THR_RUNQ": {"value": 6}})", "1: 5=5, keep", 0},
    };
    sandbox::SetConfigFile("SYSTEM_RUNQ_PCT_THRESHOLD=77\n");  // never merged in
    for (const auto& c : cases) {
        EXPECT_EQ(FromPolicy(c.json), c.outcome) << c.json;
        int out_of_bounds = 0;
        for (const host::Record& trace : host::TakeTraces())
            out_of_bounds += trace.label == "SysHealth.eng";
        EXPECT_EQ(out_of_bounds, c.out_of_bounds) << c.json;
    }
}

TEST_F(ConfigTest, EverySettingIsTakenUpToItsMaximum)
{
    const struct {
        const char* file_key;
        const char* policy_key;
        int maximum;
    } rows[kConfRows] = {
        {"SYSTEM_CONNECTION_REFUSAL_PORT=", "SYS_CONF_CONN_REFUSAL_PORT", 65535},
        {"SYSTEM_CONNECTION_REFUSAL_OUTBOUND=", "SYS_CONF_CONN_REFUSAL_OUTBOUND", 1},
        {"SYSTEM_RECOVERY_FACTOR=", "SYS_CONF_RECOVER_FACTOR", 100},
        {"SYSTEM_MIN_ACT_DURATION=", "SYS_CONF_MIN_ACT_DURATION", 60},
        {"SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD=", "SYS_THR_CONN_REFUSAL_PCT", 100},
        {"SYSTEM_RUNQ_PCT_THRESHOLD=", "SYS_THR_RUNQ", 200},
        {"SYSTEM_CONNECTION_ESTABLISHED_PER_CPU=", "SYS_THR_CONN_EST_PER_CPU", 10000000},
        {"SYSTEM_TOTAL_SCAN_MBYTES_PER_CPU=", "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU", 100000},
        {"SYSTEM_MIN_FREE_MEM_PCT=", "SYS_THR_FREE_MEM", 25},
        {"SYSTEM_MAX_ITERATION_INTERVAL=", "SYS_THR_MAX_ITERATION_INVL", 60},
        {"SYSTEM_UNLOAD_DRIVER=", "SYS_CONF_UNLOAD_DRIVER", 1},
    };
    std::string file[2], policy[2] = {"{", "{"};  // at the maximum; beyond it
    std::string accepted = "11:", rejected = "0:, keep";
    Lines stored, out_of_bounds;
    for (int row = 0; row < kConfRows; ++row) {
        const auto& [file_key, policy_key, maximum] = rows[row];
        const bool plain = std::string(policy_key).rfind("SYS_CONF", 0) == 0;
        for (int beyond : {0, 1}) {
            const std::string value = std::to_string(maximum + beyond);
            file[beyond] += file_key + value + "\n";
            policy[beyond] += std::string(row == 0 ? "" : ",") + "\"" + policy_key +
                              "\": " + (plain ? value : "{\"value\": " + value + "}");
        }
        accepted += " " + std::to_string(row) + "=" + std::to_string(maximum);
        rejected += Rejected("0.000000", file_key, maximum);
        stored.push_back(std::string(kPolicyReader) + "stored " + policy_key + "  " +
                         std::to_string(maximum) + ".000000");
        out_of_bounds.push_back(std::string(kPolicyComplaint) + " value out of boundary [" +
                                policy_key + "]");
    }
    const std::string count = "readSystemHealthConfig returning 11";
    EXPECT_EQ(FromFile(file[0]), accepted + ", unload");
    EXPECT_EQ(host::TakeTraceLines(), Lines{kFileReader + count});
    EXPECT_EQ(FromFile(file[1]), rejected);
    EXPECT_EQ(host::TakeTraceLines(), Lines{});
    EXPECT_EQ(FromPolicy((policy[0] + "}").c_str()), accepted + ", unload");
    stored.push_back(kPolicyReader + count);
    EXPECT_EQ(host::TakeTraceLines(), stored);
    EXPECT_EQ(FromPolicy((policy[1] + "}").c_str()), "0:, keep");
    EXPECT_EQ(host::TakeTraceLines(), out_of_bounds);
    // In fail-open the thresholds on the port's connections are counted, but off.
    const std::string in_fail_open = "11: 0=65535 1=1 2=100 3=60 5=200 8=25 9=60 10=1, unload";
    EXPECT_EQ(FromFile(file[0], 1), in_fail_open);
    EXPECT_EQ(FromPolicy((policy[0] + "}").c_str(), 1), in_fail_open);
}

TEST_F(ConfigTest, UnparsablePolicyUnsetsAllAndNamesThePlace)
{
    const std::pair<const char*, const char*> cases[] = {
        {"{", ""}, {"%s", "%s"}, {"{\"SYS_THR_RUNQ\": }", "}"}, {"{\"a\": 1, \"b\" 2}", "2}"}};
    for (const auto& [json, place] : cases) {
        EXPECT_EQ(FromPolicy(json, 1), "0:") << json;
        EXPECT_EQ(host::TakeTraceLines(),
                  Lines{std::string(kPolicyComplaint) + "json parsing error [" + place + "]"});
    }
}

TEST_F(ConfigTest, PolicyRowOfUnknownKindIsRefused)
{
    vxa_syshealth_config[kConfRunQueue].json_kind = 32;
    EXPECT_EQ(FromPolicy(R"({"SYS_THR_RUNQ": {"value": 1}})"), "0:, keep");
    EXPECT_EQ(host::TakeTraceLines(),
              Lines{std::string(kPolicyComplaint) + "unsupport json type[64]"});
}

// ---- JSON log --------------------------------------------------------------------------

void Set(int row, double value)
{
    vxa_syshealth_config[row].value = value;
    vxa_syshealth_config[row].set = 1;
}

TEST_F(ConfigTest, LogHoldsWhatIsSetInThePolicysShape)
{
    EXPECT_TRUE(outputCloudConfig());
    EXPECT_EQ(sandbox::Read(sandbox::kConfigLog), "{\n}\n");
    Set(kConfPort, 8080);
    Set(kConfRunQueue, 0.5);
    vxa_syshealth_config[kConfFreeMemory].set = 2;  // only 1 counts as set
    EXPECT_TRUE(outputCloudConfig());
    const std::string written = sandbox::Read(sandbox::kConfigLog);
    EXPECT_EQ(written,
              "{\n\t\"SYS_CONF_CONN_REFUSAL_PORT\":\t8080,\n\t\"SYS_THR_RUNQ\":\t{\n"
              "\t\t\"value\":\t0.5\n\t}\n}\n");
    EXPECT_EQ(FromPolicy(written.c_str()), "2: 0=8080 5=0.5, keep");
}

constexpr const char* kLogComplaint = "SysHealth.eng outputCloudConfig: ";

TEST_F(ConfigTest, LogIsWrittenOnlyIntoAFileOfItsOwn)
{
    const fs::path log = sandbox::kConfigLog;
    const fs::path victim = log.parent_path() / "victim";
    std::ofstream(victim) << "kept";
    const std::function<void()> in_its_place[] = {
        [&] { fs::create_symlink(victim, log); },   [&] { fs::create_symlink("/dev/null", log); },
        [&] { fs::create_hard_link(victim, log); }, [&] { mkfifo(log.c_str(), 0600); },
        [&] { fs::create_directory(log); },         [&] { fs::remove_all(log.parent_path()); }};
    for (const auto& put : in_its_place) {
        fs::remove(log);
        put();
        EXPECT_FALSE(outputCloudConfig());
        EXPECT_EQ(TakeMessages(kLogComplaint),
                  Lines{"Failed to open file of json config for writing."});
        EXPECT_TRUE(!fs::exists(victim) || sandbox::Read(victim) == "kept");
    }
    fs::create_directories(log.parent_path());
    const mode_t mask = umask(0);
    EXPECT_TRUE(outputCloudConfig());
    umask(mask);
    EXPECT_EQ(fs::status(log).permissions(), fs::perms(0644));
}

TEST_F(ConfigTest, LogReplacesLongerContents)
{
    for (const std::size_t size : {5, 5000, 100000}) {
        std::ofstream(sandbox::kConfigLog) << std::string(size, 'x');
        EXPECT_TRUE(outputCloudConfig());
        EXPECT_EQ(sandbox::Read(sandbox::kConfigLog), "{\n}\n") << size;
    }
}

TEST_F(ConfigTest, AFailingWriteIsTracedAndReported)
{
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    fs::remove(sandbox::kConfigLog);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &none);
    EXPECT_FALSE(outputCloudConfig());
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(TakeMessages(kLogComplaint), Lines{"Failed to write json config to file"});
}

int s_json_allocations_left = 0;

void* FailingMalloc(std::size_t size)
{
    return s_json_allocations_left-- > 0 ? std::malloc(size) : nullptr;
}

TEST_F(ConfigTest, LogSurvivesEveryFailedAllocation)
{
    Set(kConfPort, 8080);
    Set(kConfRunQueue, 50);
    cJSON_Hooks hooks{FailingMalloc, std::free};
    cJSON_InitHooks(&hooks);
    bool written = false;
    Lines complaints;  // without repetitions
    for (int allowed = 0; !written && allowed < 100; ++allowed) {
        s_json_allocations_left = allowed;
        written = outputCloudConfig();
        const Lines traces = TakeMessages(kLogComplaint);
        EXPECT_EQ(traces.size(), written ? 0u : 1u);
        if (!traces.empty() && (complaints.empty() || traces[0] != complaints.back()))
            complaints.push_back(traces[0]);
    }
    cJSON_InitHooks(nullptr);
    EXPECT_TRUE(written);
    EXPECT_EQ(complaints, (Lines{"Fail to cJSON_CreateObject for root",
                                 "Fail to cJSON_CreateObject for object", "Fail to print JSON"}));
}

TEST_F(ConfigTest, DisableScanMetricSwitchesThreeThresholdsOff)
{
    for (int row = 0; row < kConfRows; ++row) Set(row, 1);
    EXPECT_EQ(DisableScanMetric(), 0);
    EXPECT_EQ(InForce(), " 0=1 1=1 2=1 3=1 5=1 8=1 9=1 10=1");
}

}  // namespace
