// What to do about errors that script authors meet often.
#pragma once

#include <string_view>

#include <lua.hpp>

/// @param message  of an error that nobody has caught.
/// @return what to do about it; null for messages that tell it themselves. Leaves the stack as it was.
const char *HintFor(lua_State *L, std::string_view message);
