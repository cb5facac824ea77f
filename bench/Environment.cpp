// Environment of the filter module in a benchmark: commands, files and network namespace.

// With this macro the headers rename fopen and open to fopen64 and open64; both are defined here.
#undef _FILE_OFFSET_BITS

#include "Environment.h"

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

#include "Interpose.h"
#include "vxi/engine.h"

namespace environment {
namespace {

std::atomic<Commands> s_commands{Commands::kReal};
char s_config_log[] = "/tmp/filter_bench.XXXXXX";

template <typename Function>
Function Next(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

using Open = FILE* (*)(const char*, const char*);

// Returns a stream that reads a copy of the string; one per thread at a time.
FILE* StringStream(const char* string)
{
    static thread_local char buffer[256];
    std::snprintf(buffer, sizeof buffer, "%s", string);
    return fmemopen(buffer, std::strlen(buffer), "r");
}

FILE* SimulatedCommand(const char* command)
{
    vxi_sim_machine_s machine;
    vxi_sim_machine(&machine);
    char output[128];
    if (std::strcmp(command, "nproc") == 0)
        std::snprintf(output, sizeof output, "%u\n", machine.cpu_count);
    else
        std::snprintf(output, sizeof output, " up 1 day, load average: %.2f, 1.00, 1.00\n",
                      machine.run_queue_length);
    return StringStream(output);
}

FILE* SimulatedMemory()
{
    vxi_sim_machine_s machine;
    vxi_sim_machine(&machine);
    char output[160];
    std::snprintf(output, sizeof output, "MemTotal: %llu kB\nMemFree: %llu kB\nBuffers: 0 kB\n",
                  static_cast<unsigned long long>(machine.memory_total_kb),
                  static_cast<unsigned long long>(machine.memory_free_kb));
    return StringStream(output);
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

// Opens the temporary file instead of the module's JSON diagnostic file.
int OpenDescriptor(int (*open)(const char*, int, ...), const char* path, int flags, mode_t mode)
{
    const bool is_log = std::strcmp(path, "/var/opt/vx_agent/diag/vx_filter_json.log") == 0;
    return open(is_log ? s_config_log : path, flags, mode);
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

}  // namespace environment

// The caller may close a faked stream with pclose: in glibc it is the same as fclose
// (libio/pclose.c).
BENCH_INTERPOSE FILE* popen(const char* command, const char* mode)
{
    static const auto kNext = environment::Next<environment::Open>("popen");
    switch (environment::s_commands) {
        case environment::Commands::kSimulated:
            return environment::SimulatedCommand(command);
        case environment::Commands::kFixed:
            return environment::StringStream(
                std::strcmp(command, "nproc") == 0
                    ? "4\n"
                    : " 10:00:00 up 1 day, load average: 0.52, 0.58, 0.59\n");
        default:
            return kNext(command, mode);
    }
}

BENCH_INTERPOSE FILE* fopen(const char* path, const char* mode)
{
    static const auto kNext = environment::Next<environment::Open>("fopen");
    return environment::OpenFile(kNext, path, mode);
}

BENCH_INTERPOSE FILE* fopen64(const char* path, const char* mode)
{
    static const auto kNext = environment::Next<environment::Open>("fopen64");
    return environment::OpenFile(kNext, path, mode);
}

// The mode argument is present only if the file may be created.
#define INTERPOSE_OPEN(name)                                                                \
    BENCH_INTERPOSE int name(const char* path, int flags, ...)                              \
    {                                                                                       \
        static const auto kNext = environment::Next<int (*)(const char*, int, ...)>(#name); \
        va_list arguments;                                                                  \
        va_start(arguments, flags);                                                         \
        const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;    \
        const mode_t mode = creates ? va_arg(arguments, mode_t) : 0;                        \
        va_end(arguments);                                                                  \
        return environment::OpenDescriptor(kNext, path, flags, mode);                       \
    }

INTERPOSE_OPEN(open)
INTERPOSE_OPEN(open64)
