// Opens and closes handles, and explains why none can be opened.
#include <cerrno>
#include <memory>
#include <string>

#include "api/BoundedText.h"
#include "api/Call.h"
#include "api/Engine.h"
#include "api/Failures.h"
#include "api/Registry.h"
#include "engines/fault/Fault.h"

using namespace vxi;

namespace {

// Plain arrays, so that a thread that ends has nothing to destroy.
thread_local char open_error[512];
thread_local char environment_error[512];
thread_local int open_status = 0;

// Throws an Error that names the chosen engine.
[[noreturn]] void RefuseToOpen(const Engine& engine, const Error& cause)
{
    throw Error(cause.Status(), std::string("engine ") + engine.name + ": " +
                                    CallName(Call::kOpen) + ": " + cause.what());
}

std::unique_ptr<vxi_handle_ops_s> OpenHandle()
{
    const Engine& engine = ChosenEngine();
    fault::CheckEnvironment();
    try {
        if (const auto answer = fault::NextAnswer(Call::kOpen)) {
            throw Error(answer->status, answer->message);
        }
        if (engine.check_environment) {
            engine.check_environment();
        }
    } catch (const Error& cause) {
        RefuseToOpen(engine, cause);
    }
    auto handle = std::make_unique<vxi_handle_ops_s>();
    handle->operations = &engine.operations;
    handle->engine = &engine;
    fault::NoteSuccess(Call::kOpen);
    return handle;
}

// Returns the status for an exception that OpenHandle has thrown.
int StatusOf(const std::exception& error)
{
    if (const auto* cause = dynamic_cast<const Error*>(&error)) {
        return cause->Status();
    }
    return dynamic_cast<const std::bad_alloc*>(&error) ? -ENOMEM : -EIO;
}

void CheckEnvironment()
{
    const Engine& engine = ChosenEngine();
    fault::CheckEnvironment();
    if (engine.check_environment) {
        engine.check_environment();
    }
}

}  // namespace

vxi_handle_ops_s* vxi_open(void)
{
    BoundedText message(open_error);
    open_status = 0;
    try {
        return OpenHandle().release();
    } catch (const std::exception& error) {
        CountFailure(Call::kOpen);
        message.Escaped(error.what());
        open_status = StatusOf(error);
        return nullptr;
    }
}

const char* vxi_open_error(void)
{
    return open_error;
}

int vxi_open_status(void)
{
    return open_status;
}

const char* vxi_check_environment(void)
{
    BoundedText message(environment_error);
    try {
        CheckEnvironment();
    } catch (const std::exception& error) {
        message.Escaped(error.what());
    }
    return environment_error;
}

void vxi_close(vxi_handle_ops_s* handle)
{
    if (handle) {
        handle->operations->close(handle);
        delete handle;
    }
}
