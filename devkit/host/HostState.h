// What the host program holds for a script, and how it comes into the global table `host`.
#pragma once

#include <map>
#include <memory>

#include <lua.hpp>

#include "DriverRuns.h"
#include "EventLog.h"
#include "HealthHistory.h"
#include "HostLog.h"
#include "Options.h"
#include "SimulatedSystem.h"
#include "StepDisplay.h"
#include "ZipFile.h"
#include "vta_core_control.h"

struct HostState {
    Options options;
    EventLog events;
    std::unique_ptr<HealthHistory> history;  ///< Null unless a report is wanted.
    DriverRuns runs;                         ///< Told of, unless the host is quiet and no report is wanted.
    StepDisplay steps;
    HostLog *log = nullptr;  ///< The target of all logs, which owns itself.
    SimulatedSystem system;
    unsigned restarts = 0;  ///< Of the module.
    std::unique_ptr<VtaCore::Control::Dom> dom;
    std::map<const void *, std::unique_ptr<ZipFile>> zips;  ///< Open ones, by the address of their stream.
};

/// The state, in a function that AddFunctions has registered.
inline HostState &HostOf(lua_State *L) {
    return *static_cast<HostState *>(lua_touserdata(L, lua_upvalueindex(1)));
}

/// Adds functions to the table on top of the stack.
/// @param functions  ends with a null entry.
void AddFunctions(lua_State *L, HostState &host, const luaL_Reg *functions);

// Each adds its subject's functions to the table on top of the stack.
void AddDomFunctions(lua_State *L, HostState &host);
void AddDriverFunctions(lua_State *L, HostState &host);
void AddHandleFunctions(lua_State *L, HostState &host);
void AddZipFunctions(lua_State *L, HostState &host);
void AddFileFunctions(lua_State *L, HostState &host);
void AddJsonFunctions(lua_State *L, HostState &host);
void AddCheckFunctions(lua_State *L, HostState &host);
void AddClockFunctions(lua_State *L, HostState &host);
void AddMachineFunctions(lua_State *L, HostState &host);
void AddInstallationFunctions(lua_State *L, HostState &host);
void AddNetworkFunctions(lua_State *L, HostState &host);
void AddFirewallFunctions(lua_State *L, HostState &host);
void AddFaultFunctions(lua_State *L, HostState &host);
void AddEventFunctions(lua_State *L, HostState &host);
/// After all others: it uses them.
void AddExpectFunctions(lua_State *L, HostState &host);
void AddReportFunctions(lua_State *L, HostState &host);
void AddModuleFunctions(lua_State *L, HostState &host);

/// Makes the global table `host`, lets require find the modules beside the program, and opens files
/// by names in UTF-8. Raises Lua errors.
void OpenHostTable(lua_State *L, HostState &host);
