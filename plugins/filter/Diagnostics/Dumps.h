// The driver's tables as entries of the diagnostic archive, one file per dump.
//
// A dump has a query (getDriver...), which reports a failed driver call as an agent event, and
// an archive function (AddDriver...), which adds the answer as one entry. All run on the
// caller's thread and hold no lock.
#pragma once

#include "Export.h"
#include "VxaCore/Dom.h"
#include "VxaCore/ZipOutputStream.h"
#include "vxi/vxi.h"

namespace Filter::Diagnostics {

// Each returns true if the driver delivered, and false if it is not available or a call failed.

// On success `list` is a block from malloc that the caller frees.
FC_PUBLIC bool getDriverBlacklist(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                  vxa_blacklist_get_addrs_s*& list);
FC_PUBLIC bool getDriverConnStates(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                   vxa_get_conn_states_s* states);
// Fills in the values of `count` numbered records. An unknown variable is a failure without an
// event.
FC_PUBLIC bool getDriverVariables(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                  vxa_filter_variable_s* vars, unsigned int count);
// Fails only if the driver cannot count its connections. On success `table` is a block from
// malloc that the caller frees, a UDP section followed by a TCP section; or it is null because
// there is no driver, no connection or not enough memory.
FC_PUBLIC bool getDriverConnTrack(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                  vxa_dump_conntrack_s*& table);
FC_PUBLIC bool getDriverStatistics(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                   vxa_stats_v2_s* stats, unsigned int size);

// Each returns whether the archive accepted the entry; false without an entry if the query
// failed. Differences are noted.

FC_PUBLIC bool AddDriverBlacklist(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                  VxaCore::CZipOutputStream& zip);
// Not part of the bundle: hosts that want this entry call it.
FC_PUBLIC bool AddDriverConnStates(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                   VxaCore::CZipOutputStream& zip);
FC_PUBLIC bool AddDriverVariables(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                  VxaCore::CZipOutputStream& zip);
FC_PUBLIC bool AddDriverStatistics(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                   VxaCore::CZipOutputStream& zip);
// Returns true without an entry if the query delivered no table.
FC_PUBLIC bool AddDriverConnTrack(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                  VxaCore::CZipOutputStream& zip);
// Always adds the entry; it is empty if the driver delivered no rule statistics.
FC_PUBLIC bool AddDriverRuleStats(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                  VxaCore::CZipOutputStream& zip);

}  // namespace Filter::Diagnostics
