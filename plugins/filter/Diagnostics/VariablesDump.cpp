// The driver's filter variables as an archive entry.

#include "ArchiveEntry.h"
#include "DriverErrors.h"
#include "DumpTrace.h"
#include "Dumps.h"
#include "TextSink.h"

namespace Filter::Diagnostics {

bool getDriverVariables(VxaCore::CDom* dom, vxi_handle_ops_s* handle, vxa_filter_variable_s* vars,
                        unsigned int count)
{
    if (!IsDriverOpen(handle) || count == 0) return false;
    for (unsigned int i = 0; i < count; ++i) {
        const int rc = vxi_get_varv(handle, &vars[i]);
        // An older driver has fewer variables: not worth an event.
        if (rc == VXI_E_UNKNOWN_VARIABLE || !ShowErrors(dom, handle, L"GET_VARIABLE", rc))
            return false;
    }
    return true;
}

bool AddDriverVariables(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                        VxaCore::CZipOutputStream& zip)
{
    TraceAt(141, "AddDriverVariables", "AddDriverVariables()");
    vxa_filter_variable_s vars[VXA_FILTER_VARIABLE_COUNT] = {};
    for (unsigned int i = 0; i < VXA_FILTER_VARIABLE_COUNT; ++i) vars[i].number = i;
    if (!getDriverVariables(dom, handle, vars, VXA_FILTER_VARIABLE_COUNT)) return false;
    TextSink sink;
    for (auto& variable : vars) tb_dump_filter_variable(sink.Dump(), &variable, 0);
    return AddTextEntry(zip, kVariablesEntry, sink.Text());
}

}  // namespace Filter::Diagnostics
