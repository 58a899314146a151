// What is installed on the simulated machine, for scripts: a part of host.machine.
#include <cmath>
#include <cstring>
#include <filesystem>

#include <windows.h>
#include <devguid.h>
#include <netcfgx.h>

#include "InstallationEdge.h"
#include "LuaFields.h"
#include "Text.h"

namespace {

constexpr lua_Number kLastResult = 4294967295.0;

struct NamedValue {
    const char *name;
    DWORD value;
};
constexpr NamedValue kStartTypes[] = {
    {"boot", SERVICE_BOOT_START},     {"system", SERVICE_SYSTEM_START}, {"auto", SERVICE_AUTO_START},
    {"demand", SERVICE_DEMAND_START}, {"disabled", SERVICE_DISABLED},
};
constexpr NamedValue kStates[] = {
    {"stopped", SERVICE_STOPPED}, {"starting", SERVICE_START_PENDING}, {"stopping", SERVICE_STOP_PENDING},
    {"running", SERVICE_RUNNING}, {"paused", SERVICE_PAUSED},
};

/// The value named at the index.
template <std::size_t count>
DWORD CheckNamed(lua_State *L, int index, const NamedValue (&values)[count], const char *expected) {
    const char *name = luaL_checkstring(L, index);
    for (const NamedValue &named : values)
        if (std::strcmp(named.name, name) == 0)
            return named.value;
    (void)luaL_argerror(L, index, expected);
    return 0;  // not reached
}

/// The class in the field `class` of a component.
GUID CheckClass(lua_State *L) {
    const std::string_view name = HasField(L, "class") ? CheckTextField(L, "class") : "service";
    if (name != "service" && name != "protocol")
        luaL_error(L, "field 'class': service or protocol expected");
    return name == "service" ? GUID_DEVCLASS_NETSERVICE : GUID_DEVCLASS_NETTRANS;
}

/// Lua: host.machine.put_component{id =, result =, stays =, class =}
int PutComponent(lua_State *L) {
    CheckFields(L, {"id", "result", "stays", "class"});
    const std::string_view id = CheckTextField(L, "id");
    lua_getfield(L, 1, "result");
    const HRESULT result = lua_isnil(L, -1) ? S_OK : CheckComponentResult(L, "result");
    lua_pop(L, 1);
    const GUID classGuid = CheckClass(L);
    const unsigned removals = FlagField(L, "stays") ? 0 : 1;
    return ChangeInstallation(L, [&](Installation &installation) {
        installation.PutComponent(
            {.id = ToWide(id), .classGuid = classGuid, .deInstallResult = result, .deInstallsUntilGone = removals});
    });
}

/// Lua: host.machine.put_device{id =, description =, component =}
int PutDevice(lua_State *L) {
    CheckFields(L, {"id", "description", "component"});
    const std::string_view id = CheckTextField(L, "id");
    const bool isDescribed = HasField(L, "description");
    const std::string_view description = isDescribed ? CheckTextField(L, "description") : std::string_view();
    const std::string_view component = HasField(L, "component") ? CheckTextField(L, "component") : std::string_view();
    return ChangeInstallation(L, [&](Installation &installation) {
        Simulator::Device device{.instanceId = ToWide(id), .componentId = ToWide(component)};
        if (isDescribed)
            device.description = ToWide(description);
        installation.PutDevice(device);
    });
}

/// Lua: host.machine.put_service(name, state [, start])
int PutService(lua_State *L) {
    const std::string_view name = CheckText(L, 1);
    const DWORD state = CheckNamed(L, 2, kStates, "stopped, starting, stopping, running or paused expected");
    DWORD startType = SERVICE_DEMAND_START;
    if (!lua_isnoneornil(L, 3))
        startType = CheckNamed(L, 3, kStartTypes, "boot, system, auto, demand or disabled expected");
    return ChangeInstallation(
        L, [&](Installation &installation) { installation.PutService(ToWide(name), state, startType); });
}

/// Lua: host.machine.put_key(path)
int PutKey(lua_State *L) {
    const std::string_view path = CheckText(L, 1);
    return ChangeInstallation(L, [&](Installation &installation) { installation.PutKey(ToWide(path)); });
}

/// Lua: host.machine.lock_network(holder)
int LockNetwork(lua_State *L) {
    const std::string_view holder = CheckText(L, 1);
    return ChangeInstallation(L, [&](Installation &installation) { installation.LockNetwork(ToWide(holder)); });
}

/// Lua: host.machine.unlock_network()
int UnlockNetwork(lua_State *L) {
    return ChangeInstallation(L, [](Installation &installation) { installation.UnlockNetwork(); });
}

/// Lua: host.machine.lack(function_name)
int Lack(lua_State *L) {
    const std::string_view name = CheckText(L, 1);
    const bool canBeMissing = name == "SetupUninstallOEMInfW" || name == "InstallHinfSectionW";
    luaL_argcheck(L, canBeMissing, 1, "SetupUninstallOEMInfW or InstallHinfSectionW expected");
    return ChangeInstallation(L, [&](Installation &installation) { installation.Lack(std::string(name)); });
}

void PushInventory(lua_State *L, const Inventory &inventory) {
    lua_newtable(L);
    SetTexts(L, "components", inventory.components);
    SetTexts(L, "devices", inventory.devices);
    SetTexts(L, "inf_files", inventory.infFiles);
    SetTexts(L, "keys", inventory.keys);
    SetTexts(L, "left_to_boot", inventory.leftToBoot);
    if (inventory.lock)
        SetField(L, "lock", std::string_view(*inventory.lock));
    lua_newtable(L);
    for (const auto &[name, state] : inventory.services)
        SetField(L, name.c_str(), std::string_view(StateName(state)));
    lua_setfield(L, -2, "services");
}

/// Lua: table = host.machine.inventory()
int TakeInventory(lua_State *L) {
    bool pushed = false;
    {
        Inventory inventory;
        pushed = WithInstallation(L, [&](const Installation &installation) { inventory = installation.Take(); }) &&
                 PushProtected(L, [&inventory](lua_State *state) { PushInventory(state, inventory); });
    }
    return pushed ? 1 : lua_error(L);
}

/// With a trailing backslash.
std::string FolderText(const std::filesystem::path &folder) {
    return ToUtf8(folder.wstring() + L"\\");
}

/// Lua: table = host.machine.folders()
int GetFolders(lua_State *L) {
    bool pushed = false;
    {
        std::vector<std::pair<const char *, std::string>> folders;
        const auto list = [&folders](const Installation &installation) {
            const Simulator::SystemFolders &real = installation.Folders();
            folders = {{"windows", FolderText(real.Windows())},
                       {"system", FolderText(real.System32())},
                       {"inf", FolderText(real.Inf())},
                       {"catalogs", FolderText(real.Catalogs())},
                       {"program_files", FolderText(real.ProgramFiles())}};
        };
        pushed = WithInstallation(L, list) && PushProtected(L, [&folders](lua_State *state) {
                     lua_newtable(state);
                     for (const auto &[name, path] : folders)
                         SetField(state, name, std::string_view(path));
                 });
    }
    return pushed ? 1 : lua_error(L);
}

}  // namespace

const char *StateName(DWORD state) {
    for (const NamedValue &named : kStates)
        if (named.value == state)
            return named.name;
    return "unknown";
}

HRESULT CheckComponentResult(lua_State *L, const char *field) {
    if (lua_type(L, -1) == LUA_TNUMBER) {
        const lua_Number code = lua_tonumber(L, -1);
        if (!(code >= 0 && code <= kLastResult) || std::floor(code) != code)
            luaL_error(L, "field '%s': whole number from 0 to 4294967295 expected", field);
        return static_cast<HRESULT>(static_cast<DWORD>(code));
    }
    const std::string_view name = lua_type(L, -1) == LUA_TSTRING ? lua_tostring(L, -1) : "";
    if (name != "ok" && name != "reboot")
        luaL_error(L, "field '%s': ok, reboot or a number expected", field);
    return name == "ok" ? S_OK : NETCFG_S_REBOOT;
}

void AddInstallationFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {
        {"put_component", PutComponent},
        {"put_device", PutDevice},
        {"put_service", PutService},
        {"put_key", PutKey},
        {"lock_network", LockNetwork},
        {"unlock_network", UnlockNetwork},
        {"lack", Lack},
        {"folders", GetFolders},
        {"inventory", TakeInventory},
        {nullptr, nullptr},
    };
    AddFunctions(L, host, functions);
}
