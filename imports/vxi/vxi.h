/* Driver-interface library: the filter plugin's access to the packet filter.
 *
 * Statuses. Calls that return int return 0 for success and a negative value for
 * failure: a negated errno of <errno.h>, or one of the VXI_E_* values. After a
 * failure vxi_get_error returns a message that names engine, call and cause.
 *
 * Handles. vxi_open returns a handle, which the caller releases with vxi_close.
 * Calls on a null handle fail with -EBADF; those that return void do nothing.
 *
 * Threads. Different handles may be used on different threads at once; one
 * handle must be used by one thread at a time. vxi_open, vxi_set_profiler and
 * the tb_dump_* routines may be called from any thread. No call changes the
 * process's signal mask, locale or working directory.
 *
 * Forks. A child process inherits no state of the library except which port is
 * monitored: see vxi_get_scan_metrics.
 */
#ifndef VXI_VXI_H
#define VXI_VXI_H

#include <stdarg.h>
#include <stddef.h>

#include "vxi/records.h"

#define VXI_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

enum { VXI_E_UNKNOWN_VARIABLE = -10017 };

/* An open handle. Its first member points to its table of operations; the rest is
 * private to the library. */
typedef struct vxi_handle_ops_s vxi_handle_ops_s;

/* ---- version ----------------------------------------------------------- */

/* Version of the binary interface of the headers in vxi/, and the number in the soname. It
 * changes when a program that was built with the former headers could fail: a call is removed,
 * or its parameters, results or meaning change; a record has another size, layout or meaning; a
 * constant has another value. Additional calls and constants do not change it. */
#define VXI_ABI_VERSION 1

/* Returns the version that the library was built with, which its users compare with theirs
 * before any other call. A library without this function has version 1: users that accept such
 * a library refer to it as a weak symbol. */
VXI_API unsigned int vxi_abi_version(void);

/* ---- handles ----------------------------------------------------------- */

/* Opens the process's engine. Returns null if it cannot be opened at all. An
 * engine that supports only part of the calls on this machine opens, and the
 * other calls fail. Takes less than 50 us once the engine runs. */
VXI_API vxi_handle_ops_s* vxi_open(void);

/* Frees the handle. Null is ignored. Process-wide settings made through it (scan
 * monitoring, variables) stay in effect. */
VXI_API void vxi_close(vxi_handle_ops_s* handle);

/* Returns 1 if the driver answers, 0 if it does not. */
VXI_API int vxi_driver_available(vxi_handle_ops_s* handle);

/* Copies the message of the handle's last failed call: NUL-terminated, cut to
 * `size`, pure ASCII, empty if no call has failed yet. Returns -EINVAL for a null
 * buffer or size 0. */
VXI_API int vxi_get_error(vxi_handle_ops_s* handle, char* buffer, unsigned int size);

/* ---- tables ------------------------------------------------------------ */

/* Fills the three areas of a prepared statistics record of `size` bytes. */
VXI_API int vxi_get_stats(vxi_handle_ops_s* handle, vxa_stats_v2_s* stats, unsigned int size);

/* Count request (protocol 0, size 16): takes a snapshot of the flow table into
 * the handle and returns the number of flows, at most 65535, in entry_ct.
 * Fill request (protocol 17 or 6): copies the snapshot's flows of that protocol
 * after the header, at most `entry_ct` of them and never beyond `size` bytes;
 * returns the number copied in entry_ct and the number that exist in total. The
 * second fill request, or vxi_close, frees the snapshot. `extra` is unused and
 * may be null. */
VXI_API int vxi_get_conntrack(vxi_handle_ops_s* handle, vxa_dump_conntrack_s* section,
                              unsigned int size, unsigned int* extra);

/* Size request (a zeroed header): takes a snapshot into the handle and returns
 * its size in entries_size. Fill request (the same header at the start of a
 * block): fills up to entries_size bytes after the header, returns the bytes
 * used there, and frees the snapshot. */
VXI_API int vxi_get_blacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list);

/* Counts the host's sockets by state. `states` need not be initialised. */
VXI_API int vxi_get_conn_states(vxi_handle_ops_s* handle, vxa_get_conn_states_s* states);

/* Reads the variable whose number is in the record. Returns VXI_E_UNKNOWN_VARIABLE
 * for a number above 172. */
VXI_API int vxi_get_varv(vxi_handle_ops_s* handle, vxa_filter_variable_s* variable);

/* The same with the number as an argument; writes number and value. */
VXI_API int vxi_get_var(vxi_handle_ops_s* handle, unsigned int number,
                        vxa_filter_variable_s* variable);

/* Writes a variable; returns -EROFS for one that is read-only. */
VXI_API int vxi_set_var(vxi_handle_ops_s* handle, unsigned int number, unsigned int value);

/* Reads the rules and their counters as JSON. `record` starts with a 32-bit
 * payload size. Size 0 is replaced by the size needed; a larger one is the
 * capacity after the field, and is replaced by the number of bytes written. */
VXI_API int vxi_get_profile_stats(vxi_handle_ops_s* handle, void* record);

/* ---- scan monitoring --------------------------------------------------- */

/* Starts counting connections of the port whose bit is set, for the whole process.
 * Setting the same port and direction again keeps the counters, another one
 * restarts them at 0. Returns -EINVAL unless exactly one bit is set. */
VXI_API int vxi_set_scan_monitoring(vxi_handle_ops_s* handle, scan_monitor_config* config);

/* Reads the counters of the port and direction in the request, which must be
 * those configured last (-ENOENT otherwise). If that was before a fork or with
 * another engine, they are configured again first and count from 0. `length` is
 * the size of the whole request; no more counters are written than it asks for
 * and has room for. */
VXI_API int vxi_get_scan_metrics(vxi_handle_ops_s* handle, scan_metrics_request* request,
                                 unsigned int length);

/* ---- trace messages ---------------------------------------------------- */

/* 0 (off) to 3 (everything). */
VXI_API void vxi_set_trace_level(vxi_handle_ops_s* handle, int level);

/* `handler(level, source, function, line, message)` receives the handle's trace
 * messages on the calling thread; the strings live until it returns. Pass null
 * to remove the handler. */
VXI_API void vxi_set_trace_handler(vxi_handle_ops_s* handle,
                                   int (*handler)(int, const char*, const char*, int, char*));

/* ---- rule profiling hooks ---------------------------------------------- */

typedef int (*vxi_profiler_blockfilter)(int block);
typedef int (*vxi_profiler_running)(void);

/* The library's own hooks. The first suspends (1) or resumes (0) rule profiling
 * while rules are changed and returns whether it was suspended before; the second
 * returns whether profiling is on. */
VXI_API int profiler_blockfilter(int block);
VXI_API int profiler_running(void);

/* Installs the hooks for the whole process; null for none. Engines call `blockfilter` around
 * changes of rules; they have no need to ask `running` so far. */
VXI_API void vxi_set_profiler(vxi_profiler_blockfilter blockfilter, vxi_profiler_running running);

/* ---- text dumps -------------------------------------------------------- */

/* Each writes one record to a sink as lines of pure ASCII that end in "\n"; names
 * that the kernel or a user chose are escaped. */
VXI_API void tb_dump_stats(tb_dump_s* sink, vxa_stats_v2_s* stats);
/* `table` is the UDP section directly followed by the TCP section. */
VXI_API void tb_dump_all_conn_track(tb_dump_s* sink, vxa_dump_conntrack_s* table);
VXI_API void tb_dump_blacklist(tb_dump_s* sink, vxa_blacklist_get_addrs_s* list);
VXI_API void tb_dump_conn_states(tb_dump_s* sink, vxa_get_conn_states_s* states);
/* style 0: "number name value" on one line. */
VXI_API void tb_dump_filter_variable(tb_dump_s* sink, vxa_filter_variable_s* variable, int style);

/* vsnprintf that always terminates a buffer of size > 0 with NUL and leaves an empty
 * string when formatting fails. Returns the length of the string in the buffer, not
 * the length that it would have had. */
VXI_API int vsnprintf_safe(char* buffer, size_t size, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

#ifdef __cplusplus
}
#endif

#endif
