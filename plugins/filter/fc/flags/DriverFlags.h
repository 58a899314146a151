// Facts about the filter drivers that scripts keep in the drivers' service keys. The module gives the values no
// meaning. Missing keys are never created: the flags exist only as long as the driver's service.
#pragma once

#include <lua.hpp>

// Lua: number = f(). -1 when the value can't be read.
int GetDriverCheckedFromReg(lua_State *L);
int GetDriverHookedFromReg(lua_State *L);

// Lua: f(number). Stores its integer part in 32 bits. The setters push no result of their own: Lua gets whatever is
// on top of the stack, in an ordinary call the argument. Whether the write worked can't be told from it.
int SetDriverCheckedToReg(lua_State *L);
int SetDriverHookedToReg(lua_State *L);

/// Lua: array of strings = f(). The interfaces that are not checked.
int GetUncheckedInterface(lua_State *L);
/// Lua: f(array of strings). The result is as with the other setters. Items are joined by commas, without escaping.
int SetUncheckedInterface(lua_State *L);

/// Lua: number, number = f(). When qbimvta and qbimwfp were stopped; -1 for one that can't be read.
int GetDriverStoppedByBLPTimestamp(lua_State *L);
