// The module itself, for scripts.
#include "HostState.h"

#include <mutex>

#include <windows.h>

#include "LuaEdge.h"
#include "WallClock.h"
#include "vti_control.h"

namespace {

constexpr wchar_t kRestarted[] = L"fc.dll";
/// Lua's loader keeps library handles there, by path and in an array.
constexpr char kLuaLibraries[] = "_CLIBS";

/// Removes the library's path from the table on top of the stack.
void ForgetPath(lua_State *L, const void *library) {
    for (lua_pushnil(L); lua_next(L, -2) != 0; lua_pop(L, 1)) {
        if (lua_type(L, -2) != LUA_TSTRING || lua_touserdata(L, -1) != library)
            continue;
        lua_pop(L, 1);
        lua_pushnil(L);
        lua_rawset(L, -3);
        return;
    }
}

/// Removes it from the array in the table on top of the stack.
void ForgetItem(lua_State *L, const void *library) {
    const int size = static_cast<int>(lua_rawlen(L, -1));
    int kept = 0;
    for (int i = 1; i <= size; ++i) {
        lua_rawgeti(L, -1, i);
        if (lua_touserdata(L, -1) == library)
            lua_pop(L, 1);
        else
            lua_rawseti(L, -2, ++kept);
    }
    for (int i = kept + 1; i <= size; ++i) {
        lua_pushnil(L);
        lua_rawseti(L, -2, i);
    }
}

/// Otherwise Lua's loader would return the old handle, and free it when the state is closed.
void ForgetLibrary(lua_State *L, const void *library) {
    lua_getfield(L, LUA_REGISTRYINDEX, kLuaLibraries);
    ForgetPath(L, library);
    ForgetItem(L, library);
    lua_pop(L, 1);
}

/// What the module has left in Lua.
void ForgetModule(lua_State *L) {
    ++HostOf(L).restarts;
    lua_getglobal(L, "package");
    lua_getfield(L, -1, "loaded");
    lua_pushnil(L);
    lua_setfield(L, -2, "fc");
    lua_pop(L, 2);
    lua_getglobal(L, "SLB");
    if (lua_istable(L, -1)) {
        lua_pushnil(L);
        lua_setfield(L, -2, "filter");
    }
    lua_pop(L, 1);
}

/// The driver must not call into an unloaded library.
void ForgetCallbacks() {
    const std::lock_guard<std::mutex> guard(Vti::Lock());
    Vti::Driver &driver = Vti::TheDriver();
    driver.traceHandler = nullptr;
    driver.profilerBlockfilter = nullptr;
    driver.profilerRunning = nullptr;
}

/// Unloads the module, with what it has left of itself in Lua and in the driver.
/// @return ERROR_SUCCESS, or why it can't be unloaded.
DWORD Unload(lua_State *L, HMODULE module) {
    ForgetLibrary(L, module);
    ForgetCallbacks();
    // The module holds a reference to itself.
    while (GetModuleHandleW(kRestarted) != nullptr)
        if (!FreeLibrary(module))
            return GetLastError();
    return ERROR_SUCCESS;
}

void UnloadOrRaise(lua_State *L) {
    ForgetModule(L);
    const HMODULE module = GetModuleHandleW(kRestarted);
    const DWORD error = module == nullptr ? ERROR_SUCCESS : Unload(L, module);
    if (error != ERROR_SUCCESS)
        luaL_error(L, "fc.dll can't be unloaded: error %d", static_cast<int>(error));
}

void NoteRestart(HostState &host, const char *text) {
    if (host.history != nullptr)
        host.history->AddNote(HealthNote::Kind::Restart, WallClockSeconds(), text);
}

/// Lua: host.machine.reboot(). The module is unloaded, and the machine is as after a boot. Threads end as by
/// host.restart_module. The agent's settings stay.
int Reboot(lua_State *L) {
    HostState &host = HostOf(L);
    host.system.KillThreads();
    UnloadOrRaise(L);
    if (!Guarded(L, [&host] { host.system.Reboot(); }))
        return lua_error(L);
    NoteRestart(host, "The machine was rebooted");
    return 0;
}

/// Lua: host.restart_module(). Does to the module what a restart of the agent does: its threads end, it is unloaded,
/// what its process held is free, and the next require "fc" loads it with fresh state. With a clock other than the
/// stepped one only the threads end that a planned fault hangs: the host does not know the others, and they must have
/// ended before. The agent's settings and the driver stay. Functions of SLB.filter that the script has kept raise an
/// error from then on: see KeptFunctions.h.
int RestartModule(lua_State *L) {
    HostState &host = HostOf(L);
    const bool isLoaded = GetModuleHandleW(kRestarted) != nullptr;
    if (isLoaded)
        host.system.KillThreads();
    UnloadOrRaise(L);
    if (isLoaded) {
        host.system.EndProcess();
        NoteRestart(host, "The module was restarted");
    }
    return 0;
}

}  // namespace

void AddRebootFunction(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {{"reboot", Reboot}, {nullptr, nullptr}};
    AddFunctions(L, host, functions);
}

void AddModuleFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {{"restart_module", RestartModule}, {nullptr, nullptr}};
    AddFunctions(L, host, functions);
}
