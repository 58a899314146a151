// JSON as a value of a script.
#pragma once

#include <lua.hpp>

#include "Json.h"

/// Pushes the value. Raises Lua errors.
void PushJson(lua_State *L, const cJSON *value);
