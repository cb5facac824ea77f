// Benchmarks of the linux engine's tables: a diagnostic package against the tools that list the
// same tables, and the processor time of a feedback sample.
//
// diagnostics_bench FLOWS: runs in a new network namespace with FLOWS conntrack entries and 1000
// blacklisted addresses.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "Environment.h"
#include "LuaBench.h"
#include "vxi/engine.h"

namespace {

constexpr unsigned int kBlacklisted = 1000;

std::string s_problem;  // why nothing can be measured; empty if it can
char s_archive[] = "/dev/shm/diagnostics_bench.XXXXXX";

bool RunWithInput(const char* command, const std::string& input)
{
    FILE* pipe = popen(command, "we");
    if (!pipe) return false;
    const bool written = std::fwrite(input.data(), 1, input.size(), pipe) == input.size();
    return pclose(pipe) == 0 && written;
}

// For nft.
std::string Ruleset()
{
    std::string rules =
        "table inet bench {\n set blacklist { type ipv4_addr; elements = { 172.16.0.1";
    for (unsigned int i = 1; i < kBlacklisted; ++i)
        rules += ", 172.16." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1);
    return rules +
           " } }\n chain c { type filter hook input priority 0; ip saddr @blacklist drop; "
           "ct state invalid counter; }\n}\n";
}

// For conntrack. Every fourth entry is of UDP.
std::string ConntrackEntries(unsigned int count)
{
    std::string entries;
    char line[400];
    for (unsigned int i = 0; i < count; ++i) {
        char source[20];
        std::snprintf(source, sizeof source, "10.1.%u.%u", i / 250 % 250, i % 250 + 1);
        const unsigned int port = 1024 + i % 60000;
        const bool udp = i % 4 == 0;
        std::snprintf(line, sizeof line,
                      "-A -t 3000 -u SEEN_REPLY,ASSURED -s %s -d 10.2.0.1 -r 10.2.0.1 -q %s -p %s "
                      "--sport %u --dport 443 --reply-port-src 443 --reply-port-dst %u%s\n",
                      source, source, udp ? "udp" : "tcp", port, port,
                      udp ? "" : " --state ESTABLISHED");
        entries += line;
    }
    return entries;
}

// Returns the reason if it failed.
std::string Prepare(unsigned int flows)
{
    if (const char* error = environment::EnterNetworkNamespace(); *error != '\0')
        return std::string("no network namespace: ") + error;
    if (!RunWithInput("nft -f -", Ruleset())) return "nft could not set up the blacklist";
    if (!RunWithInput("conntrack -R - >/dev/null 2>&1", ConntrackEntries(flows)))
        return "conntrack could not make the entries";
    return "";
}

void Package(benchmark::State& state)
{
    if (!s_problem.empty()) return state.SkipWithError(s_problem.c_str());
    lua_bench::Measure(state,
                       "local zip = vxa.ZipOutputStream(archive) "
                       "assert(filter.AddDriverDiagnostics(doc, handle, zip)) assert(zip:close())");
}

void Tools(benchmark::State& state)
{
    if (!s_problem.empty()) return state.SkipWithError(s_problem.c_str());
    const std::string command =
        "(conntrack -L -p udp; conntrack -L -p tcp; nft -j list ruleset) 2>/dev/null | gzip > " +
        std::string(s_archive);
    for (auto _ : state)
        if (std::system(command.c_str()) != 0) return state.SkipWithError("the tools failed");
}

// With a new script each time, to which all flows are new, so that it feeds them all.
void Sample(benchmark::State& state)
{
    if (!s_problem.empty()) return state.SkipWithError(s_problem.c_str());
    const int prepare = lua_bench::Compile(
        "script = require('filter').feedback { is_local = function() return false end } "
        "collectgarbage()");
    const int sample = lua_bench::Compile("script:sample(assert(handle:connections()))");
    for (auto _ : state) {
        lua_bench::Call(prepare);
        const std::clock_t start = std::clock();
        lua_bench::Call(sample);
        state.SetIterationTime(static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC);
    }
}

BENCHMARK(Sample)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(Package)->UseRealTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(Tools)->UseRealTime()->Iterations(1)->Unit(benchmark::kMillisecond);

// Checks that a package has all entries and that no event was written.
void CheckPackage(unsigned int flows)
{
    lua_pushinteger(lua_bench::State(), static_cast<lua_Integer>(flows));
    lua_setglobal(lua_bench::State(), "flows");
    lua_bench::Run(
        "local zip = vxa.ZipOutputStream(archive) "
        "assert(filter.AddDriverDiagnostics(doc, handle, zip)) assert(zip:close()) "
        "assert(#doc:events() == 0) "
        "local pipe = io.popen('unzip -p ' .. archive .. ' vxa_conn_track.txt vxa_blacklist.txt') "
        "local lines = 0 for _ in pipe:lines() do lines = lines + 1 end pipe:close() "
        "assert(lines >= flows + 1000, lines)");
}

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    const unsigned int flows = argc == 2 ? static_cast<unsigned int>(std::atoi(argv[1])) : 0;
    if (flows == 0) lua_bench::Die("usage: diagnostics_bench [OPTION...] FLOWS");
    const int descriptor = mkstemp(s_archive);
    if (descriptor < 0) lua_bench::Die("cannot make a file in /dev/shm");
    close(descriptor);
    s_problem = Prepare(flows);
    vxi_engine_select("linux");
    lua_bench::Open();
    lua_pushstring(lua_bench::State(), s_archive);
    lua_setglobal(lua_bench::State(), "archive");
    lua_bench::Run("handle = assert(vxa.open())");
    if (s_problem.empty()) CheckPackage(flows);
    benchmark::RunSpecifiedBenchmarks();
    lua_bench::Close();
    unlink(s_archive);
    return 0;
}
