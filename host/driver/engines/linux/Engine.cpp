// The Linux engine: what the kernel's own packet filter and tables can tell.
#include "api/Engine.h"

#include "engines/linux/Slots.h"

namespace vxi {

namespace {

Operations operations()
{
    Operations table = {};
    table.close = linux_slots::close;
    table.available = linux_slots::available;
    table.get_stats = linux_slots::get_stats;
    table.get_conntrack = linux_slots::get_conntrack;
    table.get_blacklist = linux_slots::get_blacklist;
    table.get_conn_states = linux_slots::get_conn_states;
    table.get_variable = linux_slots::get_variable;
    table.set_variable = linux_slots::set_variable;
    table.get_profile_stats = linux_slots::get_profile_stats;
    table.set_scan_monitoring = linux_slots::set_scan_monitoring;
    table.get_scan_metrics = linux_slots::get_scan_metrics;
    table.capabilities = linux_slots::capabilities;
    return table;
}

}  // namespace

const Engine& linux_engine()
{
    static const Operations table = operations();
    // Nothing to prepare: handles share the process's monitor, which starts when it is used.
    static const Engine engine = {"linux", &table, nullptr};
    return engine;
}

}  // namespace vxi
