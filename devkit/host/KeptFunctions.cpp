#include "KeptFunctions.h"

#include <cstring>

#include <windows.h>

#include "HostState.h"

namespace {

/// What stands for a C function is a closure with the same upvalues, one of these, and a name. It calls the function in
/// its own frame, so that neither the function nor its error messages can tell the difference.
struct KeptFunction {
    lua_CFunction function;
    HostState *host;
    unsigned restarts;  ///< Of the module, when the function was had.
};

/// The closure's last upvalue, the name.
int LastUpvalue(lua_State *L) {
    int last = 1;
    while (!lua_isnone(L, lua_upvalueindex(last + 1)))
        ++last;
    return last;
}

const KeptFunction &KeptOf(lua_State *L, int last) {
    return *static_cast<const KeptFunction *>(lua_touserdata(L, lua_upvalueindex(last - 1)));
}

/// Lua: a function of SLB.filter.
int CallModule(lua_State *L) {
    const int last = LastUpvalue(L);
    const KeptFunction &kept = KeptOf(L, last);
    if (kept.restarts != kept.host->restarts)
        return luaL_error(L,
                          "%s was kept from before host.restart_module() or host.machine.reboot(), and its code is "
                          "gone: take it from SLB.filter "
                          "again, after require \"fc\"",
                          lua_tostring(L, lua_upvalueindex(last)));
    return kept.function(L);
}

/// Replaces the C function on top of the stack by a closure.
/// @param closure  what is called instead.
void PushGuarded(lua_State *L, HostState &host, lua_CFunction closure, const char *name) {
    luaL_checkstack(L, 255, nullptr);
    const int function = lua_gettop(L);
    int upvalues = 0;
    while (lua_getupvalue(L, function, upvalues + 1) != nullptr)
        ++upvalues;
    auto *kept = static_cast<KeptFunction *>(lua_newuserdata(L, sizeof(KeptFunction)));
    *kept = {lua_tocfunction(L, function), &host, host.restarts};
    lua_pushstring(L, name);
    lua_pushcclosure(L, closure, upvalues + 2);
    lua_replace(L, function);
}

bool IsOfModule(lua_CFunction function) {
    HMODULE module = nullptr;
    const DWORD flags = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    const auto *address = reinterpret_cast<const wchar_t *>(reinterpret_cast<void *>(function));
    return function != nullptr && GetModuleHandleExW(flags, address, &module) && module == GetModuleHandleW(L"fc.dll");
}

/// The module's functions in SLB.filter. Leaves the stack as it was.
void GuardFunctions(lua_State *L, HostState &host) {
    const int top = lua_gettop(L);
    lua_getglobal(L, "SLB");
    if (lua_istable(L, -1))
        lua_getfield(L, -1, "filter");
    if (!lua_istable(L, -1)) {
        lua_settop(L, top);
        return;
    }
    const int filter = lua_gettop(L);
    for (lua_pushnil(L); lua_next(L, filter) != 0;) {
        if (lua_type(L, -2) == LUA_TSTRING && IsOfModule(lua_tocfunction(L, -1))) {
            PushGuarded(L, host, CallModule, lua_tostring(L, -2));
            lua_pushvalue(L, -2);
            lua_insert(L, -2);
            lua_rawset(L, filter);  // a value that is there may change meanwhile
        } else {
            lua_pop(L, 1);
        }
    }
    lua_settop(L, top);
}

/// Lua: require
int Require(lua_State *L) {
    const KeptFunction &kept = KeptOf(L, LastUpvalue(L));
    const char *name = lua_tostring(L, 1);
    const bool isModule = name != nullptr && std::strcmp(name, "fc") == 0;
    const int results = kept.function(L);
    if (isModule)
        GuardFunctions(L, *kept.host);
    return results;
}

}  // namespace

void GuardKeptFunctions(lua_State *L, HostState &host) {
    lua_getglobal(L, "require");
    PushGuarded(L, host, Require, "require");
    lua_setglobal(L, "require");
}
