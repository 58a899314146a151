// Files of scripts.
#pragma once

#include <lua.hpp>

/// Replaces io.open by one that takes names in UTF-8, as all that the host hands to a script is.
/// Raises Lua errors.
void UseUtf8FileNames(lua_State *L);
