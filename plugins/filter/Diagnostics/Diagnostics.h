// What the driver diagnostics offer to the rest of the module: their Lua function, and their one module-wide object.
#pragma once

#include <lua.hpp>
#include <wx/string.h>

/// Lua: boolean = f(dom, handle, zip). Adds the drivers' state to a diagnostic package; always true. Raises an error
/// for a wrong argument.
int AddDriverDiagnostics(lua_State *L);

/// The comment of the files in a diagnostic package: none. fc/ModuleObjects.cpp defines it, since the order of the
/// definitions there is the order of construction.
extern const wxString emptyText;
