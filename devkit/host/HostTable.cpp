#include "HostState.h"

#include <windows.h>

#include "HostFiles.h"
#include "KeptFunctions.h"
#include "LuaEdge.h"
#include "Program.h"
#include "Script.h"
#include "WatchedCalls.h"

namespace {

/// Lua's loader takes names in the system's narrow encoding.
std::string NarrowModulePath() {
    const std::wstring wide = ProgramFolder() + L"?.dll";
    const int size = static_cast<int>(wide.size());
    const int needed = WideCharToMultiByte(CP_ACP, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<std::size_t>(needed), '\0');
    (void)WideCharToMultiByte(CP_ACP, 0, wide.data(), size, narrow.data(), needed, nullptr, nullptr);
    return narrow;
}

}  // namespace

void AddFunctions(lua_State *L, HostState &host, const luaL_Reg *functions) {
    lua_pushlightuserdata(L, &host);
    luaL_setfuncs(L, functions, 1);
}

void OpenHostTable(lua_State *L, HostState &host) {
    lua_newtable(L);
    AddDomFunctions(L, host);
    AddDriverFunctions(L, host);
    AddHandleFunctions(L, host);
    AddZipFunctions(L, host);
    AddFileFunctions(L, host);
    AddJsonFunctions(L, host);
    AddCheckFunctions(L, host);
    AddClockFunctions(L, host);
    AddMachineFunctions(L, host);
    AddFaultFunctions(L, host);
    AddEventFunctions(L, host);
    AddDriverRunFunctions(L, host);
    AddReportFunctions(L, host);
    AddModuleFunctions(L, host);
    AddScriptFunctions(L, host);
    AddExpectFunctions(L, host);
    lua_setglobal(L, "host");

    lua_getglobal(L, "package");
    bool pushed = false;
    {
        const std::string path = NarrowModulePath();
        pushed = PushText(L, path);
    }
    if (!pushed)
        (void)lua_error(L);
    lua_setfield(L, -2, "cpath");
    lua_pop(L, 1);

    GuardKeptFunctions(L, host);
    UseUtf8FileNames(L);
    UseCheckedExit(L);
    WatchCalls(L, host);
}
