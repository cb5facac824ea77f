// The public calls on handles: null handles, scripted faults, arguments, then the engine.
#include <algorithm>
#include <cerrno>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "api/Calls.h"
#include "api/Engine.h"
#include "api/Error.h"
#include "api/Message.h"
#include "api/Registry.h"
#include "api/Scan.h"
#include "api/Source.h"
#include "engines/fault/Fault.h"

using namespace vxi;

namespace {

constexpr const char* kTraceSource = "host/driver/api/Dispatch";

// Left in a blacklist header by the size request and handed back with the fill, which is
// how a fill of an empty list is told from another size request.
constexpr std::uint32_t kBlacklistSnapshot = 1;

bool Scripted(vxi_handle_ops_s* handle, Call call, int& status)
{
    fault::Answer answer;
    if (!fault::scripted.load(std::memory_order_acquire) || !fault::NextAnswer(call, answer)) {
        return false;
    }
    status = answer.status;
    // Callers take any other status than 0 for a failure, and then ask for the text.
    const bool is_answer = call == Call::kDriverAvailable && status > 0;
    if (!is_answer) {
        Fail(handle, status, "%s", answer.text[0] ? answer.text : StatusWords(status).Text());
    }
    return true;
}

// No exception of an engine reaches callers, whose frames need not know C++.
template <typename Body>
int Guarded(vxi_handle_ops_s* handle, Body& body)
try {
    return body();
} catch (const std::bad_alloc&) {
    return Fail(handle, -ENOMEM, "out of memory");
} catch (const Error& error) {
    return Fail(handle, error.Status(), "%s", error.what());
} catch (const std::exception& error) {
    return Fail(handle, -EIO, "%s", error.what());
}

void Finish(vxi_handle_ops_s* handle, Call call, int status)
{
    if (status >= 0) {
        if (fault::scripted.load(std::memory_order_acquire)) {
            fault::NoteSuccess(call);
        }
        Trace(handle, 3, kTraceSource, NameOf(call), __LINE__, "status %d", status);
        return;
    }
    if (!handle->explained) {
        Fail(handle, status, "%s", StatusWords(status).Text());
    }
    Trace(handle, 1, kTraceSource, NameOf(call), __LINE__, "status %d: %s", status, handle->error);
}

// For vxi_failures, which says what counts as failed.
void RememberFailure(vxi_handle_ops_s* handle, Call call, int status)
{
    const bool is_variable = call == Call::kGetVar || call == Call::kGetVarv;
    const bool is_answered = call == Call::kDriverAvailable ? status > 0 : status == 0;
    // Counts that vxi_capabilities returns, and the one status that callers expect.
    if (is_answered || (call == Call::kCapabilities && status > 0) ||
        (is_variable && status == VXI_E_UNKNOWN_VARIABLE)) {
        return;
    }
    handle->failures.Add(NameOf(call), status,
                         handle->explained ? handle->error : "the driver does not answer");
}

template <typename Body>
int Perform(vxi_handle_ops_s* handle, Call call, Body body)
{
    if (!handle) {
        return -EBADF;
    }
    handle->operation = NameOf(call);
    handle->explained = false;
    int status = 0;
    if (Scripted(handle, call, status)) {
        Trace(handle, 1, kTraceSource, NameOf(call), __LINE__, "scripted status %d", status);
    } else {
        status = Guarded(handle, body);
        Finish(handle, call, status);
    }
    RememberFailure(handle, call, status);
    return status;
}

template <typename Body>
int Fetch(vxi_handle_ops_s* handle, Call call, Table table, Body body)
{
    return Perform(handle, call, [&] {
        begin_fetch(table, handle->operations->engine);
        return body();
    });
}

int NullRecord(vxi_handle_ops_s* handle)
{
    return Fail(handle, -EINVAL, "no record given");
}

int get_variable(vxi_handle_ops_s* handle, vxa_filter_variable_s* variable)
{
    if (variable->number >= VXA_FILTER_VARIABLE_COUNT) {
        return Fail(handle, VXI_E_UNKNOWN_VARIABLE, "variable %u is unknown (0 to %u are known)",
                    variable->number, VXA_FILTER_VARIABLE_COUNT - 1);
    }
    return handle->operations->get_variable(handle, variable);
}

int get_conntrack(vxi_handle_ops_s* handle, vxa_dump_conntrack_s* section, unsigned int size,
                  unsigned int* extra)
{
    if (!section) {
        return NullRecord(handle);
    }
    if (size < sizeof *section) {
        return Fail(handle, -EINVAL, "size %u is less than a header", size);
    }
    if (section->request != VXA_CONNTRACK_REQUEST_TABLE) {
        return Fail(handle, -EINVAL, "request kind %u is unknown", section->request);
    }
    const unsigned int protocol = section->protocol;
    if (protocol != 0 && protocol != 6 && protocol != 17) {
        return Fail(handle, -EINVAL, "protocol %u is not tracked", protocol);
    }
    const std::size_t room = (size - sizeof *section) / sizeof(vxa_conntrack_entry_s);
    section->entry_ct = static_cast<std::uint16_t>(std::min<std::size_t>(section->entry_ct, room));
    NoteFlowDetails(*section, {});
    return handle->operations->get_conntrack(handle, section, size, extra);
}

int get_blacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list)
{
    if (!list) {
        return NullRecord(handle);
    }
    const bool sizing = list->entries_size == 0;
    if (sizing && list->snapshot == kBlacklistSnapshot) {
        return 0;
    }
    const std::uint32_t room = list->entries_size;
    const int status = handle->operations->get_blacklist(handle, list);
    if (status == 0 && sizing) {
        list->snapshot = kBlacklistSnapshot;
    } else if (status == 0) {
        list->entries_size = std::min(list->entries_size, room);
    }
    return status;
}

int SetScanMonitoring(vxi_handle_ops_s* handle, scan_monitor_config* config)
{
    if (!config) {
        return NullRecord(handle);
    }
    if (config->version != 1) {
        return Fail(handle, -EINVAL, "configuration version %u is unknown", config->version);
    }
    ScanTarget target;
    if (!TargetOf(*config, target)) {
        return Fail(handle, -EINVAL, "exactly one port must be set");
    }
    RememberScanTarget(target);
    return handle->operations->set_scan_monitoring(handle, config);
}

// Callers configure a process once. A child of a fork, and an engine that was chosen since, have
// not seen that: for them it is done here.
int read_scan_metrics(vxi_handle_ops_s* handle, scan_metrics_request* request, unsigned int length)
{
    const Operations& operations = *handle->operations;
    const int status = operations.get_scan_metrics(handle, request, length);
    const ScanTarget target = TargetOf(*request);
    if (status != -ENOENT || !(target == RememberedScanTarget())) {
        return status;
    }
    scan_monitor_config config = ScanConfig(target);
    const int configured = operations.set_scan_monitoring(handle, &config);
    return configured == 0 ? operations.get_scan_metrics(handle, request, length) : configured;
}

int get_scan_metrics(vxi_handle_ops_s* handle, scan_metrics_request* request, unsigned int length)
{
    constexpr unsigned int kHead = offsetof(scan_metrics_request, counter);
    if (!request) {
        return NullRecord(handle);
    }
    if (length < kHead) {
        return Fail(handle, -EINVAL, "length %u is less than a request", length);
    }
    if (request->version != 1) {
        return Fail(handle, -EINVAL, "request version %u is unknown", request->version);
    }
    if (request->direction != VXI_SCAN_INBOUND && request->direction != VXI_SCAN_OUTBOUND) {
        return Fail(handle, -EINVAL, "direction %u is unknown", request->direction);
    }
    const unsigned int room = (length - kHead) / static_cast<unsigned int>(sizeof(std::uint64_t));
    request->entries = std::min<std::uint32_t>(request->entries, 1);
    request->counters =
        request->entries ? std::min({request->counters, room, 0U + VXI_SCAN_COUNTERS}) : 0;
    return read_scan_metrics(handle, request, length);
}

// Closes through the engine's own table, half-built handles too.
struct Destroy {
    void operator()(vxi_handle_ops_s* handle) const
    {
        handle->operations->close(handle);
        delete handle;
    }
};

using Handle = std::unique_ptr<vxi_handle_ops_s, Destroy>;

// Why vxi_open fails: which engine it had reached and what was wrong.
struct OpenError {
    const char* engine = "";
    std::string cause;
};

bool ScriptedOpen(OpenError& error)
{
    fault::Answer answer;
    if (!fault::scripted.load(std::memory_order_acquire) ||
        !fault::NextAnswer(Call::kOpen, answer)) {
        return false;
    }
    error.cause = answer.text[0] ? answer.text : StatusWords(answer.status).Text();
    return true;
}

Handle OpenHandle(OpenError& error)
{
    const Operations* operations = nullptr;
    const Engine* engine = ChosenEngine(operations, error.cause);
    if (!engine || !fault::EnvironmentUsable(error.cause)) {
        return nullptr;
    }
    error.engine = engine->name;
    if (ScriptedOpen(error)) {
        return nullptr;
    }
    Handle handle(new vxi_handle_ops_s{});
    handle->operations = operations;
    handle->operation = NameOf(Call::kOpen);
    const int status = engine->open ? engine->open(handle.get(), error.cause) : 0;
    if (status != 0 && error.cause.empty()) {
        error.cause = StatusWords(status).Text();
    }
    return status == 0 ? std::move(handle) : nullptr;
}

// Empty when vxi_open can use the environment.
std::string EnvironmentError()
{
    std::string error;
    const Operations* operations = nullptr;
    const Engine* engine = ChosenEngine(operations, error);
    if (engine && fault::EnvironmentUsable(error) && engine->environment_usable) {
        engine->environment_usable(error);
    }
    return error;
}

}  // namespace

vxi_handle_ops_s* vxi_open(void)
try {
    OpenError error;
    Handle handle = OpenHandle(error);
    if (!handle) {
        SetOpenError(error.engine, error.cause);
        return nullptr;
    }
    SetOpenError("", "");
    if (fault::scripted.load(std::memory_order_acquire)) {
        fault::NoteSuccess(Call::kOpen);
    }
    return handle.release();
} catch (const std::exception& error) {
    SetOpenError("", error.what());
    return nullptr;
}

const char* vxi_check_environment(void)
{
    // Plain characters, so that a thread that ends has nothing to destroy.
    static thread_local char text[512];
    BoundedText result(text);
    try {
        result.Escaped(EnvironmentError());
    } catch (const std::exception& error) {
        result.Plain(error.what());
    }
    return text;
}

void vxi_close(vxi_handle_ops_s* handle)
{
    if (handle) {
        Destroy()(handle);
    }
}

int vxi_driver_available(vxi_handle_ops_s* handle)
{
    return Perform(handle, Call::kDriverAvailable,
                   [&] { return handle->operations->available(handle); });
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
    return Fetch(handle, Call::kGetStats, Table::kStatistics, [&] {
        if (stats && size < sizeof *stats) {
            return Fail(handle, -EINVAL, "size %u is less than a statistics record", size);
        }
        if (!stats || !stats->area1 || !stats->area2 || !stats->area3) {
            return NullRecord(handle);
        }
        return handle->operations->get_stats(handle, stats, size);
    });
}

int vxi_get_conntrack(vxi_handle_ops_s* handle, vxa_dump_conntrack_s* section, unsigned int size,
                      unsigned int* extra)
{
    return Fetch(handle, Call::kGetConntrack, Table::kConntrack,
                 [&] { return get_conntrack(handle, section, size, extra); });
}

int vxi_get_blacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list)
{
    return Fetch(handle, Call::kGetBlacklist, Table::kBlacklist,
                 [&] { return get_blacklist(handle, list); });
}

int vxi_get_conn_states(vxi_handle_ops_s* handle, vxa_get_conn_states_s* states)
{
    return Fetch(handle, Call::kGetConnStates, Table::kConnStates, [&] {
        return states ? handle->operations->get_conn_states(handle, states) : NullRecord(handle);
    });
}

int vxi_get_varv(vxi_handle_ops_s* handle, vxa_filter_variable_s* variable)
{
    return Perform(handle, Call::kGetVarv,
                   [&] { return variable ? get_variable(handle, variable) : NullRecord(handle); });
}

int vxi_get_var(vxi_handle_ops_s* handle, unsigned int number, vxa_filter_variable_s* variable)
{
    return Perform(handle, Call::kGetVar, [&] {
        if (!variable) {
            return NullRecord(handle);
        }
        variable->number = number;
        return get_variable(handle, variable);
    });
}

int vxi_set_var(vxi_handle_ops_s* handle, unsigned int number, unsigned int value)
{
    return Perform(handle, Call::kSetVar, [&] {
        if (number >= VXA_FILTER_VARIABLE_COUNT) {
            return Fail(handle, VXI_E_UNKNOWN_VARIABLE, "variable %u is unknown", number);
        }
        return handle->operations->set_variable(handle, number, value);
    });
}

int vxi_get_profile_stats(vxi_handle_ops_s* handle, void* record)
{
    return Perform(handle, Call::kGetProfileStats, [&] {
        return record ? handle->operations->get_profile_stats(handle, record) : NullRecord(handle);
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
                   [&] { return get_scan_metrics(handle, request, length); });
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
