// Creates userdata for the host and the tests as the agent's binder would.
#pragma once

#include "SLB3.h"

namespace SLB3::Control {

/// Pushes a userdata that holds `object` (not owned) under the type's name. Its metatable is named "SLB3:TYPE" and
/// makes tostring return "TYPE: ADDRESS". Raises a Lua error if Lua has no memory.
/// @param typeName  and @param bases     must outlive the Lua state; `bases` may be null.
/// @param isConst   the object is held as const.
SLB3_API void PushInstance(lua_State *state, const char *typeName, void *object, bool isConst = false,
                           const SlbBaseEntry *bases = nullptr);

/// Makes the instance at the index resolve to null from now on, as when its object is gone. Raises a Lua error for any
/// other value.
SLB3_API void ForgetObject(lua_State *state, int index);

}  // namespace SLB3::Control
