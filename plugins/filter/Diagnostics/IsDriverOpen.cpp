#include "IsDriverOpen.h"

#include "DiagnosticsTrace.h"
#include "common/Trace.h"

namespace Filter::Diagnostics {

bool IsDriverOpen(vti_handle_t *handle) {
    // compat 56: asks the driver once more for the trace
    if (VtaCore::LogTraceIsEnabled(kDiagnosticsTrace))
        Trace(kDiagnosticsTrace, "IsDriverOpen %d", vti_driver_available(handle));
    return vti_driver_available(handle) > 0;
}

}  // namespace Filter::Diagnostics
