// Benchmarks of the replay of a record, and what it is measured against.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "LuaBench.h"

namespace {

using lua_bench::Measure;

char s_record[] = "/tmp/replay_bench.XXXXXX";

void RemoveRecord()
{
    unlink(s_record);
}

void MakeFile()
{
    const int descriptor = mkstemp(s_record);
    if (descriptor < 0) lua_bench::Die("no temporary file");
    close(descriptor);
    std::atexit(RemoveRecord);
}

constexpr const char* kPrepare =
    "local script = package.searchpath('make_record', package.path) "
    "assert(os.execute((\"lua5.2 '%s' 8640 7 >%s\"):format(script, record))) "
    "plain = require 'plain_replay' "
    "policy = { SYS_CONF_CONN_REFUSAL_PORT = 443, SYS_THR_CONN_REFUSAL_PCT = 30, "
    "           SYS_THR_RUNQ = 8, SYS_THR_FREE_MEM = 0.5 } "
    "policies = {} for i = 1, 100 do policies[i] = policy end "
    "function replay(list) "
    "    local pass = assert(vxa.replay(record, list)) "
    "    repeat until assert(pass:read()) == 1 "
    "    return pass:result().outcomes[#list].entries "
    "end "
    "expected = plain(record, policy) assert(expected > 0)";

void ReplayDay(benchmark::State& state)
{
    Measure(state, "assert(replay { policy } == expected)");
}

void ReplayDay100(benchmark::State& state)
{
    Measure(state, "assert(replay(policies) == expected)");
}

void PlainReplayDay(benchmark::State& state)
{
    Measure(state, "assert(plain(record, policy) == expected)");
}

BENCHMARK(ReplayDay)->UseRealTime();
BENCHMARK(ReplayDay100)->UseRealTime();
BENCHMARK(PlainReplayDay)->UseRealTime();

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    MakeFile();
    lua_bench::Open();
    lua_pushstring(lua_bench::State(), s_record);
    lua_setglobal(lua_bench::State(), "record");
    lua_bench::Run(kPrepare);
    benchmark::RunSpecifiedBenchmarks();
    lua_bench::Close();
    return 0;
}
