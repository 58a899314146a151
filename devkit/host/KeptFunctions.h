// Functions of the module that a script has kept over a restart of the module: their code is gone.
#pragma once

#include <lua.hpp>

struct HostState;

/// From now on, `require "fc"` leaves functions in SLB.filter that know when their code is gone, and raise an error
/// then. Otherwise they behave as the module's own do. Raises Lua errors.
void GuardKeptFunctions(lua_State *L, HostState &host);
