// Environment of the filter module in a benchmark: commands, files and network namespace.
//
// Programs that link this replace popen, fopen and open of the C library. The collectors can then
// read fixed output without starting processes, and the module's JSON diagnostic file is a
// temporary file, so that no agent's file is overwritten and no privilege is needed.
#pragma once

namespace environment {

// Makes the temporary file, which is removed at exit. Call before anything is measured.
void Prepare();

enum class Commands { kReal, kFixed, kSimulated };

// kFixed: fixed output of nproc and uptime; /proc/meminfo stays the machine's own.
// kSimulated: all three report the simulated machine's current values.
void UseCommands(Commands commands);

// Moves the process to a new network namespace, so that rules of the linux engine do not count
// other traffic. Returns an empty string, or the reason if it failed.
const char* EnterNetworkNamespace();

}  // namespace environment
