// Between Lua and what is installed on the simulated machine.
#pragma once

#include "HostState.h"
#include "Installation.h"
#include "LuaEdge.h"

/// Works on the installation. See Guarded.
template <typename Work>
[[nodiscard]] bool WithInstallation(lua_State *L, const Work &work) {
    return Guarded(L, [&] { work(HostOf(L).system.UseInstallation()); });
}

/// The same for functions that yield nothing.
template <typename Work>
int ChangeInstallation(lua_State *L, const Work &work) {
    return WithInstallation(L, work) ? 0 : RaiseText(L, true);
}

/// What an installation or a removal of a component answers: "ok", "reboot" or a code, on top of the stack.
/// @param field  for messages.
HRESULT CheckComponentResult(lua_State *L, const char *field);
