// Driver availability, and failed driver calls as agent events.

#include "DriverErrors.h"

#include <langinfo.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>

#include "DumpTrace.h"
#include "StringConversion.h"
#include "VxaCore/LogTrace.h"

namespace Filter::Diagnostics {
namespace {

constexpr unsigned int kErrorMessageSize = 80;
constexpr std::size_t kMaxOperationLength = 64;

bool LocaleIsUtf8()
{
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

// Returns "OPERATION|STATUS (MESSAGE)". The buffer is one byte larger than the size that the
// driver gets, in case it leaves out the terminator.
wxString Describe(vxi_handle_ops_s* handle, wchar_t const* operation, int rc)
{
    char message[kErrorMessageSize + 1] = {};
    vxi_get_error(handle, message, kErrorMessageSize);
    char rest[160];
    std::snprintf(rest, sizeof rest, "|%08x (%.128s)", static_cast<unsigned int>(rc), message);
    wxString description(operation, wcsnlen(operation, kMaxOperationLength));
    description += fc::Decode(rest);
    return description;
}

// The description is the format, without arguments; the host writes its conversions as they are.
void WriteEvent(VxaCore::CDom* dom, const wxString& description, const std::string& utf8)
{
    if (LocaleIsUtf8())
        dom->DoAgentEventWriteUtf8(kDriverCallFailedEvent, utf8.c_str());
    else
        dom->DoAgentEventWrite(kDriverCallFailedEvent, description);
}

}  // namespace

bool IsDriverOpen(vxi_handle_ops_s* handle)
{
    // The trace queries the driver separately, so the result is never older than the trace.
    if (VxaCore::LogTraceIsEnabled(s_Trace))
        TraceAt(392, "IsDriverOpen", "IsDriverOpen %d", vxi_driver_available(handle));
    return vxi_driver_available(handle) > 0;
}

bool ShowErrors(VxaCore::CDom* dom, vxi_handle_ops_s* handle, wchar_t const* operation, int rc)
{
    if (rc == 0) return true;
    const wxString description = Describe(handle, operation, rc);
    const std::string utf8 = fc::Encode(description);
    TraceAt(408, "ShowErrors", "AgentWrite 1001 %s", utf8.c_str());
    WriteEvent(dom, description, utf8);
    return false;
}

}  // namespace Filter::Diagnostics
