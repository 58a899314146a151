#include "DriverVersions.h"
#include "SLB3.h"
#include "WindowsDriverInstaller.h"
#include "fc/fc.h"

void RegisterDriverInstallerFunctions(lua_State *L) {
    SLB3::Namespace filter(L, kFilterTableName);
    RegisterDirect(L, filter, "GetFileVersion", GetFileVersion);
}
