/* Choosing and inspecting the engine behind the driver-interface library.
 *
 * For hosts (the Lua module, the command, tests). Plugins include <vxi/vxi.h>
 * only: which engine serves them is the host's decision.
 *
 * All calls are safe from any thread.
 */
#ifndef VXI_ENGINE_H
#define VXI_ENGINE_H

#include "vxi/vxi.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Name of the engine that the next vxi_open uses: the one chosen with vxi_engine_select, else
 * the one named by the environment variable VXI_ENGINE, else "linux". The string lives for
 * the process. */
VXI_API const char* vxi_engine_name(void);

/* Chooses the engine for handles opened from now on; open handles keep theirs. Returns -EINVAL
 * for an unknown name. */
VXI_API int vxi_engine_select(const char* name);

/* The engines' names, null-terminated; lives for the process. */
VXI_API const char* const* vxi_engine_list(void);

/* The error message for a name that vxi_engine_select refuses:
 *   unknown engine 'name'; known are: linux, sim
 * Pure ASCII; the string belongs to the calling thread and lives until its next call of this
 * function. */
VXI_API const char* vxi_unknown_engine(const char* name);

/* Why this thread's last vxi_open returned null; empty when it did not. */
VXI_API const char* vxi_open_error(void);

/* Checks the environment variables that this process would use: VXI_ENGINE until
 * vxi_engine_select has chosen, VXI_FAULT until vxi_fault_script has replaced it, and,
 * where the chosen engine is "sim", VXI_SIM until vxi_sim_configure has replaced it.
 * Empty when they are all usable; else a message that names the variable, the character
 * and what is expected there, as in
 *   VXI_SIM cannot be read at character 6: expected a number from 1 to 4096
 * While it is not empty, every vxi_open fails for the same reason: a host that would go on
 * without a driver asks this at the start. Pure ASCII; the string belongs to the calling
 * thread and lives until its next call of this function. */
VXI_API const char* vxi_check_environment(void);

/* Receives problems for which no call fails, such as connections that could not be
 * counted: one line of ASCII without a newline, which lives for the call. Called on the
 * thread whose call to the library met the problem, with no lock held; must not throw. */
typedef void (*vxi_message_handler)(const char* message);

/* One handler for the process; null removes it. A thread that is in a call of the library
 * meanwhile may still call the one before. */
VXI_API void vxi_set_message_handler(vxi_message_handler handler);

/* While `check` returns nonzero, reading the kernel's tables of flows and sockets, which can
 * take seconds, fails with -ECANCELED: for hosts that end on a signal. It is called often,
 * on the reading thread, and must not block or call the library. Null (as at first): reads
 * are never cancelled. The linux engine only; the others are fast. */
VXI_API void vxi_set_cancel_check(int (*check)(void));

/* What an engine can deliver on this machine, one row a facility. */
typedef struct vxi_capability_s {
    const char* name; /* "scan-metrics", "statistics", "variables", "conntrack",
                         "conn-states", "blacklist", "rule-profile" */
    int available;    /* 1: the calls will be served */
    char detail[192]; /* available: from which source; else why not and what would mend it */
} vxi_capability_s;

/* Fills up to `count` rows and returns how many facilities there are in all;
 * negative on failure. Asks the system without changing it. */
VXI_API int vxi_capabilities(vxi_handle_ops_s* handle, vxi_capability_s* rows, unsigned int count);

/* The most failed calls that a handle remembers. */
enum { VXI_FAILURES_KEPT = 100 };

/* A call on a handle that failed. */
typedef struct vxi_failure_s {
    const char* call;  /* "vxi_get_stats"; lives for the process */
    int status;        /* what the call returned */
    char message[256]; /* what vxi_get_error returned after it */
} vxi_failure_s;

/* Copies the latest failed calls, at most `count` and VXI_FAILURES_KEPT, the oldest of them
 * first, and returns how many calls on the handle have failed since it was opened. A
 * vxi_driver_available that did not return 1 counts as failed, a vxi_get_var or vxi_get_varv
 * that returned VXI_E_UNKNOWN_VARIABLE does not: that is how callers find out which variables
 * exist. Returns 0 for a null handle. */
VXI_API unsigned int vxi_failures(const vxi_handle_ops_s* handle, vxi_failure_s* rows,
                                  unsigned int count);

/* Scripted failures around any engine, for tests and rehearsals; see
 * engines/fault/README.md. Also by the environment variable VXI_FAULT. An empty
 * or null text removes all faults. -EINVAL and an unchanged script for a text that
 * cannot be read; *position then is the offset of the offending character (may be
 * null). Applies to open handles as well. */
VXI_API int vxi_fault_script(const char* script, unsigned int* position);

/* Settings of the simulated engine, see engines/sim/README.md: a fresh machine
 * from the first tick. Also by the environment variable VXI_SIM. -EINVAL as above. */
VXI_API int vxi_sim_configure(const char* settings, unsigned int* position);

/* The simulated machine's own figures at its present tick, in the units of the
 * health monitor, for harnesses that fake the machine's commands and files. */
typedef struct vxi_sim_machine_s {
    uint64_t tick;
    double run_queue_length;
    unsigned int cpu_count;
    uint64_t memory_total_kb;
    uint64_t memory_free_kb;
} vxi_sim_machine_s;

VXI_API void vxi_sim_machine(vxi_sim_machine_s* machine);

/* Lets the simulated machine go on by a tick, as vxi_get_scan_metrics does, for hosts
 * that monitor no port. */
VXI_API void vxi_sim_tick(void);

#ifdef __cplusplus
}
#endif

#endif
