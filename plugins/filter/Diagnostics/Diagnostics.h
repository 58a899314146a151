// What the driver diagnostics offer to the rest of the module: their Lua function.
#pragma once

#include <lua.hpp>

/// Lua: boolean = f(dom, handle, zip). Adds the drivers' state to a diagnostic package; always true. Raises an error
/// for a wrong argument.
int AddDriverDiagnostics(lua_State *L);
