// The list of engines, and the choice among them.
#include "api/Registry.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <string>

#include "api/BoundedText.h"

namespace vxi {

namespace {

constexpr const Engine* kEngines[] = {&kLinuxEngine, &kSimEngine};  // the default first

const Engine* FindEngine(const char* name)
{
    for (const Engine* engine : kEngines) {
        if (std::strcmp(engine->name, name) == 0) {
            return engine;
        }
    }
    return nullptr;
}

// Null also if the table of the engine's operations may differ from what dispatch calls.
const Engine* FindUsableEngine(const char* name)
{
    const Engine* const engine = FindEngine(name);
    return engine && engine->abi_version == VXI_ABI_VERSION ? engine : nullptr;
}

struct Registry {
    const char* names[std::size(kEngines) + 1] = {};
    std::string requested;              // by the environment
    std::atomic<const Engine*> chosen;  // null while the environment names an unusable engine

    Registry();
};

Registry::Registry()
{
    for (std::size_t i = 0; i < std::size(kEngines); ++i) {
        names[i] = kEngines[i]->name;
    }
    const char* const name = std::getenv("VXI_ENGINE");
    requested = name && *name ? name : names[0];
    chosen = FindUsableEngine(requested.c_str());
}

Registry& ProcessRegistry()
{
    // Never destroyed: handles may be opened by other objects' destructors at exit.
    static Registry& instance = *new Registry;
    return instance;
}

// Why FindUsableEngine returns null.
std::string UnusableEngine(const std::string& name)
{
    if (const Engine* const engine = FindEngine(name.c_str())) {
        return "engine " + name + " was compiled for version " +
               std::to_string(engine->abi_version) + " of the interface, not for version " +
               std::to_string(VXI_ABI_VERSION);
    }
    std::string message = "unknown engine '" + name + "'; known engines:";
    const char* separator = " ";
    for (const Engine* engine : kEngines) {
        message.append(separator).append(engine->name);
        separator = ", ";
    }
    return message;
}

}  // namespace

const Engine& ChosenEngine()
{
    const Registry& registry = ProcessRegistry();
    const Engine* const chosen = registry.chosen.load(std::memory_order_acquire);
    if (!chosen) {
        throw Error(-EINVAL, "VXI_ENGINE: " + UnusableEngine(registry.requested));
    }
    return *chosen;
}

}  // namespace vxi

unsigned int vxi_abi_version(void)
{
    return VXI_ABI_VERSION;
}

const char* vxi_engine_name(void)
{
    const vxi::Registry& registry = vxi::ProcessRegistry();
    const vxi::Engine* const chosen = registry.chosen.load(std::memory_order_acquire);
    return chosen ? chosen->name : registry.requested.c_str();
}

int vxi_engine_is_simulated(void)
{
    const vxi::Engine* const chosen = vxi::ProcessRegistry().chosen.load(std::memory_order_acquire);
    return chosen && chosen->simulated ? 1 : 0;
}

int vxi_engine_select(const char* name)
{
    const vxi::Engine* const found = name ? vxi::FindUsableEngine(name) : nullptr;
    if (!found) {
        return -EINVAL;
    }
    vxi::ProcessRegistry().chosen.store(found, std::memory_order_release);
    return 0;
}

const char* const* vxi_engine_list(void)
{
    return vxi::ProcessRegistry().names;
}

const char* vxi_unknown_engine(const char* name)
{
    // A plain array, so that a thread that ends has nothing to destroy.
    static thread_local char message[256];
    vxi::BoundedText text(message);
    try {
        text.Escaped(vxi::UnusableEngine(name ? name : ""));
    } catch (const std::bad_alloc&) {
        text.Plain("unknown engine");
    }
    return message;
}
