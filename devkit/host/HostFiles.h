// Files of scripts.
#pragma once

#include <lua.hpp>

/// Replaces io.open by a function that takes names in UTF-8, like everything that the host passes to a script. Raises
/// Lua errors.
void UseUtf8FileNames(lua_State *L);
