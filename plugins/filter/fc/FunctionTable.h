// The functions of SLB.filter.
#pragma once

#include <lua.hpp>

/// Registers all functions of the module. Any number of states, on any threads.
void FillFunctionTable(lua_State *L);
