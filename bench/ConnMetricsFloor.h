// The floors of the connection metrics: what no implementation can beat.
#pragma once

#include <lua.hpp>

/// Lua: reads the three arguments of AddToConnMetrics, and does nothing with them.
int ReadArgumentsOnly(lua_State *L);

/// Lua: prepare(rows) stores the fields of the rows outside of Lua.
int PrepareRows(lua_State *L);

/// Lua: rows = build(). Builds the tables of the prepared rows from their values, with the cheapest calls that Lua
/// offers.
int BuildPreparedRows(lua_State *L);
