// An open handle and the trace messages that it delivers.
#pragma once

#include "api/Failures.h"
#include "vxi/vxi.h"

namespace vxi {

struct Engine;
struct Operations;

// Sends one message to the handle's trace handler when its level admits it.
void Trace(vxi_handle_ops_s* handle, int level, const char* source, const char* function, int line,
           const char* format, ...) __attribute__((format(printf, 6, 7)));
#define VXI_TRACE(handle, level, source, ...) \
    ::vxi::Trace((handle), (level), (source), __func__, __LINE__, __VA_ARGS__)

}  // namespace vxi

struct vxi_handle_ops_s {
    const vxi::Operations* operations;  // first: part of the interface
    const vxi::Engine* engine;
    void* state;  // the engine's, freed by its close
    int trace_level;
    int (*trace_handler)(int, const char*, const char*, int, char*);
    char error[256];  // of the last failed call
    vxi::Failures failures;
};
