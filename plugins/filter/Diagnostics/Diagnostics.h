// Driver diagnostics: the driver's tables as entries of the diagnostic archive.
//
// Each table has a query (getDriver...) that asks the driver and reports a failed call
// as an agent event, and an archive function (AddDriver...) that turns the answer into
// one entry. Everything runs on the caller's thread and holds no lock.
#pragma once

#include <wx/string.h>

#include "Export.h"
#include "Trace.h"
#include "VxaCore/Dom.h"
#include "VxaCore/ZipOutputStream.h"
#include "vxi/vxi.h"

namespace Filter {

extern const wxString s_Trace;        // "diagnostics"
extern const wxString s_EmptyString;  // entries carry no comment

namespace Diagnostics {

// ---- query frame (Frame.cpp) -----------------------------------------------------------

// Whether the driver behind the handle is available.
FC_PUBLIC bool IsDriverOpen(vxi_handle_ops_s* handle);

// Whether the driver call `operation` succeeded (rc 0). If not, writes agent event 1001
// with operation, code and the driver's error text, and a trace line.
FC_PUBLIC bool ShowErrors(VxaCore::CDom* dom, vxi_handle_ops_s* handle, wchar_t const* operation,
                          int rc);

// Print function lent to the driver library's text dumps; the sink's context is a
// wxTextOutputStream. One call contributes at most 1023 characters.
FC_PUBLIC void tosprintf(tb_dump_s* dump, char const* format, ...)
    __attribute__((format(printf, 2, 3)));

// ---- tables ----------------------------------------------------------------------------

// True with a record in `list` that the caller frees; false otherwise.
FC_PUBLIC bool getDriverBlacklist(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                  vxa_blacklist_get_addrs_s*& list);
FC_PUBLIC bool getDriverConnStates(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                   vxa_get_conn_states_s* states);
// Fills the values of `count` numbered records. An unknown variable is no event.
FC_PUBLIC bool getDriverVariables(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                  vxa_filter_variable_s* vars, unsigned int count);
// False only when the number of connections cannot be had. True otherwise: with a UDP and
// a TCP section in `table`, which the caller frees, or with null when there is no driver,
// no connection or no memory for them.
FC_PUBLIC bool getDriverConnTrack(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                  vxa_dump_conntrack_s*& table);
FC_PUBLIC bool getDriverStatistics(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                   vxa_stats_v2_s* stats, unsigned int size);

// Each adds its entry and returns what the archive said; false without an entry when the
// driver could not deliver.
FC_PUBLIC bool AddDriverBlacklist(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                  VxaCore::CZipOutputStream& zip);
FC_PUBLIC bool AddDriverConnStates(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                   VxaCore::CZipOutputStream& zip);
FC_PUBLIC bool AddDriverVariables(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                  VxaCore::CZipOutputStream& zip);
FC_PUBLIC bool AddDriverStatistics(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                   VxaCore::CZipOutputStream& zip);
// True without an entry when there is no driver, no connection or no memory.
FC_PUBLIC bool AddDriverConnTrack(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                  VxaCore::CZipOutputStream& zip);
// The entry is added in any case; empty when the driver has no rule statistics.
FC_PUBLIC bool AddDriverRuleStats(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                  VxaCore::CZipOutputStream& zip);

// All of them but the connection states, one after the other. Always true: one failing
// dump never stops the others.
FC_PUBLIC bool AddDriverContent(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                                VxaCore::CZipOutputStream& zip);

}  // namespace Diagnostics
}  // namespace Filter
