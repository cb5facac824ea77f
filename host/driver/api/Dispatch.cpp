// The public calls on handles: null handles, scripted faults, arguments, then the engine.
#include <algorithm>
#include <cerrno>
#include <exception>
#include <new>

#include "api/BoundedText.h"
#include "api/Call.h"
#include "api/Engine.h"
#include "engines/fault/Fault.h"
#include "records/FlowDetails.h"
#include "records/LatestScan.h"
#include "records/TableOrigin.h"

using namespace vxi;

namespace {

constexpr const char* kTraceSource = "host/driver/api/Dispatch";

// Stored in a blacklist header by the size request and passed back by the fill request. It
// distinguishes filling an empty list from another size request.
constexpr std::uint32_t kBlacklistSnapshot = 1;

// Stores what vxi_get_error and vxi_failures return. Must not allocate: memory may have run out.
int StoreFailure(vxi_handle_ops_s* handle, Call call, int status, const char* cause)
{
    BoundedText message(handle->error);
    message.Plain("engine ").Plain(handle->engine->name).Plain(": ");
    message.Plain(CallName(call)).Plain(": ").Escaped(cause);
    const bool reads_variable = call == Call::kGetVar || call == Call::kGetVarv;
    if (!reads_variable || status != VXI_E_UNKNOWN_VARIABLE) {
        handle->failures.Add(call, status, handle->error);
    }
    return status;
}

// The one place where exceptions become statuses: callers may be C code.
template <typename Body>
int StatusOf(vxi_handle_ops_s* handle, Call call, Body body)
try {
    return body();
} catch (const std::bad_alloc&) {
    return StoreFailure(handle, call, -ENOMEM, "out of memory");
} catch (const Error& error) {
    return StoreFailure(handle, call, error.Status(), error.what());
} catch (const std::exception& error) {
    return StoreFailure(handle, call, -EIO, error.what());
}

int AnswerFromScript(vxi_handle_ops_s* handle, Call call, const fault::Answer& answer)
{
    Trace(handle, 1, kTraceSource, CallName(call), __LINE__, "scripted status %d", answer.status);
    // Callers treat any status other than 0 as a failure and ask for the message.
    const bool succeeds = call == Call::kDriverAvailable && answer.status > 0;
    return succeeds ? answer.status : StoreFailure(handle, call, answer.status, answer.message);
}

template <typename Body>
int Perform(vxi_handle_ops_s* handle, Call call, Body body)
{
    if (!handle) {
        return -EBADF;
    }
    if (const auto answer = fault::NextAnswer(call)) {
        return AnswerFromScript(handle, call, *answer);
    }
    const int status = StatusOf(handle, call, body);
    if (status < 0) {
        Trace(handle, 1, kTraceSource, CallName(call), __LINE__, "status %d: %s", status,
              handle->error);
        return status;
    }
    fault::NoteSuccess(call);
    Trace(handle, 3, kTraceSource, CallName(call), __LINE__, "status %d", status);
    return status;
}

template <typename Body>
int Fetch(vxi_handle_ops_s* handle, Call call, Table table, Body body)
{
    return Perform(handle, call, [&] {
        BeginFetch(table, handle->engine->name);
        return body();
    });
}

void RequireRecord(const void* record)
{
    if (!record) {
        throw Error(-EINVAL, "no record given");
    }
}

int GetStats(vxi_handle_ops_s* handle, vxa_stats_v2_s* stats, unsigned int size)
{
    RequireRecord(stats);
    if (size < sizeof *stats) {
        ThrowError(-EINVAL, "size %u is less than a statistics record", size);
    }
    if (!stats->area1 || !stats->area2 || !stats->area3) {
        RequireRecord(nullptr);
    }
    return handle->operations->get_stats(handle, stats, size);
}

int GetConntrack(vxi_handle_ops_s* handle, vxa_dump_conntrack_s* section, unsigned int size,
                 unsigned int* extra)
{
    RequireRecord(section);
    if (size < sizeof *section) {
        ThrowError(-EINVAL, "size %u is less than a header", size);
    }
    if (section->request != VXA_CONNTRACK_REQUEST_TABLE) {
        ThrowError(-EINVAL, "request kind %u is unknown", section->request);
    }
    const unsigned int protocol = section->protocol;
    if (protocol != 0 && protocol != 6 && protocol != 17) {
        ThrowError(-EINVAL, "protocol %u is not tracked", protocol);
    }
    const std::size_t room = (size - sizeof *section) / sizeof(vxa_conntrack_entry_s);
    section->entry_ct = static_cast<std::uint16_t>(std::min<std::size_t>(section->entry_ct, room));
    SetFlowDetails(*section, {});
    return handle->operations->get_conntrack(handle, section, size, extra);
}

int GetBlacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list)
{
    RequireRecord(list);
    const std::uint32_t room = list->entries_size;
    const bool is_size_request = room == 0;
    if (is_size_request && list->snapshot == kBlacklistSnapshot) {
        return 0;
    }
    const int status = handle->operations->get_blacklist(handle, list);
    if (is_size_request) {
        list->snapshot = kBlacklistSnapshot;
    } else {
        list->entries_size = std::min(list->entries_size, room);
    }
    return status;
}

int GetVarv(vxi_handle_ops_s* handle, vxa_filter_variable_s* variable)
{
    if (variable->number >= VXA_FILTER_VARIABLE_COUNT) {
        ThrowError(VXI_E_UNKNOWN_VARIABLE, "variable %u is unknown (0 to %u are known)",
                   variable->number, VXA_FILTER_VARIABLE_COUNT - 1);
    }
    return handle->operations->get_varv(handle, variable);
}

int SetScanMonitoring(vxi_handle_ops_s* handle, const scan_monitor_config* config)
{
    RequireRecord(config);
    if (config->version != 1) {
        ThrowError(-EINVAL, "configuration version %u is unknown", config->version);
    }
    const ScanTarget target = ConfiguredTarget(*config);
    RememberScanTarget(target);
    return handle->operations->set_scan_monitoring(handle, target);
}

// Callers configure a process once. A child process, or an engine selected later, has not received
// that configuration, so it is repeated here.
int ReadScanMetrics(vxi_handle_ops_s* handle, scan_metrics_request* request, unsigned int length)
{
    const Operations& operations = *handle->operations;
    try {
        return operations.get_scan_metrics(handle, request, length);
    } catch (const Error& error) {
        const ScanTarget target = RequestedTarget(*request);
        if (error.Status() != -ENOENT || !(target == RememberedScanTarget())) {
            throw;
        }
        operations.set_scan_monitoring(handle, target);
        return operations.get_scan_metrics(handle, request, length);
    }
}

int GetScanMetrics(vxi_handle_ops_s* handle, scan_metrics_request* request, unsigned int length)
{
    constexpr unsigned int kHead = offsetof(scan_metrics_request, counter);
    RequireRecord(request);
    if (length < kHead) {
        ThrowError(-EINVAL, "length %u is less than a request", length);
    }
    if (request->version != 1) {
        ThrowError(-EINVAL, "request version %u is unknown", request->version);
    }
    if (request->direction != VXI_SCAN_INBOUND && request->direction != VXI_SCAN_OUTBOUND) {
        ThrowError(-EINVAL, "direction %u is unknown", request->direction);
    }
    const unsigned int room = (length - kHead) / static_cast<unsigned int>(sizeof(std::uint64_t));
    request->entries = std::min<std::uint32_t>(request->entries, 1);
    request->counters =
        request->entries ? std::min({request->counters, room, 0U + VXI_SCAN_COUNTERS}) : 0;
    const int status = ReadScanMetrics(handle, request, length);
    if (status == 0) {
        RememberScan(*request);
    }
    return status;
}

}  // namespace

int vxi_driver_available(vxi_handle_ops_s* handle)
{
    return Perform(handle, Call::kDriverAvailable, [&] {
        const int available = handle->operations->driver_available(handle);
        if (!available) {
            handle->failures.Add(Call::kDriverAvailable, 0, "the driver does not answer");
        }
        return available;
    });
}

int vxi_get_error(vxi_handle_ops_s* handle, char* buffer, unsigned int size)
{
    if (!buffer || size == 0) {
        return handle ? -EINVAL : -EBADF;
    }
    BoundedText(buffer, size).Plain(handle ? handle->error : "no handle: it is not open");
    return handle ? 0 : -EBADF;
}

unsigned int vxi_failures(const vxi_handle_ops_s* handle, vxi_failure_s* rows, unsigned int count)
{
    return handle ? handle->failures.CopyLatest(rows, count) : 0;
}

int vxi_get_stats(vxi_handle_ops_s* handle, vxa_stats_v2_s* stats, unsigned int size)
{
    return Fetch(handle, Call::kGetStats, Table::kStatistics,
                 [&] { return GetStats(handle, stats, size); });
}

int vxi_get_conntrack(vxi_handle_ops_s* handle, vxa_dump_conntrack_s* section, unsigned int size,
                      unsigned int* extra)
{
    return Fetch(handle, Call::kGetConntrack, Table::kConntrack,
                 [&] { return GetConntrack(handle, section, size, extra); });
}

int vxi_get_blacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list)
{
    return Fetch(handle, Call::kGetBlacklist, Table::kBlacklist,
                 [&] { return GetBlacklist(handle, list); });
}

int vxi_get_conn_states(vxi_handle_ops_s* handle, vxa_get_conn_states_s* states)
{
    return Fetch(handle, Call::kGetConnStates, Table::kConnStates, [&] {
        RequireRecord(states);
        return handle->operations->get_conn_states(handle, states);
    });
}

int vxi_get_varv(vxi_handle_ops_s* handle, vxa_filter_variable_s* variable)
{
    return Perform(handle, Call::kGetVarv, [&] {
        RequireRecord(variable);
        return GetVarv(handle, variable);
    });
}

int vxi_get_var(vxi_handle_ops_s* handle, unsigned int number, vxa_filter_variable_s* variable)
{
    return Perform(handle, Call::kGetVar, [&] {
        RequireRecord(variable);
        variable->number = number;
        return GetVarv(handle, variable);
    });
}

int vxi_set_var(vxi_handle_ops_s* handle, unsigned int number, unsigned int value)
{
    return Perform(handle, Call::kSetVar, [&] {
        if (number >= VXA_FILTER_VARIABLE_COUNT) {
            ThrowError(VXI_E_UNKNOWN_VARIABLE, "variable %u is unknown", number);
        }
        return handle->operations->set_var(handle, number, value);
    });
}

int vxi_get_profile_stats(vxi_handle_ops_s* handle, void* record)
{
    return Perform(handle, Call::kGetProfileStats, [&] {
        RequireRecord(record);
        return handle->operations->get_profile_stats(handle, record);
    });
}

int vxi_set_scan_monitoring(vxi_handle_ops_s* handle, scan_monitor_config* config)
{
    return Perform(handle, Call::kSetScanMonitoring,
                   [&] { return SetScanMonitoring(handle, config); });
}

int vxi_get_scan_metrics(vxi_handle_ops_s* handle, scan_metrics_request* request,
                         unsigned int length)
{
    return Perform(handle, Call::kGetScanMetrics,
                   [&] { return GetScanMetrics(handle, request, length); });
}

int vxi_capabilities(vxi_handle_ops_s* handle, vxi_capability_s* rows, unsigned int count)
{
    return Perform(handle, Call::kCapabilities, [&] {
        return handle->operations->capabilities(handle, rows, rows ? count : 0);
    });
}

void vxi_set_trace_level(vxi_handle_ops_s* handle, int level)
{
    if (handle) {
        handle->trace_level = std::clamp(level, 0, 3);
    }
}

void vxi_set_trace_handler(vxi_handle_ops_s* handle,
                           int (*handler)(int, const char*, const char*, int, char*))
{
    if (handle) {
        handle->trace_handler = handler;
    }
}
