#include "DriverContent.h"

#include "DiagnosticsTrace.h"
#include "common/Trace.h"

namespace Filter::Diagnostics {

bool AddDriverContent(VtaCore::CDom &dom, vti_handle_t *handle, VtaCore::CZipOutputStream &zip) {
    Trace(kDiagnosticsTrace, "AddDriverContent()");
    if (!AddDriverStatistics(dom, handle, zip))
        Trace(kDiagnosticsTrace, "AddDriverStatistics diagnostics failed");
    if (!AddDriverVariables(dom, handle, zip))
        Trace(kDiagnosticsTrace, "AddDriverVariables diagnostics failed");
    if (!AddDriverConnTrack(dom, handle, zip))
        Trace(kDiagnosticsTrace, "AddDriverConnTrack diagnostics failed");
    if (!AddDriverBlacklist(dom, handle, zip))
        Trace(kDiagnosticsTrace, "AddDriverBlacklist diagnostics failed");
    if (!AddDriverRuleStats(dom, handle, zip))
        Trace(kDiagnosticsTrace, "AddDriverRuleStats diagnostics failed");
    // compat 59: true whatever failed
    return true;
}

}  // namespace Filter::Diagnostics
