// The Linux engine: the kernel's own packet filter, connection tracking and sockets.
#include "engines/linux/Operations.h"

// Handles share the process's monitor, which starts when it is first used.
const vxi::Engine vxi::kLinuxEngine = {VXI_ABI_VERSION, "linux", MakeOperations<LinuxOperations>(),
                                       nullptr};
