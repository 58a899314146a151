// The wrappers of bound functions: closures over two upvalues, of which the first is a userdata
// that holds the address of a plain native function and the second is the binder's own. A wrapper
// takes the arguments as they come. compat 3: tests no argument's type, except the agent object's
#pragma once

#include <lua.hpp>
#include <wx/string.h>

#include "vta_core.h"

using IntFromVoid = int (*)();
using BoolFromBool = bool (*)(bool);
using BoolFromStr = bool (*)(const char *);
using BoolFromStrStr = bool (*)(const char *, const char *);
using BoolFromDomStrStr = bool (*)(VtaCore::CDom &, const wxString &, const wxString &);

/// Lua: integer = f().
int CallIntVoid(lua_State *L);

/// Lua: boolean = f(flag), by Lua's truth rules.
int CallBoolBool(lua_State *L);

/// Lua: boolean = f(text). What is neither string nor number arrives as a null pointer.
int CallBoolStr(lua_State *L);

/// Lua: boolean = f(text, text), as CallBoolStr.
int CallBoolStrStr(lua_State *L);

/// Lua: boolean = f(dom, text, text), the texts in UTF-8. What is neither string nor number arrives
/// as an empty string. Raises "Expected (non-const) Object SLB.Dom" for a missing or const object.
int CallBoolDomStrStr(lua_State *L);
