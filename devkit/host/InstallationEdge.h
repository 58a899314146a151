// Between Lua and the installation on the simulated machine.
#pragma once

#include "HostState.h"
#include "Installation.h"
#include "LuaEdge.h"

/// Accesses the installation. See Guarded.
template <typename Work>
[[nodiscard]] bool WithInstallation(lua_State *L, const Work &work) {
    return Guarded(L, [&] { work(HostOf(L).system.UseInstallation()); });
}

/// The same for functions that return nothing.
template <typename Work>
int ChangeInstallation(lua_State *L, const Work &work) {
    return WithInstallation(L, work) ? 0 : RaiseText(L, true);
}

/// The name of a service's state, such as "running".
const char *StateName(DWORD state);

/// The result of installing or removing a component: "ok", "reboot" or a code, on top of the stack.
/// @param field  for messages.
HRESULT CheckComponentResult(lua_State *L, const char *field);
