#include "WatchedCalls.h"

#include <cstddef>
#include <exception>
#include <mutex>
#include <optional>
#include <utility>

#include "HostState.h"
#include "Installation.h"
#include "InstallationEdge.h"
#include "vti_control.h"

namespace {

constexpr const char *kFilter = "qbimvta";
constexpr const char *kCallout = "qbimwfp";

HostState *g_host = nullptr;
lua_CFunction g_require = nullptr;
lua_CFunction g_install = nullptr;
lua_CFunction g_remove = nullptr;

template <typename Texts>
bool Has(const Texts &texts, const char *wanted) {
    for (const std::string &text : texts)
        if (_stricmp(text.c_str(), wanted) == 0)
            return true;
    return false;
}

std::optional<std::string> RunningDriver() {
    const std::lock_guard<std::mutex> guard(Vti::Lock());
    const Vti::Driver &driver = Vti::TheDriver();
    return driver.present ? std::optional(driver.version) : std::nullopt;
}

void ReadMachine(const Installation &installation, DriverState &state) {
    const Inventory inventory = installation.Take();
    state.hasMachine = true;
    state.hasFilter = Has(inventory.components, kFilter);
    for (const auto &[name, service] : inventory.services)
        if (_stricmp(name.c_str(), kCallout) == 0)
            state.callout = StateName(service);
    state.lock = inventory.lock;
    for (const AdapterState &adapter : installation.Adapters())
        state.adapters.push_back({adapter.node, adapter.name, Has(adapter.bound, kFilter)});
}

/// How many files are left to the next boot.
std::size_t CountLeftToBoot(const SimulatedSystem &system) {
    const Installation *const installation = system.FindInstallation();
    return installation == nullptr ? 0 : installation->CountLeftToBoot();
}

/// @param leftBefore  the files that were left to the boot when the call began.
/// @return nothing if the machine can't be read.
std::optional<DriverState> ReadState(const SimulatedSystem &system, std::size_t leftBefore) {
    try {
        DriverState state{.driver = RunningDriver()};
        if (const Installation *const installation = system.FindInstallation())
            ReadMachine(*installation, state);
        state.hasLeftToBoot = CountLeftToBoot(system) > leftBefore;
        return state;
    } catch (const std::exception &) {
        return std::nullopt;
    }
}

/// Calls the module's function, which may raise an error: then the call does not end.
int Watch(lua_State *L, DriverRun::Kind kind, lua_CFunction function) {
    g_host->runs.BeginCall(kind);
    const std::size_t leftBefore = CountLeftToBoot(g_host->system);
    const int results = function(L);
    g_host->runs.EndCall(lua_toboolean(L, -1) != 0, ReadState(g_host->system, leftBefore));
    return results;
}

// The functions below run what they replace in their own frame and with its upvalues, so that errors name the
// script's line and the function as they do without them.

int WatchedInstall(lua_State *L) {
    return Watch(L, DriverRun::Kind::Installation, g_install);
}

int WatchedRemove(lua_State *L) {
    return Watch(L, DriverRun::Kind::Removal, g_remove);
}

/// Puts the function in place of the C function in a field of the table on top of the stack.
/// @param original  receives what was there, unless that is no C function or the same one.
void Replace(lua_State *L, const char *field, lua_CFunction function, lua_CFunction &original) {
    constexpr int maxUpvalues = 255;
    const int table = lua_gettop(L);
    lua_pushstring(L, field);
    lua_rawget(L, table);
    const lua_CFunction found = lua_tocfunction(L, -1);
    if (found == nullptr || found == function) {
        lua_settop(L, table);
        return;
    }
    luaL_checkstack(L, maxUpvalues + 1, "too many upvalues");
    int upvalues = 0;
    while (upvalues < maxUpvalues && lua_getupvalue(L, table + 1, upvalues + 1) != nullptr)
        ++upvalues;
    lua_pushcclosure(L, function, upvalues);
    lua_setfield(L, table, field);
    lua_settop(L, table);
    original = found;
}

/// Pushes the field of the table on top of the stack in the table's place. @return whether that is a table, too.
bool EnterTable(lua_State *L, const char *field) {
    lua_pushstring(L, field);
    lua_rawget(L, -2);
    lua_remove(L, -2);
    return lua_istable(L, -1);
}

void WatchModule(lua_State *L) {
    const int top = lua_gettop(L);
    luaL_checkstack(L, 4, "no room for the module");
    lua_pushglobaltable(L);
    if (EnterTable(L, "SLB") && EnterTable(L, "filter")) {
        Replace(L, "InstallOrUpdateDriver", WatchedInstall, g_install);
        Replace(L, "UninstallDriver", WatchedRemove, g_remove);
    }
    lua_settop(L, top);
}

int WatchedRequire(lua_State *L) {
    const int results = g_require(L);
    WatchModule(L);
    return results;
}

}  // namespace

void WatchCalls(lua_State *L, HostState &host) {
    g_host = &host;
    lua_pushglobaltable(L);
    Replace(L, "require", WatchedRequire, g_require);
    lua_pop(L, 1);
}
