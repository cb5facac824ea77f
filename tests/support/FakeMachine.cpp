// The fake machine; see FakeMachine.h.
#include "FakeMachine.h"

#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

const char* const kConfigLog = "/var/opt/vx_agent/diag/vx_filter_json.log";

FakeMachine::FakeMachine()
{
    const std::string bin = Path("/usr/local/bin");
    for (const std::string& folder :
         {bin, Path("/etc"), Path("/proc"), Path("/var/opt/vx_agent/diag")})
        fs::create_directories(folder);
    for (const char* const name : {"nproc", "uptime", "vmstat"}) {
        const fs::path path = fs::path(bin) / name;
        WriteText(path,
                  "#!/bin/sh\n"
                  "echo \"$*\" >\"$FAKE_MACHINE/${0##*/}.args\"\n"
                  "exec cat \"$FAKE_MACHINE/${0##*/}.out\" 2>/dev/null\n");
        fs::permissions(path, fs::perms::all);
    }
    WriteText(Path("nproc.out"), "4\n");
    WriteText(Path("uptime.out"), " 10:00:00 up 1 day, load average: 0.52, 0.58, 0.59\n");
    WriteText(Path("/proc/meminfo"), "MemTotal: 1000000 kB\nMemFree: 250000 kB\nBuffers: 1 kB\n");
    setenv("FAKE_MACHINE", Path("").c_str(), 1);
    setenv("PATH", (bin + ":" + std::getenv("PATH")).c_str(), 1);
}
