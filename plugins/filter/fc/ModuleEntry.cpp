// The library's entry routine, and the function through which Lua loads the module.

#include <lua.hpp>
#include <windows.h>

#include "FunctionTable.h"
#include "ModuleObjects.h"
#include "common/SharedObjects.h"
#include "vta_core.h"
#include "vti.h"

namespace {

/// Hands the profiler's words to the driver-interface library, once per process.
void InstallProfilerAtModuleEntry() {
    const wxCriticalSectionLocker lock(moduleInitLock);
    if (profilerInstalled == 0) {
        vti_set_profiler(&profiler_blockfilter, &profiler_running);
        profilerInstalled = 1;
    }
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
    InstallProfilerAtModuleEntry();
    FillFunctionTable(L);
    lua_pushboolean(L, 1);
    return 1;
}
