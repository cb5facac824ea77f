// An engine: a version, a name and a full table of operations.
//
// The public calls check their arguments and then call the table without null checks: an engine
// that lacks an operation inherits it from DefaultOperations. An operation returns 0 or a
// nonnegative count and throws an Error when it fails; dispatch turns whatever it throws into a
// status and the handle's error message.
#pragma once

#include <type_traits>

#include "api/Error.h"
#include "api/Handle.h"
#include "records/ScanTarget.h"
#include "vxi/engine.h"

namespace vxi {

// The rows of vxi_capabilities.
inline constexpr const char* kFacilityNames[] = {
#define FACILITY(Name, name) name,
#include "api/operations.def"
};

struct Operations {
    void (*close)(vxi_handle_ops_s*);  // frees handle->state, which may be null; must not throw
#define OPERATION(Name, name, parameters) std::add_pointer_t<int parameters> name;
#include "api/operations.def"
};

struct Engine {
    unsigned int abi_version;  // VXI_ABI_VERSION when the engine was compiled; always first
    const char* name;
    Operations operations;
    // Throws an Error while the engine's own environment variable cannot be used: vxi_open fails
    // then. Null for an engine that reads none.
    void (*check_environment)();
    bool simulated = false;  // simulates a machine, see vxi_sim_machine
};

extern const Engine kLinuxEngine;
extern const Engine kSimEngine;

// Every operation fails with -EOPNOTSUPP.
struct UnsupportedOperations {
    [[noreturn]] static void Fail();

#define OPERATION(Name, name, parameters) \
    static int Name parameters            \
    {                                     \
        Fail();                           \
    }
#include "api/operations.def"
};

// The default operations. An engine's class of operations inherits these and hides those that it
// implements.
struct DefaultOperations : UnsupportedOperations {
    static void Close(vxi_handle_ops_s*) {}
    static int DriverAvailable(vxi_handle_ops_s*) { return 0; }
    static int Capabilities(vxi_handle_ops_s*, vxi_capability_s* rows, unsigned int count);
};

template <typename Implementation>
constexpr Operations MakeOperations()
{
    Operations table{};
    table.close = Implementation::Close;
#define OPERATION(Name, name, parameters) table.name = Implementation::Name;
#include "api/operations.def"
    return table;
}

}  // namespace vxi
