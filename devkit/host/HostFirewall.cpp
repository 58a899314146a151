// The firewall of the simulated machine, for scripts: a part of host.machine.
#include <array>
#include <iterator>

#include "InstallationEdge.h"
#include "LuaFields.h"
#include "Text.h"

namespace {

struct FirewallSwitch {
    const char *name;
    VARIANT_BOOL Simulator::FirewallState::*value;
};
constexpr FirewallSwitch kFirewallSwitches[] = {
    {"domain", &Simulator::FirewallState::domainProfile},
    {"private", &Simulator::FirewallState::privateProfile},
    {"public", &Simulator::FirewallState::publicProfile},
    {"current", &Simulator::FirewallState::currentProfile},
};

/// Lua: host.machine.set_firewall{domain =, private =, public =, current =}. Missing ones are not changed.
int SetFirewall(lua_State *L) {
    CheckFields(L, {"domain", "private", "public", "current"});
    std::array<std::optional<bool>, std::size(kFirewallSwitches)> wanted;
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        if (HasField(L, kFirewallSwitches[i].name))
            wanted[i] = FlagField(L, kFirewallSwitches[i].name);
    }
    return ChangeInstallation(L, [&wanted](Installation &installation) {
        installation.GetFirewall().Use([&wanted](Simulator::FirewallState &state) {
            for (std::size_t i = 0; i < wanted.size(); ++i) {
                if (wanted[i])
                    state.*kFirewallSwitches[i].value = *wanted[i] ? VARIANT_TRUE : VARIANT_FALSE;
            }
        });
    });
}

struct ListedProgram {
    std::string path;
    std::string name;
    bool enabled;
};

void PushProgram(lua_State *L, const ListedProgram &program) {
    lua_newtable(L);
    SetField(L, "path", program.path);
    SetField(L, "name", program.name);
    lua_pushboolean(L, program.enabled ? 1 : 0);
    lua_setfield(L, -2, "enabled");
}

void PushFirewall(lua_State *L, const Simulator::FirewallState &firewall, const std::vector<ListedProgram> &programs) {
    lua_newtable(L);
    for (const FirewallSwitch &known : kFirewallSwitches) {
        lua_pushboolean(L, firewall.*known.value != VARIANT_FALSE ? 1 : 0);
        lua_setfield(L, -2, known.name);
    }
    lua_newtable(L);
    int index = 0;
    for (const ListedProgram &program : programs) {
        PushProgram(L, program);
        lua_rawseti(L, -2, ++index);
    }
    lua_setfield(L, -2, "applications");
}

/// Lua: table = host.machine.firewall()
int GetFirewall(lua_State *L) {
    bool pushed = false;
    {
        Simulator::FirewallState firewall;
        std::vector<ListedProgram> programs;
        const auto read = [&](Installation &installation) {
            firewall = installation.GetFirewall().Read();
            for (const Simulator::FirewallApplication &application : firewall.applications)
                programs.push_back(
                    {ToUtf8(application.path), ToUtf8(application.name), application.enabled != VARIANT_FALSE});
        };
        pushed = WithInstallation(L, read) &&
                 PushProtected(L, [&](lua_State *state) { PushFirewall(state, firewall, programs); });
    }
    return pushed ? 1 : lua_error(L);
}

}  // namespace

void AddFirewallFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {{"set_firewall", SetFirewall}, {"firewall", GetFirewall}, {nullptr, nullptr}};
    AddFunctions(L, host, functions);
}
