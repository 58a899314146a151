// Userdata arguments of the module's Lua functions: bound native objects of the agent, and the
// driver handle. All functions here leave the Lua stack as it was and raise no error.
#pragma once

#include <lua.hpp>

#include "vta_core.h"
#include "vti.h"

constexpr const char *kDomTypeName = "SLB.Dom";
constexpr const char *kZipTypeName = "SLB.wx.ZipOutputStream";
constexpr const char *kDriverHandleTypeName = "vti_handle_t*";

/// The block that stands for a driver handle on the Lua side. Another module of the agent makes and
/// closes it.
struct DriverHandleBlock {
    vti_handle_t *handle;  ///< Null once the handle has been closed.
};
static_assert(sizeof(DriverHandleBlock) == 8);

/// The native object of the type, or of a class derived from it, at the index.
/// @return null when there is none, when the object is gone, or when it is held as const.
void *GetUserdataArg(lua_State *L, int index, const char *typeName);

/// The agent's `SLB.Dom` at index 1, or null as with GetUserdataArg.
VtaCore::CDom *GetDomArg(lua_State *L);

/// The `SLB.wx.ZipOutputStream` at the index, or null as with GetUserdataArg.
VtaCore::CZipOutputStream *GetZipArg(lua_State *L, int index);

/// The driver handle's block at the index, or null when there is none; its word may be null.
const DriverHandleBlock *GetDriverHandleArg(lua_State *L, int index);
