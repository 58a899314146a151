// What the driver installer offers to the rest of the module.
#pragma once

#include <lua.hpp>

/// Registers the installer's functions in SLB.filter.
void RegisterDriverInstallerFunctions(lua_State *L);
