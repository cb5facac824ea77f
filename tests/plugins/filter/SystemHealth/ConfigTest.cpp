// Both configuration readers and the JSON log of what is in force.

#include <cjson/cJSON.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>

#include "Fixture.h"

namespace {

namespace fs = std::filesystem;

using Settings = std::map<int, double>;

constexpr const char* kUnloadKey = "vxp.filter.FailOpenUnloadDriver";

class ConfigTest : public HealthTest {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        HealthTest::SetUp();
    }

    // The rows that are set, with their values.
    static Settings InForce()
    {
        Settings settings;
        for (int row = 0; row < kConfRows; ++row)
            if (vxa_syshealth_config[row].set == 1) settings[row] = vxa_syshealth_config[row].value;
        return settings;
    }

    // What was written to the document: nothing, or the one setting.
    std::optional<bool> Unload()
    {
        const auto settings = host::TakeSettings(*document);
        if (settings.empty()) return std::nullopt;
        EXPECT_EQ(settings.size(), 1u);
        EXPECT_EQ(settings[0].first, kUnloadKey);
        return settings[0].second;
    }

    std::unique_ptr<VxaCore::CDom> document = host::MakeDocument();
};

std::string Rejected(const char* stored, const char* key, const char* maximum)
{
    return std::string("error: value ") + stored + " for  " + key +
           " is out of range, max= " + maximum;
}

TEST_F(ConfigTest, FileCases)
{
    constexpr const char* runq = "SYSTEM_RUNQ_PCT_THRESHOLD=";
    struct Case {
        const char* name;
        std::optional<std::string> text;
        int state;
        int count;
        Settings settings;
        std::optional<bool> unload;
        Lines log;
    };
    const std::string thresholds =
        "SYSTEM_CONNECTION_REFUSAL_PORT=80\nSYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD=1\n"
        "SYSTEM_CONNECTION_ESTABLISHED_PER_CPU=2\nSYSTEM_TOTAL_SCAN_MBYTES_PER_CPU=3\n"
        "SYSTEM_RUNQ_PCT_THRESHOLD=4\n";
    const Case cases[] = {
        {"no file", {}, 0, 0, {}, {}, {}},
        {"no file in fail-open", {}, 1, 0, {}, {}, {}},
        {"empty file", "", 0, 0, {}, false, {}},
        {"zero",
         "SYSTEM_MIN_ACT_DURATION=0\n",
         0,
         0,
         {},
         false,
         {Rejected("0.000000", "SYSTEM_MIN_ACT_DURATION=", "60.000000")}},
        {"negative, no number, no finite number",
         "SYSTEM_RUNQ_PCT_THRESHOLD=-1\nSYSTEM_RUNQ_PCT_THRESHOLD=much\n"
         "SYSTEM_RUNQ_PCT_THRESHOLD=nan\nSYSTEM_RUNQ_PCT_THRESHOLD=inf\n"
         "SYSTEM_RUNQ_PCT_THRESHOLD=\n",
         0,
         0,
         {},
         false,
         Lines(5, Rejected("0.000000", runq, "200.000000"))},
        {"a rejected value leaves the one before it",
         "SYSTEM_RUNQ_PCT_THRESHOLD=50\nSYSTEM_RUNQ_PCT_THRESHOLD=250\n",
         0,
         1,
         {{5, 50}},
         false,
         {Rejected("50.000000", runq, "200.000000")}},
        {"a repeated key counts each time, the last wins",
         "SYSTEM_RUNQ_PCT_THRESHOLD=50\nSYSTEM_RUNQ_PCT_THRESHOLD=60\n",
         0,
         2,
         {{5, 60}},
         false,
         {}},
        {"leading blank, lower case, other texts",
         " SYSTEM_RUNQ_PCT_THRESHOLD=50\nsystem_runq_pct_threshold=50\n# comment\n"
         "SYSTEM_RUNQ_PCT_THRESHOLD =50\nSYSTEM_RUNQ_PCT_THRESHOLD\n",
         0,
         0,
         {},
         false,
         {}},
        {"blank before the number, text behind it, no line end",
         "SYSTEM_RUNQ_PCT_THRESHOLD= 50 percent\nSYSTEM_MIN_ACT_DURATION=0x10",
         0,
         2,
         {{5, 50}, {3, 16}},
         false,
         {}},
        {"single precision",
         "SYSTEM_RUNQ_PCT_THRESHOLD=0.1\n",
         0,
         1,
         {{5, static_cast<double>(0.1f)}},
         false,
         {}},
        {"a long line is read in pieces",
         std::string(1023, 'x') + "SYSTEM_RUNQ_PCT_THRESHOLD=7\n" + std::string(1022, 'x') +
             "SYSTEM_RUNQ_PCT_THRESHOLD=8\n",
         0,
         1,
         {{5, 7}},
         false,
         {}},
        {"half an unload", "SYSTEM_UNLOAD_DRIVER=0.5\n", 0, 1, {{10, 0.5}}, false, {}},
        {"out of fail-open",
         thresholds,
         0,
         5,
         {{0, 80}, {4, 1}, {5, 4}, {6, 2}, {7, 3}},
         false,
         {}},
        {"in fail-open", thresholds, 1, 5, {{0, 80}, {5, 4}}, false, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        sandbox::SetConfigFile(c.text ? c.text->c_str() : nullptr);
        vxa_syshealth_config[kConfFreeMemory].set = 1;  // of an earlier cycle
        EXPECT_EQ(readSystemHealthConfig(document.get(), c.state), c.count);
        EXPECT_EQ(InForce(), c.settings);
        EXPECT_EQ(Unload(), c.unload);
        EXPECT_EQ(host::TakeLog(), c.log);
        const Lines traces = {
            "SysHealth.conf readSystemHealthConfig: readSystemHealthConfig "
            "returning " +
            std::to_string(c.count)};
        EXPECT_EQ(host::TakeTraceLines(), c.count == 0 ? Lines{} : traces);
    }
}

TEST_F(ConfigTest, EverySettingIsTakenUpToItsMaximum)
{
    const struct {
        const char* key;
        int maximum;
    } rows[kConfRows] = {{"SYSTEM_CONNECTION_REFUSAL_PORT=", 65535},
                         {"SYSTEM_CONNECTION_REFUSAL_OUTBOUND=", 1},
                         {"SYSTEM_RECOVERY_FACTOR=", 100},
                         {"SYSTEM_MIN_ACT_DURATION=", 60},
                         {"SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD=", 100},
                         {"SYSTEM_RUNQ_PCT_THRESHOLD=", 200},
                         {"SYSTEM_CONNECTION_ESTABLISHED_PER_CPU=", 10000000},
                         {"SYSTEM_TOTAL_SCAN_MBYTES_PER_CPU=", 100000},
                         {"SYSTEM_MIN_FREE_MEM_PCT=", 25},
                         {"SYSTEM_MAX_ITERATION_INTERVAL=", 60},
                         {"SYSTEM_UNLOAD_DRIVER=", 1}};
    std::string accepted, rejected;
    Settings settings;
    Lines log;
    for (int row = 0; row < kConfRows; ++row) {
        const std::string maximum = std::to_string(rows[row].maximum);
        accepted += rows[row].key + maximum + "\n";
        rejected += rows[row].key + std::to_string(rows[row].maximum + 1) + "\n";
        settings[row] = rows[row].maximum;
        log.push_back(Rejected("0.000000", rows[row].key, (maximum + ".000000").c_str()));
    }
    sandbox::SetConfigFile(accepted.c_str());
    EXPECT_EQ(readSystemHealthConfig(document.get(), 0), 11);
    EXPECT_EQ(InForce(), settings);
    EXPECT_EQ(Unload(), true);
    EXPECT_EQ(host::TakeLog(), Lines{});
    sandbox::SetConfigFile(rejected.c_str());
    EXPECT_EQ(readSystemHealthConfig(document.get(), 0), 0);
    EXPECT_EQ(InForce(), Settings{});
    EXPECT_EQ(Unload(), false);
    EXPECT_EQ(host::TakeLog(), log);
}

std::string Stored(const char* text)
{
    return std::string("SysHealth.conf readSystemHealthPolicy: stored ") + text;
}

std::string OutOfBoundary(const char* key)
{
    return std::string("SysHealth.eng readSystemHealthPolicy:  value out of boundary [") + key +
           "]";
}

TEST_F(ConfigTest, PolicyCases)
{
    struct Case {
        const char* name;
        const char* json;
        int state;
        int count;
        Settings settings;
        bool unload;
        Lines traces;  // without the closing line
    };
    const Case cases[] = {
        {"empty object", "{}", 0, 0, {}, false, {}},
        {"no object", "[1, 2]", 0, 0, {}, false, {}},
        {"a number and an object",
         R"({"SYS_CONF_CONN_REFUSAL_PORT": 8080, "SYS_THR_RUNQ": {"value": 2.5}})",
         0,
         2,
         {{0, 8080}, {5, 2.5}},
         false,
         {Stored("SYS_CONF_CONN_REFUSAL_PORT  8080.000000"), Stored("SYS_THR_RUNQ  2.500000")}},
        {"zero: a plain number may be, a threshold not",
         R"({"SYS_CONF_MIN_ACT_DURATION": 0, "SYS_THR_RUNQ": {"value": 0}})",
         0,
         1,
         {{3, 0}},
         false,
         {Stored("SYS_CONF_MIN_ACT_DURATION  0.000000"), OutOfBoundary("SYS_THR_RUNQ")}},
        {"out of bounds",
         R"({"SYS_CONF_MIN_ACT_DURATION": 61, "SYS_CONF_RECOVER_FACTOR": -1,
             "SYS_THR_FREE_MEM": {"value": 26}, "SYS_THR_RUNQ": {"value": -1},
             "SYS_THR_CONN_EST_PER_CPU": {"value": 1e999}})",
         0,
         0,
         {},
         false,
         {OutOfBoundary("SYS_CONF_RECOVER_FACTOR"), OutOfBoundary("SYS_CONF_MIN_ACT_DURATION"),
          OutOfBoundary("SYS_THR_RUNQ"), OutOfBoundary("SYS_THR_CONN_EST_PER_CPU"),
          OutOfBoundary("SYS_THR_FREE_MEM")}},
        {"not the kind expected",
         R"({"SYS_THR_RUNQ": 50, "SYS_THR_FREE_MEM": {"value": "10"},
             "SYS_THR_CONN_REFUSAL_PCT": {"limit": 1}, "SYS_THR_CONN_EST_PER_CPU": null})",
         0,
         0,
         {},
         false,
         {}},
        {"a plain setting that is no number counts as 0",
         R"({"SYS_CONF_CONN_REFUSAL_PORT": "8080", "SYS_CONF_UNLOAD_DRIVER": {"value": 1}})",
         0,
         2,
         {{0, 0}, {10, 0}},
         false,
         {Stored("SYS_CONF_CONN_REFUSAL_PORT  0.000000"),
          Stored("SYS_CONF_UNLOAD_DRIVER  0.000000")}},
        {"case of member names, first of repeated ones",
         R"({"sys_thr_runq": {"VALUE": 5}, "SYS_THR_RUNQ": {"value": 6}})",
         0,
         1,
         {{5, 5}},
         false,
         {Stored("SYS_THR_RUNQ  5.000000")}},
        {"double precision, text behind the object",
         R"({"SYS_THR_RUNQ": {"value": 0.1}} tail)",
         0,
         1,
         {{5, 0.1}},
         false,
         {Stored("SYS_THR_RUNQ  0.100000")}},
        {"unload",
         R"({"SYS_CONF_UNLOAD_DRIVER": 1})",
         0,
         1,
         {{10, 1}},
         true,
         {Stored("SYS_CONF_UNLOAD_DRIVER  1.000000")}},
        {"in fail-open",
         R"({"SYS_CONF_CONN_REFUSAL_PORT": 80, "SYS_THR_CONN_REFUSAL_PCT": {"value": 1},
             "SYS_THR_CONN_EST_PER_CPU": {"value": 2},
             "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU": {"value": 3}, "SYS_THR_FREE_MEM": {"value": 4}})",
         1,
         5,
         {{0, 80}, {8, 4}},
         false,
         {Stored("SYS_CONF_CONN_REFUSAL_PORT  80.000000"),
          Stored("SYS_THR_CONN_REFUSAL_PCT  1.000000"),
          Stored("SYS_THR_CONN_EST_PER_CPU  2.000000"),
          Stored("SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU  3.000000"),
          Stored("SYS_THR_FREE_MEM  4.000000")}},
    };
    sandbox::SetConfigFile("SYSTEM_RUNQ_PCT_THRESHOLD=77\n");  // never merged in
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        vxa_syshealth_config[kConfFreeMemory].set = 1;
        EXPECT_EQ(readSystemHealthPolicy(document.get(), c.state, c.json), c.count);
        EXPECT_EQ(InForce(), c.settings);
        EXPECT_EQ(Unload(), c.unload);
        Lines traces = c.traces;
        if (c.count > 0)
            traces.push_back(
                "SysHealth.conf readSystemHealthPolicy: readSystemHealthConfig "
                "returning " +
                std::to_string(c.count));
        EXPECT_EQ(host::TakeTraceLines(), traces);
        EXPECT_EQ(host::TakeLog(), Lines{});
    }
}

TEST_F(ConfigTest, UnparsablePolicyUnsetsAllAndNamesThePlace)
{
    for (const char* json :
         {"{", "nonsense", "{\"SYS_THR_RUNQ\": }", "{\"a\": 1, \"b\" 2}", "%s"}) {
        SCOPED_TRACE(json);
        vxa_syshealth_config[kConfRunQueue].set = 1;
        ASSERT_EQ(cJSON_Parse(json), nullptr);
        const std::string place = cJSON_GetErrorPtr();
        EXPECT_EQ(readSystemHealthPolicy(document.get(), 1, json), 0);
        EXPECT_EQ(InForce(), Settings{});
        EXPECT_EQ(Unload(), std::nullopt);
        EXPECT_EQ(host::TakeTraceLines(),
                  Lines{"SysHealth.eng readSystemHealthPolicy: json parsing "
                        "error [" +
                        place + "]"});
    }
}

TEST_F(ConfigTest, PolicyRowOfUnknownKindIsRefused)
{
    vxa_syshealth_config[kConfRunQueue].json_kind = 32;
    EXPECT_EQ(readSystemHealthPolicy(document.get(), 0, R"({"SYS_THR_RUNQ": {"value": 1}})"), 0);
    EXPECT_EQ(InForce(), Settings{});
    EXPECT_EQ(host::TakeTraceLines(),
              Lines{"SysHealth.eng readSystemHealthPolicy: unsupport json type[64]"});
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
    Set(kConfFreeMemory, 9);
    vxa_syshealth_config[kConfFreeMemory].set = 2;  // only 1 counts as set
    EXPECT_TRUE(outputCloudConfig());
    const std::string written = sandbox::Read(sandbox::kConfigLog);
    EXPECT_EQ(written,
              "{\n\t\"SYS_CONF_CONN_REFUSAL_PORT\":\t8080,\n\t\"SYS_THR_RUNQ\":\t{\n"
              "\t\t\"value\":\t0.5\n\t}\n}\n");
    EXPECT_EQ(readSystemHealthPolicy(document.get(), 0, written.c_str()), 2);
    EXPECT_EQ(InForce(), (Settings{{kConfPort, 8080}, {kConfRunQueue, 0.5}}));
}

TEST_F(ConfigTest, LogFailuresAreTracedAndReported)
{
    const fs::path log = sandbox::kConfigLog;
    const struct {
        const char* message;
        void (*prepare)(const fs::path&);
    } cases[] = {
        {"Failed to write json config to file",
         [](const fs::path& path) {
             fs::remove(path);
             fs::create_symlink("/dev/full", path);
         }},
        {"Failed to open file of json config for writing.",
         [](const fs::path& path) { fs::remove_all(path.parent_path()); }},
    };
    for (const auto& c : cases) {
        c.prepare(log);
        EXPECT_FALSE(outputCloudConfig());
        EXPECT_EQ(host::TakeTraceLines(),
                  Lines{std::string("SysHealth.eng outputCloudConfig: ") + c.message});
    }
    fs::create_directories(log.parent_path());
    EXPECT_TRUE(outputCloudConfig());
}

int s_json_allocations_left = 0;
int s_json_blocks = 0;

void* FailingMalloc(std::size_t size)
{
    if (s_json_allocations_left-- <= 0) return nullptr;
    ++s_json_blocks;
    return std::malloc(size);
}

void CountingFree(void* block)
{
    if (block != nullptr) --s_json_blocks;
    std::free(block);
}

TEST_F(ConfigTest, LogSurvivesEveryFailedAllocation)
{
    Set(kConfPort, 8080);
    Set(kConfRunQueue, 50);
    cJSON_Hooks hooks{FailingMalloc, CountingFree};
    cJSON_InitHooks(&hooks);
    bool written = false;
    Lines first_words;
    for (int allowed = 0; !written && allowed < 100; ++allowed) {
        s_json_allocations_left = allowed;
        written = outputCloudConfig();
        EXPECT_EQ(s_json_blocks, 0) << "after " << allowed << " allocations";
        const Lines traces = host::TakeTraceLines();
        EXPECT_EQ(traces.size(), written ? 0u : 1u);
        if (!traces.empty() && (first_words.empty() || traces[0] != first_words.back()))
            first_words.push_back(traces[0]);
    }
    cJSON_InitHooks(nullptr);
    EXPECT_TRUE(written);
    EXPECT_EQ(first_words,
              (Lines{"SysHealth.eng outputCloudConfig: Fail to cJSON_CreateObject for root",
                     "SysHealth.eng outputCloudConfig: Fail to cJSON_CreateObject for object",
                     "SysHealth.eng outputCloudConfig: Fail to print JSON"}));
}

TEST_F(ConfigTest, DisableScanMetricSwitchesThreeThresholdsOff)
{
    for (int row = 0; row < kConfRows; ++row) Set(row, 1);
    EXPECT_EQ(DisableScanMetric(), 0);
    EXPECT_EQ(InForce(),
              (Settings{{0, 1}, {1, 1}, {2, 1}, {3, 1}, {5, 1}, {8, 1}, {9, 1}, {10, 1}}));
}

}  // namespace
