// The module's functions that install and remove the drivers, watched for the host's records.
#pragma once

#include <lua.hpp>

struct HostState;

/// From now on, what the state's `require` loads is watched if it is the module: what both functions return, and the
/// state of the machine then, go to the host's runs. Scripts notice nothing of it. Once; raises Lua errors.
void WatchCalls(lua_State *L, HostState &host);
