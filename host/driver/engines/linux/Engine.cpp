// The Linux engine: what the kernel's own packet filter and tables can tell.
#include "api/Engine.h"

#include "engines/linux/Slots.h"

namespace vxi {

namespace {

Operations LinuxOperations()
{
    Operations table = {};
    table.close = linux_slots::Close;
    table.available = linux_slots::Available;
    table.get_stats = linux_slots::get_stats;
    table.get_conntrack = linux_slots::get_conntrack;
    table.get_blacklist = linux_slots::get_blacklist;
    table.get_conn_states = linux_slots::get_conn_states;
    table.get_variable = linux_slots::get_variable;
    table.set_variable = linux_slots::SetVariable;
    table.get_profile_stats = linux_slots::get_profile_stats;
    table.set_scan_monitoring = linux_slots::SetScanMonitoring;
    table.get_scan_metrics = linux_slots::get_scan_metrics;
    table.capabilities = linux_slots::Capabilities;
    return table;
}

}  // namespace

const Engine& LinuxEngine()
{
    static const Operations kTable = LinuxOperations();
    // Nothing to prepare: handles share the process's monitor, which starts when it is used.
    static const Engine kEngine = {"linux", &kTable, nullptr};
    return kEngine;
}

}  // namespace vxi
