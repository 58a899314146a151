// The host program's state for a script, and how it becomes the global table `host`.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include <lua.hpp>

#include "DriverRuns.h"
#include "EventLog.h"
#include "HealthHistory.h"
#include "HostLog.h"
#include "Options.h"
#include "SimulatedSystem.h"
#include "StepDisplay.h"
#include "UnusedPlans.h"
#include "ZipFile.h"
#include "vta_core_control.h"

struct HostState {
    Options options;
    std::string scriptError;  ///< That has ended the script; empty: none.
    int scriptStatus = 0;     ///< What the script has returned, unless it has called os.exit.
    EventLog events;
    std::unique_ptr<HealthHistory> history;  ///< Null without a report.
    DriverRuns runs;
    StepDisplay steps;
    HostLog *log = nullptr;  ///< The target of all logs, which owns itself.
    SimulatedSystem system;
    unsigned restarts = 0;  ///< Of the module.
    std::unique_ptr<VtaCore::Control::Dom> dom;
    std::map<const void *, std::unique_ptr<ZipFile>> zips;  ///< Open ones, by the address of their stream.
    UnusedPlans plans;
    std::set<std::string> tracedByScript;  ///< Components of host.trace.
};

/// The state, within a function that AddFunctions has registered.
inline HostState &HostOf(lua_State *L) {
    return *static_cast<HostState *>(lua_touserdata(L, lua_upvalueindex(1)));
}

/// Adds functions to the table on top of the stack. @param functions  ends with a null entry.
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
void AddDriverRunFunctions(lua_State *L, HostState &host);
/// After all others: it uses them.
void AddExpectFunctions(lua_State *L, HostState &host);
void AddReportFunctions(lua_State *L, HostState &host);
void AddScriptFunctions(lua_State *L, HostState &host);
void AddModuleFunctions(lua_State *L, HostState &host);
void AddRebootFunction(lua_State *L, HostState &host);

/// The trace of a component was switched on. If it is none of the module's, and the script does not trace as it, that
/// is told at the end.
/// @param where  what switched it on, such as "script.lua:3: ".
void NoteWantedTrace(HostState &host, const std::string &where, const std::string &component);

/// Creates the global table `host`, makes require find the modules beside the program, and io.open take names in UTF-8.
/// Raises Lua errors.
void OpenHostTable(lua_State *L, HostState &host);
