// What the health subsystem offers to the rest of the module: its Lua functions, and its one module-wide object.
#pragma once

#include <lua.hpp>

#include "HealthState.h"

/// Lua: {action = number} = f(dom, state, cloud_config). One iteration: reads the configuration, samples the host
/// and decides on fail-open. Blocks for at least 100 ms. Wrong arguments are reported in `action`. One caller at a
/// time.
int CheckSystemHealthMetrics(lua_State *L);

/// Lua: true, metrics = f(). The metrics of the last evaluated iteration. Any thread.
int GetSysHealthMetrics(lua_State *L);

/// Lua: boolean = f(). Whether the last iteration found the subsystem switched on. Any thread.
int GetSysHealthEnabled(lua_State *L);

/// Lua: boolean, port = f(). The port that the last configuration monitors. Any thread; none while a configuration is
/// being read.
int GetScanMetricPort(lua_State *L);
