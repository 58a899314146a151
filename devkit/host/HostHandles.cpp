// Driver handles for scripts, as the agent's own driver module would create them.
#include "HostState.h"

#include "vti.h"

namespace {

constexpr const char *kHandleTypeName = "vti_handle_t*";

struct HandleBlock {
    vti_handle_t *handle;
};

HandleBlock *CheckHandle(lua_State *L) {
    return static_cast<HandleBlock *>(luaL_checkudata(L, 1, kHandleTypeName));
}

/// Lua: host.close_handle(handle). Closing it again does nothing.
int CloseHandle(lua_State *L) {
    HandleBlock *block = CheckHandle(L);
    if (block->handle != nullptr)
        vti_close(block->handle);
    block->handle = nullptr;
    return 0;
}

/// Lua: handle = host.driver_handle(), or nil and a text if the driver is not present.
int OpenHandle(lua_State *L) {
    auto *block = static_cast<HandleBlock *>(lua_newuserdata(L, sizeof(HandleBlock)));
    block->handle = nullptr;
    luaL_setmetatable(L, kHandleTypeName);
    block->handle = vti_open();
    if (block->handle != nullptr)
        return 1;
    lua_pushnil(L);
    lua_pushliteral(L, "the driver is not present");
    return 2;
}

void MakeHandleType(lua_State *L) {
    luaL_newmetatable(L, kHandleTypeName);
    lua_pushcfunction(L, CloseHandle);
    lua_setfield(L, -2, "__gc");
    lua_pop(L, 1);
}

}  // namespace

void AddHandleFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {
        {"driver_handle", OpenHandle},
        {"close_handle", CloseHandle},
        {nullptr, nullptr},
    };
    MakeHandleType(L);
    AddFunctions(L, host, functions);
}
