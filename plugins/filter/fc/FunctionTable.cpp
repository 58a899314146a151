#include "FunctionTable.h"

#include "Diagnostics/Diagnostics.h"
#include "Registration.h"
#include "SLB3.h"
#include "SystemHealth/SystemHealth.h"
#include "WindowsDriverInstaller/WindowsDriverInstaller.h"
#include "WindowsFirewall/WindowsFirewall.h"
#include "flags/DriverFlags.h"
#include "metrics/ConnMetrics.h"
#include "trace/TraceBridge.h"

namespace {

void FillFunctionTableFirst(lua_State *L) {
    SLB3::Namespace filter(L, kFilterTableName);
    RegisterBound(L, filter, "EnableNativeFirewall", WindowsFirewall::EnableFirewall);
    RegisterBound(L, filter, "DisableNativeFirewall", WindowsFirewall::DisableFirewall);
    RegisterDirect(L, filter, "AddDriverDiagnostics", AddDriverDiagnostics);
    RegisterDirect(L, filter, "setup_qbtrace", setup_qbtrace);
    RegisterDirect(L, filter, "AddToConnMetrics", AddToConnMetrics);
    RegisterDirect(L, filter, "UpdateConnMetrics", UpdateConnMetrics);
    RegisterDirect(L, filter, "GetConnMetrics", GetConnMetrics);
    RegisterDirect(L, filter, "CheckSystemHealthMetrics", CheckSystemHealthMetrics);
    RegisterDirect(L, filter, "GetSysHealthMetrics", GetSysHealthMetrics);
    RegisterDirect(L, filter, "GetSysHealthEnabled", GetSysHealthEnabled);
    RegisterDirect(L, filter, "GetScanMetricPort", GetScanMetricPort);
    RegisterDirect(L, filter, "GetDriverCheckedFromReg", GetDriverCheckedFromReg);
    RegisterDirect(L, filter, "SetDriverCheckedToReg", SetDriverCheckedToReg);
    RegisterDirect(L, filter, "GetDriverHookedFromReg", GetDriverHookedFromReg);
    RegisterDirect(L, filter, "SetDriverHookedToReg", SetDriverHookedToReg);
    RegisterDirect(L, filter, "GetUncheckedIfc", GetUncheckedInterface);
    RegisterDirect(L, filter, "SetUncheckedIfc", SetUncheckedInterface);
    RegisterDirect(L, filter, "GetDriverStoppedByBLPTimestamp", GetDriverStoppedByBLPTimestamp);
}

void AddDriverInstallerToFunctionTable(lua_State *L) {
    SLB3::Namespace filter(L, kFilterTableName);
    RegisterDirect(L, filter, "GetFileVersion", GetFileVersion);
    RegisterBound(L, filter, "InstallOrUpdateDriver", InstallOrUpdateDriver);
    RegisterBound(L, filter, "UninstallDriver", UninstallDriver);
    RegisterBound(L, filter, "StartWFPDriver", StartWFPCallout);
    RegisterBound(L, filter, "StopWFPDriver", StopWFPCallout);
    RegisterBound(L, filter, "RestartWFPDriver", RestartWFPCallout);
    RegisterBound(L, filter, "StopNDISDriver", StopNDISDriver);
    RegisterBound(L, filter, "StartNDISDriver", StartNDISDriver);
    RegisterBound(L, filter, "RestartNDISDriver", RestartNDISDriver);
}

void AddFirewallApplicationsToFunctionTable(lua_State *L) {
    SLB3::Namespace filter(L, kFilterTableName);
    RegisterBound(L, filter, "WindowsFirewallAddApp", WindowsFirewall::WindowsFirewallAddApp);
    RegisterBound(L, filter, "WindowsFirewallRemoveApp", WindowsFirewall::WindowsFirewallRemoveApp);
}

}  // namespace

// A Lua error (no memory) in a round skips the end of its namespace, which costs the registry of this Lua state one
// reference until the state is closed.
void FillFunctionTable(lua_State *L) {
    FillFunctionTableFirst(L);
    AddDriverInstallerToFunctionTable(L);
    AddFirewallApplicationsToFunctionTable(L);
}
