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

int not_supported(vxi_handle_ops_s* handle)
{
    BoundedText(handle->error)
        .plain("not supported by engine ")
        .plain(handle->operations->engine)
        .plain(": ")
        .plain(handle->operation);
    handle->explained = true;
    return -EOPNOTSUPP;
}

template <typename... Arguments>
int unsupported(vxi_handle_ops_s* handle, Arguments...)
{
    return not_supported(handle);
}

void nothing_to_close(vxi_handle_ops_s*) {}

// "Does the driver answer" has no error values of its own: it does not.
int not_available(vxi_handle_ops_s* handle)
{
    not_supported(handle);
    return 0;
}

int no_capabilities(vxi_handle_ops_s* handle, vxi_capability_s* rows, unsigned int count)
{
    constexpr auto all = static_cast<unsigned int>(std::size(facility_names));
    for (unsigned int i = 0; i < count && i < all; ++i) {
        rows[i].name = facility_names[i];
        rows[i].available = 0;
        std::snprintf(rows[i].detail, sizeof rows[i].detail, "not supported by engine %s",
                      handle->operations->engine);
    }
    return static_cast<int>(all);
}

template <typename Slot>
void fill(Slot& slot, std::common_type_t<Slot> answer)
{
    if (!slot) {
        slot = answer;
    }
}

Operations filled(const Engine& engine)
{
    Operations table = *engine.operations;
    fill(table.engine, engine.name);
    fill(table.close, nothing_to_close);
    fill(table.available, not_available);
    fill(table.get_stats, unsupported);
    fill(table.get_conntrack, unsupported);
    fill(table.get_blacklist, unsupported);
    fill(table.get_conn_states, unsupported);
    fill(table.get_variable, unsupported);
    fill(table.set_variable, unsupported);
    fill(table.get_profile_stats, unsupported);
    fill(table.set_scan_monitoring, unsupported);
    fill(table.get_scan_metrics, unsupported);
    fill(table.capabilities, no_capabilities);
    return table;
}

}  // namespace

const Operations* complete(const Engine& engine)
{
    // Never destroyed: handles still open at exit point into it.
    static std::mutex& mutex = *new std::mutex;
    static auto& tables = *new std::map<const Engine*, Operations>;
    const std::lock_guard<std::mutex> lock(mutex);
    const auto known = tables.find(&engine);
    return known != tables.end() ? &known->second
                                 : &tables.emplace(&engine, filled(engine)).first->second;
}

}  // namespace vxi
