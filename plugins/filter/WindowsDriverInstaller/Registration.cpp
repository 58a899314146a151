#include "DriverThreads.h"
#include "DriverVersions.h"
#include "SLB3.h"
#include "ServiceControl.h"
#include "WindowsDriverInstaller.h"
#include "fc/fc.h"

void RegisterDriverInstallerFunctions(lua_State *L) {
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
