// The library's entry routine, and the function through which Lua loads the module.

#include <lua.hpp>
#include <windows.h>

#include "ConnMetrics.h"
#include "Diagnostics/Diagnostics.h"
#include "DriverFlags.h"
#include "ModuleObjects.h"
#include "Registration.h"
#include "SLB3.h"
#include "SystemHealth/SystemHealth.h"
#include "TraceBridge.h"
#include "WindowsDriverInstaller/WindowsDriverInstaller.h"
#include "WindowsFirewall/WindowsFirewall.h"
#include "vta_core.h"
#include "vti.h"

namespace {

/// Hands the profiler's words to the driver-interface library, once per process.
void InstallProfiler() {
    const wxCriticalSectionLocker lock(moduleInitLock);
    if (profilerInstalled == 0) {
        vti_set_profiler(&profiler_blockfilter, &profiler_running);
        profilerInstalled = 1;
    }
}

void RegisterFilterFunctions(lua_State *L) {
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

void RegisterFirewallApplicationFunctions(lua_State *L) {
    SLB3::Namespace filter(L, kFilterTableName);
    RegisterBound(L, filter, "WindowsFirewallAddApp", WindowsFirewall::WindowsFirewallAddApp);
    RegisterBound(L, filter, "WindowsFirewallRemoveApp", WindowsFirewall::WindowsFirewallRemoveApp);
}

}  // namespace

/// Stores the library's instance on every notification, and always reports success.
BOOL WINAPI DllMain(HINSTANCE instance, DWORD, LPVOID) {
    moduleInstance = instance;
    return TRUE;
}

/// Lua: require "fc" yields true and leaves the module's functions in SLB.filter. Any number of
/// states may open the module, on any threads.
extern "C" int luaopen_fc(lua_State *L) {
    InstallProfiler();
    // A Lua error (no memory) in a round skips the end of its namespace, which costs the registry of
    // this Lua state one reference until the state is closed.
    RegisterFilterFunctions(L);
    RegisterDriverInstallerFunctions(L);
    RegisterFirewallApplicationFunctions(L);
    lua_pushboolean(L, 1);
    return 1;
}
