// Both names of fopen are defined here; with this macro the headers make them one.
#undef _FILE_OFFSET_BITS

#include "Stage.h"

#include <dlfcn.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vxi/engine.h"

namespace stage {
namespace {

std::atomic<Commands> s_commands{Commands::kReal};
// In memory: rewritten thousands of times a second, a file on a disk would wait for its own
// former contents to be written back, which no cycle meets that comes every few seconds.
char s_config_log[] = "/dev/shm/filter_bench.XXXXXX";

template <typename Function>
Function Next(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

using Open = FILE* (*)(const char*, const char*);

// A stream with a text of this thread's own to read.
FILE* Text(const char* text)
{
    static thread_local char buffer[256];
    std::snprintf(buffer, sizeof buffer, "%s", text);
    return fmemopen(buffer, std::strlen(buffer), "r");
}

FILE* SimulatedCommand(const char* command)
{
    vxi_sim_machine_s machine;
    vxi_sim_machine(&machine);
    char text[128];
    if (std::strcmp(command, "nproc") == 0)
        std::snprintf(text, sizeof text, "%u\n", machine.cpu_count);
    else
        std::snprintf(text, sizeof text, " up 1 day, load average: %.2f, 1.00, 1.00\n",
                      machine.run_queue_length);
    return Text(text);
}

FILE* SimulatedMemory()
{
    vxi_sim_machine_s machine;
    vxi_sim_machine(&machine);
    char text[160];
    std::snprintf(text, sizeof text, "MemTotal: %llu kB\nMemFree: %llu kB\nBuffers: 0 kB\n",
                  static_cast<unsigned long long>(machine.memory_total_kb),
                  static_cast<unsigned long long>(machine.memory_free_kb));
    return Text(text);
}

void RemoveConfigLog()
{
    unlink(s_config_log);
}

FILE* OpenFile(Open open, const char* path, const char* mode)
{
    if (std::strcmp(path, "/var/opt/vx_agent/diag/vx_filter_json.log") == 0)
        return open(s_config_log, mode);
    if (s_commands == Commands::kSimulated && std::strcmp(path, "/proc/meminfo") == 0)
        return SimulatedMemory();
    return open(path, mode);
}

}  // namespace

void Prepare()
{
    const int descriptor = mkstemp(s_config_log);
    if (descriptor < 0) {
        std::perror(s_config_log);
        std::exit(1);
    }
    close(descriptor);
    std::atexit(RemoveConfigLog);
}

void UseCommands(Commands commands)
{
    s_commands = commands;
}

const char* EnterNetworkNamespace()
{
    return unshare(CLONE_NEWNET) == 0 ? "" : std::strerror(errno);
}

}  // namespace stage

#define STAGE_EXPORT extern "C" __attribute__((visibility("default")))

STAGE_EXPORT FILE* popen(const char* command, const char* mode)
{
    static const auto next = stage::Next<stage::Open>("popen");
    switch (stage::s_commands) {
        case stage::Commands::kSimulated:
            return stage::SimulatedCommand(command);
        case stage::Commands::kCanned:
            return stage::Text(std::strcmp(command, "nproc") == 0
                                   ? "4\n"
                                   : " 10:00:00 up 1 day, load average: 0.52, 0.58, 0.59\n");
        default:
            return next(command, mode);
    }
}

// pclose of the C library closes an ordinary stream as well.
STAGE_EXPORT FILE* fopen(const char* path, const char* mode)
{
    static const auto next = stage::Next<stage::Open>("fopen");
    return stage::OpenFile(next, path, mode);
}

STAGE_EXPORT FILE* fopen64(const char* path, const char* mode)
{
    static const auto next = stage::Next<stage::Open>("fopen64");
    return stage::OpenFile(next, path, mode);
}
