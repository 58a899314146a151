// A Lua value as JSON.
#pragma once

#include <string>

#include <lua.hpp>

#include "Json.h"

/// Reads the value at the index; raises no Lua error and does not change the stack.
///
/// A table with the keys 1 to n is an array, as is an empty one; one with string keys is an object, with its fields
/// sorted by name. Invalid UTF-8 becomes U+FFFD; a number that JSON can't represent (infinite, NaN) becomes null.
/// @param error  says what can't be JSON, if null is returned.
JsonPtr JsonFromLua(lua_State *L, int index, std::string &error);
