// What the plugin finds on the machine, as far as a benchmark replaces it.
//
// popen, fopen and open of this program come before those of the C library, so that the
// collectors can be fed without starting processes; and the plugin's JSON log goes to a
// temporary file, so that no agent's log is overwritten and no privilege is needed.
#pragma once

namespace stage {

// Called before anything is measured. The temporary file is removed at exit.
void Prepare();

enum class Commands { kReal, kCanned, kSimulated };

// kCanned: fixed output of nproc and uptime; /proc/meminfo stays the machine's own.
// kSimulated: all three tell the simulated machine's present figures.
void UseCommands(Commands commands);

// Why the network namespace of its own could not be had; empty when it is. Counting rules
// of the linux engine then touch nobody's traffic.
const char* EnterNetworkNamespace();

}  // namespace stage
