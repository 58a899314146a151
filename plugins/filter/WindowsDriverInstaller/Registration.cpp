#include "SLB3.h"
#include "WindowsDriverInstaller.h"
#include "fc/fc.h"

// The installer has a round of its own, which no function has joined yet.
void RegisterDriverInstallerFunctions(lua_State *L) {
    const SLB3::Namespace filter(L, kFilterTableName);
}
