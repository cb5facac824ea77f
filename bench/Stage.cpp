// Both names of fopen and open are defined here; with this macro the headers make them one.
#undef _FILE_OFFSET_BITS

#include "Stage.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vxi/engine.h"

namespace stage {
namespace {

std::atomic<Commands> s_commands{Commands::kReal};
char s_config_log[] = "/tmp/filter_bench.XXXXXX";

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
    if (s_commands == Commands::kSimulated && std::strcmp(path, "/proc/meminfo") == 0)
        return SimulatedMemory();
    return open(path, mode);
}

// The plugin's JSON log is this program's temporary file.
int OpenDescriptor(int (*open)(const char*, int, ...), const char* path, int flags, mode_t mode)
{
    const bool log = std::strcmp(path, "/var/opt/vx_agent/diag/vx_filter_json.log") == 0;
    return open(log ? s_config_log : path, flags, mode);
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

// The mode is there only for a file that may be created.
#define STAGE_OPEN(name)                                                                 \
    STAGE_EXPORT int name(const char* path, int flags, ...)                              \
    {                                                                                    \
        static const auto next = stage::Next<int (*)(const char*, int, ...)>(#name);     \
        va_list arguments;                                                               \
        va_start(arguments, flags);                                                      \
        const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; \
        const mode_t mode = creates ? va_arg(arguments, mode_t) : 0;                     \
        va_end(arguments);                                                               \
        return stage::OpenDescriptor(next, path, flags, mode);                           \
    }

STAGE_OPEN(open)
STAGE_OPEN(open64)
