// The Lua function of the driver diagnostics.
#include "Diagnostics.h"
#include "DriverContent.h"
#include "common/Trace.h"
#include "common/UserdataArguments.h"

int AddDriverDiagnostics(lua_State *L) {
    Trace(kFilterTrace, "AddDriverDiagnostics");
    VtaCore::CDom *const dom = GetDomArg(L);
    if (dom == nullptr)
        return luaL_argerror(L, 1, "CDom object expected");
    const DriverHandleBlock *const block = GetDriverHandleArg(L, 2);
    if (block == nullptr)
        return luaL_argerror(L, 2, "vti handle expected");
    vti_handle_t *const handle = block->handle;
    if (handle == nullptr)
        return luaL_argerror(L, 2, "vti handle already closed");
    VtaCore::CZipOutputStream *const zip = GetZipArg(L, 3);
    if (zip == nullptr)
        return luaL_argerror(L, 3, "CZipOutputStream object expected");
    const bool added = Filter::Diagnostics::AddDriverContent(*dom, handle, *zip);
    Trace(kFilterTrace, "AddDriverContent returned %d", added);
    lua_pushboolean(L, added);
    return 1;
}
