// The engines, and the choice among them.
#include "api/Registry.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace vxi {

namespace {

struct Registered {
    const Engine* engine;
    const Operations* operations;
};

constexpr unsigned kEngineCount = 2;

struct Registry {
    Registered engines[kEngineCount];
    const char* names[kEngineCount + 1];
    // Null while the environment names an engine that does not exist.
    std::atomic<const Registered*> chosen;
    std::string wanted;

    Registry();
    const Registered* Find(const char* name) const;
};

Registry::Registry()
    : engines{{&LinuxEngine(), Complete(LinuxEngine())}, {&SimEngine(), Complete(SimEngine())}},
      names{engines[0].engine->name, engines[1].engine->name, nullptr}
{
    const char* name = std::getenv("VXI_ENGINE");
    wanted = name && *name ? name : names[0];
    chosen = Find(wanted.c_str());
}

const Registered* Registry::Find(const char* name) const
{
    for (const Registered& each : engines) {
        if (std::strcmp(each.engine->name, name) == 0) {
            return &each;
        }
    }
    return nullptr;
}

Registry& GlobalRegistry()
{
    // Never destroyed: handles may be opened by other objects' destructors at exit.
    static Registry& instance = *new Registry;
    return instance;
}

std::string UnknownEngine(const Registry& known)
{
    std::string text = "VXI_ENGINE names no engine: \"" + known.wanted + "\" (known engines:";
    for (const char* const* name = known.names; *name; ++name) {
        text += std::string(name == known.names ? " " : ", ") + *name;
    }
    return text + ")";
}

}  // namespace

const Engine* ChosenEngine(const Operations*& operations, std::string& error)
{
    const Registered* chosen = GlobalRegistry().chosen.load(std::memory_order_acquire);
    if (!chosen) {
        error = UnknownEngine(GlobalRegistry());
        return nullptr;
    }
    operations = chosen->operations;
    return chosen->engine;
}

}  // namespace vxi

const char* vxi_engine_name(void)
{
    const vxi::Registry& all = vxi::GlobalRegistry();
    const vxi::Registered* chosen = all.chosen.load(std::memory_order_acquire);
    return chosen ? chosen->engine->name : all.wanted.c_str();
}

int vxi_engine_select(const char* name)
{
    vxi::Registry& all = vxi::GlobalRegistry();
    const vxi::Registered* found = name ? all.Find(name) : nullptr;
    if (!found) {
        return -EINVAL;
    }
    all.chosen.store(found, std::memory_order_release);
    return 0;
}

const char* const* vxi_engine_list(void)
{
    return vxi::GlobalRegistry().names;
}
