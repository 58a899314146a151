#include "SLB3.h"
#include "WindowsDriverInstaller.h"
#include "fc/fc.h"

void RegisterDriverInstallerFunctions(lua_State *L) {
    const SLB3::Namespace filter(L, kFilterTableName);
}
