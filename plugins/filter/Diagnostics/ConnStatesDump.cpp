// The driver's counts of sockets by state as an archive entry.

#include "ArchiveEntry.h"
#include "DriverErrors.h"
#include "DumpTrace.h"
#include "Dumps.h"
#include "TextSink.h"

namespace Filter::Diagnostics {

bool getDriverConnStates(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                         vxa_get_conn_states_s* states)
{
    return IsDriverOpen(handle) &&
           ShowErrors(dom, handle, L"GET_CONN_STATES", vxi_get_conn_states(handle, states));
}

bool AddDriverConnStates(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                         VxaCore::CZipOutputStream& zip)
{
    TraceAt(37, "AddDriverConnStates", "AddDriverConnStates()");
    vxa_get_conn_states_s states;
    if (!getDriverConnStates(dom, handle, &states)) return false;
    TextSink sink;
    tb_dump_conn_states(sink.Dump(), &states);
    return AddTextEntry(zip, kConnStatesEntry, sink.Text());
}

}  // namespace Filter::Diagnostics
