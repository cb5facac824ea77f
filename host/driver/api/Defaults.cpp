// What answers where an engine has nothing to answer with.
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <map>
#include <mutex>
#include <type_traits>

#include "api/Engine.h"
#include "api/Message.h"

namespace vxi {

namespace {

int NotSupported(vxi_handle_ops_s* handle)
{
    BoundedText(handle->error)
        .Plain("not supported by engine ")
        .Plain(handle->operations->engine)
        .Plain(": ")
        .Plain(handle->operation);
    handle->explained = true;
    return -EOPNOTSUPP;
}

template <typename... Arguments>
int Unsupported(vxi_handle_ops_s* handle, Arguments...)
{
    return NotSupported(handle);
}

void NothingToClose(vxi_handle_ops_s*) {}

// "Does the driver answer" has no error values of its own: it does not.
int NotAvailable(vxi_handle_ops_s* handle)
{
    NotSupported(handle);
    return 0;
}

int NoCapabilities(vxi_handle_ops_s* handle, vxi_capability_s* rows, unsigned int count)
{
    constexpr auto kAll = static_cast<unsigned int>(std::size(kFacilityNames));
    for (unsigned int i = 0; i < count && i < kAll; ++i) {
        rows[i].name = kFacilityNames[i];
        rows[i].available = 0;
        std::snprintf(rows[i].detail, sizeof rows[i].detail, "not supported by engine %s",
                      handle->operations->engine);
    }
    return static_cast<int>(kAll);
}

template <typename Slot>
void Fill(Slot& slot, std::common_type_t<Slot> answer)
{
    if (!slot) {
        slot = answer;
    }
}

Operations Filled(const Engine& engine)
{
    Operations table = *engine.operations;
    Fill(table.engine, engine.name);
    Fill(table.close, NothingToClose);
    Fill(table.available, NotAvailable);
    Fill(table.get_stats, Unsupported);
    Fill(table.get_conntrack, Unsupported);
    Fill(table.get_blacklist, Unsupported);
    Fill(table.get_conn_states, Unsupported);
    Fill(table.get_variable, Unsupported);
    Fill(table.set_variable, Unsupported);
    Fill(table.get_profile_stats, Unsupported);
    Fill(table.set_scan_monitoring, Unsupported);
    Fill(table.get_scan_metrics, Unsupported);
    Fill(table.capabilities, NoCapabilities);
    return table;
}

}  // namespace

const Operations* Complete(const Engine& engine)
{
    // Never destroyed: handles still open at exit point into it.
    static std::mutex& mutex = *new std::mutex;
    static auto& tables = *new std::map<const Engine*, Operations>;
    const std::lock_guard<std::mutex> lock(mutex);
    const auto known = tables.find(&engine);
    return known != tables.end() ? &known->second
                                 : &tables.emplace(&engine, Filled(engine)).first->second;
}

}  // namespace vxi
