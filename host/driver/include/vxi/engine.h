/* Chooses and inspects the engine of the driver-interface library.
 *
 * For hosts (the Lua module, the command, tests). Plugins include only
 * <vxi/vxi.h>: the host decides which engine serves them.
 *
 * All functions may be called from any thread.
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
 * for an unknown name, and for an engine that was compiled for another VXI_ABI_VERSION. */
VXI_API int vxi_engine_select(const char* name);

/* The engines' names, null-terminated; lives for the process. */
VXI_API const char* const* vxi_engine_list(void);

/* The error message for a name that vxi_engine_select refuses:
 *   unknown engine 'name'; known engines: linux, sim
 *   engine sim was compiled for version 2 of the interface, not for version 1
 * Pure ASCII; the string belongs to the calling thread and lives until its next call of this
 * function. */
VXI_API const char* vxi_unknown_engine(const char* name);

/* Why this thread's last vxi_open returned null; empty if it did not. */
VXI_API const char* vxi_open_error(void);

/* The status for which this thread's last vxi_open returned null, as a call on a handle would have
 * returned it; 0 if it did not return null. */
VXI_API int vxi_open_status(void);

/* Checks the environment variables that the next vxi_open depends on: VXI_ENGINE until
 * vxi_engine_select has chosen an engine, VXI_FAULT until vxi_fault_script has replaced it, and
 * what the chosen engine reads (VXI_SIM until vxi_sim_configure has replaced it). Returns an
 * empty string if all are valid, else a message such as
 *   VXI_SIM cannot be read at character 6: expected a number from 1 to 4096
 * and every vxi_open fails with the same message. A host that would continue without a driver
 * calls this at startup. Pure ASCII; the string belongs to the calling thread and lives until
 * its next call of this function. */
VXI_API const char* vxi_check_environment(void);

/* Receives problems that make no call fail, such as connections that could not be counted: one
 * line of ASCII without a newline, which lives until the handler returns. Called with no lock
 * held, on the thread whose call met the problem. Must not throw. */
typedef void (*vxi_message_handler)(const char* message);

/* Sets the process's handler; null removes it. A call that is running on another thread may
 * still use the former one. */
VXI_API void vxi_set_message_handler(vxi_message_handler handler);

/* Lets a host that was asked to exit end reads of the kernel's connection and socket tables,
 * which can take seconds: while `check` returns nonzero, they fail with -ECANCELED. It is called
 * often, on the reading thread, and must not block or call the library. Null, the default: reads
 * are never cancelled. Engines without long reads ignore it. */
VXI_API void vxi_set_cancel_check(int (*check)(void));

/* What an engine can deliver on this machine, one row per facility. */
typedef struct vxi_capability_s {
    const char* name; /* "scan-metrics", "statistics", "variables", "conntrack",
                         "conn-states", "blacklist", "rule-profile" */
    int available;    /* 1: the calls will succeed */
    char detail[192]; /* the source if available, else the reason and its remedy */
} vxi_capability_s;

/* Fills up to `count` rows and returns the number of facilities, or a negative status. Does not
 * change the system. */
VXI_API int vxi_capabilities(vxi_handle_ops_s* handle, vxi_capability_s* rows, unsigned int count);

/* Number of failed calls that a handle remembers. */
enum { VXI_FAILURES_KEPT = 100 };

/* A call on a handle that failed. */
typedef struct vxi_failure_s {
    const char* call;  /* "vxi_get_stats"; lives for the process */
    int status;        /* what the call returned */
    char message[256]; /* what vxi_get_error returned after it */
} vxi_failure_s;

/* Copies the latest failed calls, at most `count` and VXI_FAILURES_KEPT, oldest first, and
 * returns how many calls on the handle have failed since it was opened (0 for a null handle).
 * vxi_driver_available counts as failed if it did not return 1; vxi_get_var and vxi_get_varv do
 * not if they returned VXI_E_UNKNOWN_VARIABLE, which is how callers find out which variables
 * exist. */
VXI_API unsigned int vxi_failures(const vxi_handle_ops_s* handle, vxi_failure_s* rows,
                                  unsigned int count);

/* What a successful vxi_get_scan_metrics has delivered. */
typedef struct vxi_latest_scan_s {
    uint64_t reads;     /* successful calls in this process; 0: the rest is meaningless */
    uint32_t direction; /* VXI_SCAN_* */
    uint16_t port;
    uint32_t counters; /* how many are delivered */
    uint64_t counter[VXI_SCAN_COUNTERS];
} vxi_latest_scan_s;

/* Copies what the process's latest successful vxi_get_scan_metrics has delivered, on any handle,
 * so that a host can record the very counters that its plugin judges. Does not read the driver,
 * and does not advance the simulated machine. */
VXI_API void vxi_latest_scan(vxi_latest_scan_s* scan);

/* How often a call has failed since the process started. */
typedef struct vxi_failure_count_s {
    const char* call; /* "vxi_get_stats"; lives for the process */
    uint64_t count;
} vxi_failure_count_s;

/* Fills up to `count` rows, one for each call that can fail, always in the same order, and
 * returns the number of such calls. Counts what vxi_failures counts, on all handles, closed ones
 * included, and failures of vxi_open. */
VXI_API unsigned int vxi_failure_counts(vxi_failure_count_s* rows, unsigned int count);

/* Makes calls on any engine fail as the script says, on open handles, too; see
 * engines/fault/README.md. For tests and rehearsals. The environment variable VXI_FAULT holds the
 * first script; an empty or null one removes all faults. Returns -EINVAL and keeps the former
 * script if this one cannot be parsed; *position, which may be null, is then the offset of the
 * bad character. */
VXI_API int vxi_fault_script(const char* script, unsigned int* position);

/* Starts the simulated machine afresh, at tick 0, with these settings; see
 * engines/sim/README.md. The environment variable VXI_SIM holds the first ones. Errors as for
 * vxi_fault_script. */
VXI_API int vxi_sim_configure(const char* settings, unsigned int* position);

/* Load and memory of the simulated machine, in the units of the health monitor, for harnesses
 * that fake a machine's commands and files. */
typedef struct vxi_sim_machine_s {
    uint64_t tick;
    double run_queue_length;
    unsigned int cpu_count;
    uint64_t memory_total_kb;
    uint64_t memory_free_kb;
} vxi_sim_machine_s;

/* Reads the current tick's values. */
VXI_API void vxi_sim_machine(vxi_sim_machine_s* machine);

/* 1 if the engine that the next vxi_open uses is simulated, 0 otherwise. */
VXI_API int vxi_engine_is_simulated(void);

/* Advances the simulated machine by a tick, as vxi_get_scan_metrics does, for hosts that monitor
 * no port. */
VXI_API void vxi_sim_tick(void);

#ifdef __cplusplus
}
#endif

#endif
