// What an engine is: a name, a way to open a handle, and a full table of operations.
//
// Dispatch (Dispatch.cpp) owns the public calls: it rejects null handles and bad
// arguments, then calls through the handle's table without null checks, because
// every slot that an engine leaves empty is filled from the defaults when the handle
// is made. A default answers -EOPNOTSUPP with the text
// "not supported by engine NAME: OPERATION".
#pragma once

#include <cstddef>
#include <string>

#include "api/Failures.h"
#include "vxi/engine.h"

namespace vxi {

// The rows of vxi_capabilities.
inline constexpr const char* kFacilityNames[] = {"scan-metrics", "statistics",  "variables",
                                                 "conntrack",    "conn-states", "blacklist",
                                                 "rule-profile"};

struct Operations {
    const char* engine;
    void (*close)(vxi_handle_ops_s*);
    int (*available)(vxi_handle_ops_s*);
    int (*get_stats)(vxi_handle_ops_s*, vxa_stats_v2_s*, unsigned int size);
    int (*get_conntrack)(vxi_handle_ops_s*, vxa_dump_conntrack_s*, unsigned int size,
                         unsigned int* extra);
    int (*get_blacklist)(vxi_handle_ops_s*, vxa_blacklist_get_addrs_s*);
    int (*get_conn_states)(vxi_handle_ops_s*, vxa_get_conn_states_s*);
    int (*get_variable)(vxi_handle_ops_s*, vxa_filter_variable_s*);
    int (*set_variable)(vxi_handle_ops_s*, unsigned int number, unsigned int value);
    int (*get_profile_stats)(vxi_handle_ops_s*, void* record);
    int (*set_scan_monitoring)(vxi_handle_ops_s*, scan_monitor_config*);
    int (*get_scan_metrics)(vxi_handle_ops_s*, scan_metrics_request*, unsigned int length);
    int (*capabilities)(vxi_handle_ops_s*, vxi_capability_s*, unsigned int count);
};

struct Engine {
    const char* name;
    const Operations* operations;
    // Prepares handle->state; 0, or a negative status with `error` set. A half-built handle
    // goes the normal way: close is called then too, so it accepts whatever state was
    // reached, null included. May be null when there is nothing to prepare.
    int (*open)(vxi_handle_ops_s* handle, std::string& error);
    // False with `error` set while the engine's own environment variable cannot be used; open
    // fails then, too. May be null when it reads none.
    bool (*environment_usable)(std::string& error) = nullptr;
};

const Engine& LinuxEngine();
const Engine& SimEngine();

// The table with every empty slot filled; lives for the process.
const Operations* Complete(const Engine& engine);

// Stores the text of a failure in the handle and returns the status, so that an error
// path is one line:  return fail(h, -EPERM, "nf_tables needs CAP_NET_ADMIN");
// "engine NAME: OPERATION: " goes in front (the operation is the one being dispatched).
int Fail(vxi_handle_ops_s* handle, int status, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Sends one message to the handle's trace handler when its level admits it.
void Trace(vxi_handle_ops_s* handle, int level, const char* source, const char* function, int line,
           const char* format, ...) __attribute__((format(printf, 6, 7)));
#define VXI_TRACE(handle, level, source, ...) \
    ::vxi::Trace((handle), (level), (source), __func__, __LINE__, __VA_ARGS__)

}  // namespace vxi

struct vxi_handle_ops_s {
    const vxi::Operations* operations;  // first: the handle is known by it
    void* state;                        // the engine's own, released by its close
    const char* operation;              // the public call being dispatched
    int trace_level;
    int (*trace_handler)(int, const char*, const char*, int, char*);
    char error[256];
    bool explained;  // a text was stored during the call being dispatched
    vxi::Failures failures;
};
