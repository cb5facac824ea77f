/* Driver-interface library: how the filter plugin talks to the packet filter.
 *
 * Statuses. Calls that return int return 0 for success and a negative value for
 * failure: a negated errno of <errno.h>, or one of the VXI_E_* values. After a
 * failure vxi_get_error yields a text that names engine, operation and cause.
 *
 * Handles. A handle comes from vxi_open and is the caller's until vxi_close.
 * Every call accepts a null handle: it fails with -EBADF (or does nothing where
 * it returns void).
 *
 * Threads. Different handles may be used on different threads at once; one
 * handle must be used by one thread at a time. vxi_open, vxi_set_profiler and
 * the tb_dump_* routines may be called from any thread. No call changes the
 * process's signal mask, locale or working directory.
 *
 * Forks. State set up before a fork belongs to the parent; a child that calls
 * the library begins without it. The monitored port alone is inherited: see
 * vxi_get_scan_metrics.
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

/* An open handle. Its first member is its table of operations; everything else
 * belongs to the engine that made it. */
typedef struct vxi_handle_ops_s vxi_handle_ops_s;

/* ---- handles ----------------------------------------------------------- */

/* Opens the process's engine. Null when it cannot be opened at all; an engine
 * that can deliver only part of its operations here opens all the same, and
 * those operations fail one by one. Cheap: under 50 us once the engine runs. */
VXI_API vxi_handle_ops_s* vxi_open(void);

/* Frees the handle and what it keeps. Null is ignored. Process-wide settings
 * made through it (scan monitoring, variables) stay in force. */
VXI_API void vxi_close(vxi_handle_ops_s* handle);

/* 1 when the driver behind the handle answers, 0 when it does not. */
VXI_API int vxi_driver_available(vxi_handle_ops_s* handle);

/* Writes the text of the handle's last failed call into buffer: NUL-terminated,
 * cut to size, pure ASCII, empty when nothing has failed yet. Does not disturb
 * the stored text. -EINVAL for a null buffer or size 0. */
VXI_API int vxi_get_error(vxi_handle_ops_s* handle, char* buffer, unsigned int size);

/* ---- tables ------------------------------------------------------------ */

/* Fills the three areas of a prepared statistics record of `size` bytes. */
VXI_API int vxi_get_stats(vxi_handle_ops_s* handle, vxa_stats_v2_s* stats, unsigned int size);

/* Count request (protocol 0, size 16): takes a snapshot of the flow table into
 * the handle and returns the number of flows, at most 65535, in entry_ct.
 * Fill request (protocol 17 or 6): copies the snapshot's flows of that protocol
 * behind the header, at most `entry_ct` of them and never beyond `size` bytes;
 * returns the number filled in entry_ct and the number that exist in total. The
 * snapshot is released with the second fill, or with the handle. `extra` is not
 * used by present engines and may be null. */
VXI_API int vxi_get_conntrack(vxi_handle_ops_s* handle, vxa_dump_conntrack_s* section,
                              unsigned int size, unsigned int* extra);

/* Size request (a zeroed header): takes a snapshot into the handle and returns
 * its size in entries_size. Fill request (that same header at the start of a
 * block): fills up to entries_size bytes behind the header, returns the bytes
 * used there, and releases the snapshot. */
VXI_API int vxi_get_blacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list);

/* Counts the host's sockets by state. `states` need not be initialised. */
VXI_API int vxi_get_conn_states(vxi_handle_ops_s* handle, vxa_get_conn_states_s* states);

/* Reads the variable whose number stands in the record. VXI_E_UNKNOWN_VARIABLE
 * for a number that no engine knows (above 172). */
VXI_API int vxi_get_varv(vxi_handle_ops_s* handle, vxa_filter_variable_s* variable);

/* The same with the number given apart; writes number and value. */
VXI_API int vxi_get_var(vxi_handle_ops_s* handle, unsigned int number,
                        vxa_filter_variable_s* variable);

/* -EROFS for a variable that is not writable. */
VXI_API int vxi_set_var(vxi_handle_ops_s* handle, unsigned int number, unsigned int value);

/* `record` starts with a 32-bit payload size. Size 0 asks for the size needed,
 * which is written there; a size above 0 is the capacity behind the field and is
 * replaced by the number of payload bytes written. */
VXI_API int vxi_get_profile_stats(vxi_handle_ops_s* handle, void* record);

/* ---- scan monitoring --------------------------------------------------- */

/* Starts counting for the port whose bit is set, for the whole process; setting
 * the same port and direction again keeps the counters, another one restarts
 * them at 0. -EINVAL unless exactly one bit is set. */
VXI_API int vxi_set_scan_monitoring(vxi_handle_ops_s* handle, scan_monitor_config* config);

/* Reads the counters of the port and direction named in the request, which must
 * be those that were configured last (-ENOENT otherwise). Where that happened
 * before a fork or with another engine, they are configured again first and
 * count from 0. `length` is the size of the whole request; no more counters are
 * written than the request asks for and has room for. */
VXI_API int vxi_get_scan_metrics(vxi_handle_ops_s* handle, scan_metrics_request* request,
                                 unsigned int length);

/* ---- the library's own messages ---------------------------------------- */

/* 0 off .. 3 everything. */
VXI_API void vxi_set_trace_level(vxi_handle_ops_s* handle, int level);

/* `handler(level, source, function, line, message)` receives the handle's
 * messages, on the thread whose call caused them; the message buffer is the
 * library's and lives until the handler returns. Null takes the handler away. */
VXI_API void vxi_set_trace_handler(vxi_handle_ops_s* handle,
                                   int (*handler)(int, const char*, const char*, int, char*));

/* ---- rule profiling hooks ---------------------------------------------- */

typedef int (*vxi_profiler_blockfilter)(int block);
typedef int (*vxi_profiler_running)(void);

/* The library's own hooks: the first suspends (1) or resumes (0) rule profiling
 * around a change of the rules and returns the former state, the second tells
 * whether profiling is on. */
VXI_API int profiler_blockfilter(int block);
VXI_API int profiler_running(void);

/* Installs the hooks that engines call; process-wide, null for none. */
VXI_API void vxi_set_profiler(vxi_profiler_blockfilter blockfilter, vxi_profiler_running running);

/* ---- texts ------------------------------------------------------------- */

/* Each renders one record as text lines ending in "\n", pure ASCII: names that
 * the kernel or a user chose are escaped. */
VXI_API void tb_dump_stats(tb_dump_s* sink, vxa_stats_v2_s* stats);
/* `table` is the UDP section directly followed by the TCP section. */
VXI_API void tb_dump_all_conn_track(tb_dump_s* sink, vxa_dump_conntrack_s* table);
VXI_API void tb_dump_blacklist(tb_dump_s* sink, vxa_blacklist_get_addrs_s* list);
VXI_API void tb_dump_conn_states(tb_dump_s* sink, vxa_get_conn_states_s* states);
/* style 0: "number name value" on one line. */
VXI_API void tb_dump_filter_variable(tb_dump_s* sink, vxa_filter_variable_s* variable, int style);

/* vsnprintf that always leaves a NUL-terminated text in a buffer of size > 0,
 * also when formatting fails (then the empty text). Returns the length of the
 * text in the buffer, not the length it would have had. */
VXI_API int vsnprintf_safe(char* buffer, size_t size, const char* format, va_list arguments);

#ifdef __cplusplus
}
#endif

#endif
