// The machine's load, the version of its system, and the agent's files, for scripts.
#include "HostState.h"

#include <cmath>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "LuaEdge.h"
#include "Text.h"
#include "UnknownName.h"

namespace {

constexpr wchar_t kAgentFolder[] = L"C:\\ProgramData\\Quillon\\Vantry Agent";

// The fields of host.machine.

struct Range {
    lua_Number last;
    const char *text;
};
constexpr Range kAny{0, "any"};
constexpr Range kWords{4294967295.0, "0 to 4294967295"};
constexpr Range kBytes{9007199254740992.0, "0 to 2^53"};

struct MachineField {
    const char *name;
    const Range &range;  ///< For whole numbers from 0, unless it is kAny.
    lua_Number (*get)(const Simulator::Machine &machine);
    void (*set)(Simulator::Machine &machine, lua_Number value);
};

constexpr MachineField kMachineFields[] = {
    {"processor_queue", kAny, [](const Simulator::Machine &machine) { return machine.processorQueue; },
     [](Simulator::Machine &machine, lua_Number value) { machine.processorQueue = value; }},
    {"processors", kWords,
     [](const Simulator::Machine &machine) { return static_cast<lua_Number>(machine.processorCount); },
     [](Simulator::Machine &machine, lua_Number value) { machine.processorCount = static_cast<DWORD>(value); }},
    {"memory_total", kBytes,
     [](const Simulator::Machine &machine) { return static_cast<lua_Number>(machine.memoryTotal); },
     [](Simulator::Machine &machine, lua_Number value) { machine.memoryTotal = static_cast<std::uint64_t>(value); }},
    {"memory_available", kBytes,
     [](const Simulator::Machine &machine) { return static_cast<lua_Number>(machine.memoryAvailable); },
     [](Simulator::Machine &machine, lua_Number value) {
         machine.memoryAvailable = static_cast<std::uint64_t>(value);
     }},
    {"os_major", kWords, [](const Simulator::Machine &machine) { return static_cast<lua_Number>(machine.osMajor); },
     [](Simulator::Machine &machine, lua_Number value) { machine.osMajor = static_cast<DWORD>(value); }},
    {"os_minor", kWords, [](const Simulator::Machine &machine) { return static_cast<lua_Number>(machine.osMinor); },
     [](Simulator::Machine &machine, lua_Number value) { machine.osMinor = static_cast<DWORD>(value); }},
    {"os_build", kWords, [](const Simulator::Machine &machine) { return static_cast<lua_Number>(machine.osBuild); },
     [](Simulator::Machine &machine, lua_Number value) { machine.osBuild = static_cast<DWORD>(value); }},
};

const MachineField &FindMachineField(lua_State *L) {
    const char *name = luaL_checkstring(L, 2);
    for (const MachineField &field : kMachineFields)
        if (std::strcmp(field.name, name) == 0)
            return field;
    RaiseUnknownName(L, "host.machine has no field", name, [] { return NamesOf(kMachineFields); });
    return kMachineFields[0];  // not reached
}

lua_Number CheckValue(lua_State *L, const MachineField &field) {
    int isNumber = 0;
    const lua_Number value = lua_tonumberx(L, 3, &isNumber);
    if (isNumber == 0)
        luaL_error(L, "host.machine.%s: number expected, got %s", field.name, luaL_typename(L, 3));
    const bool isWhole = value >= 0 && value <= field.range.last && std::floor(value) == value;
    if (&field.range != &kAny && !isWhole)
        luaL_error(L, "host.machine.%s: whole number from %s expected", field.name, field.range.text);
    return value;
}

int GetMachineField(lua_State *L) {
    lua_pushnumber(L, FindMachineField(L).get(HostOf(L).system.GetMachine()));
    return 1;
}

/// The first assignment attaches the machine to the module.
int SetMachineField(lua_State *L) {
    const MachineField &field = FindMachineField(L);
    const lua_Number value = CheckValue(L, field);
    field.set(HostOf(L).system.UseMachine(), value);
    return 0;
}

/// Lua: pairs visits the fields, too.
int ListMachineFields(lua_State *L) {
    return PairsWithFields(L, kMachineFields);
}

// Its files.

/// Creates the agent's folders. @return empty, or why they can't be created.
std::string MakeFolders(const std::filesystem::path &folder) {
    for (const wchar_t *name : {L"filter", L"diag"}) {
        std::error_code error;
        std::filesystem::create_directories(folder / name, error);
        if (error)
            return "cannot make " + ToUtf8((folder / name).wstring()) + ": " + error.message();
    }
    return {};
}

/// Lua: host.use_program_data(folder). Maps the agent's files that the module reads and writes to the folder from now
/// on: filter\vt_filter.conf and diag\vt_filter_json.log. Creates missing folders.
int UseProgramData(lua_State *L) {
    const std::string_view name = CheckText(L, 1);
    luaL_argcheck(L, !name.empty(), 1, "a folder's name expected");
    bool pushed = false;
    {
        std::error_code error;
        const std::filesystem::path folder = std::filesystem::absolute(ToWide(name), error);
        const std::string failure = error ? error.message() : MakeFolders(folder);
        if (failure.empty()) {
            HostOf(L).system.MapPath(kAgentFolder, folder.wstring());
            return 0;
        }
        pushed = PushText(L, failure);
    }
    if (!pushed)
        return lua_error(L);
    return luaL_argerror(L, 1, lua_tostring(L, -1));
}

}  // namespace

void AddMachineFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {{"use_program_data", UseProgramData}, {nullptr, nullptr}};
    constexpr luaL_Reg fieldFunctions[] = {{"__index", GetMachineField},
                                           {"__newindex", SetMachineField},
                                           {"__pairs", ListMachineFields},
                                           {nullptr, nullptr}};

    AddFunctions(L, host, functions);
    lua_newtable(L);
    AddInstallationFunctions(L, host);
    AddNetworkFunctions(L, host);
    AddFirewallFunctions(L, host);
    AddRebootFunction(L, host);
    lua_newtable(L);
    AddFunctions(L, host, fieldFunctions);
    lua_setmetatable(L, -2);
    lua_setfield(L, -2, "machine");
}
