// The driver library's own trace, as trace lines of the agent.
#pragma once

#include <cstdint>

#include <lua.hpp>

/// Lua: setup_qbtrace(handle). Lets the library trace through this module if the component "VTI" is wanted now, and
/// not at all otherwise. Raises an error for anything but a driver handle.
int setup_qbtrace(lua_State *L);

/// Writes a line of the library as a trace line of the component "VTI". Any thread.
/// @return 0.
std::int32_t qb_trace_handler(std::int32_t level, const char *source, const char *file, std::int32_t line,
                              const char *text);
