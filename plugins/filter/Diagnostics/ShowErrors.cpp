#include "ShowErrors.h"

#include "DiagnosticsTrace.h"
#include "common/DriverFailure.h"
#include "common/Trace.h"

namespace Filter::Diagnostics {

namespace {

constexpr std::uint32_t kErrorBytes = 80;

}  // namespace

bool ShowErrors(VtaCore::CDom &dom, vti_handle_t *handle, const wchar_t *label, std::int32_t status) {
    if (status == 0)
        return true;
    const wxString message = wxString::Format("%.64s|%08x (%.128s)", label, static_cast<std::uint32_t>(status),
                                              DriverFailureText(handle, kErrorBytes));
    Trace(kDiagnosticsTrace, "AgentWrite 1001 %s", message);
    // compat 55: the message is the format, so a percent sign in the driver's text is a directive
    dom.AgentEventWrite(kDriverFailureEvent, message);
    return false;
}

}  // namespace Filter::Diagnostics
