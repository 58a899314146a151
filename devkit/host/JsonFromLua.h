// A Lua value as JSON.
#pragma once

#include <string>

#include <lua.hpp>

#include "Json.h"

/// Reads the value at the index; raises no Lua error and leaves the stack as it was.
///
/// A table whose keys are 1 to n is an array, so is an empty one; one whose keys are texts is an object,
/// its fields in the order of their names. Bytes that are no UTF-8 become U+FFFD; a number that JSON
/// can't hold (infinite, no number) becomes null.
/// @param error  says what can't be JSON, when null is returned.
JsonPtr JsonFromLua(lua_State *L, int index, std::string &error);
