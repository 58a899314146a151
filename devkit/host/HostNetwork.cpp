// The adapters of the simulated machine and their bindings, for scripts: a part of host.machine.
#include <array>
#include <charconv>
#include <cstdint>

#include "DriverFile.h"
#include "FourNumbers.h"
#include "InstallationEdge.h"
#include "LuaFields.h"
#include "Text.h"

namespace {

constexpr lua_Number kLastStatus = 4294967295.0;
constexpr lua_Number kLastFrame = 9007199254740992.0;  // 2 to the power of 53

/// The address in a field, if there is one.
std::optional<std::string_view> AddressField(lua_State *L, const char *name, int table) {
    if (!HasField(L, name, table))
        return std::nullopt;
    const std::string_view address = CheckTextField(L, name, table);
    if (!ParseFourNumbers<std::uint8_t>(address))
        luaL_error(L, "field '%s': an address such as 192.0.2.1 expected", name);
    return address;
}

std::optional<bool> OptionalFlag(lua_State *L, const char *name, int table) {
    if (!HasField(L, name, table))
        return std::nullopt;
    return FlagField(L, name, table);
}

std::optional<lua_Number> OptionalNumber(lua_State *L, const char *name, lua_Number limit, int table) {
    if (!HasField(L, name, table))
        return std::nullopt;
    return WholeField(L, name, limit, table);
}

/// The fields that change an adapter, checked, and owning nothing.
struct CheckedChange {
    std::optional<std::string_view> ip;
    std::optional<std::string_view> gateway;
    std::optional<lua_Number> frames;
    std::optional<bool> connected;
    std::optional<bool> gatewayAnswers;
    std::optional<lua_Number> status;

    AdapterChange Make() const {
        AdapterChange change;
        change.connected = connected;
        change.gatewayAnswers = gatewayAnswers;
        if (ip)
            change.ip = std::string(*ip);
        if (gateway)
            change.gateway = std::string(*gateway);
        if (frames)
            change.frames = static_cast<std::uint64_t>(*frames);
        if (status)
            change.status = static_cast<ULONG>(*status);
        return change;
    }
};

/// Raises an error if there are other fields than those that change an adapter.
void CheckChangeFields(lua_State *L, int table) {
    CheckFields(L, {"ip", "gateway", "frames", "connected", "gateway_answers", "status"}, table);
}

/// @param table  the index of a table that may have other fields, too.
CheckedChange CheckChange(lua_State *L, int table) {
    CheckedChange change;
    change.ip = AddressField(L, "ip", table);
    change.gateway = AddressField(L, "gateway", table);
    change.frames = OptionalNumber(L, "frames", kLastFrame, table);
    change.connected = OptionalFlag(L, "connected", table);
    change.gatewayAnswers = OptionalFlag(L, "gateway_answers", table);
    change.status = OptionalNumber(L, "status", kLastStatus, table);
    return change;
}

using MacAddress = std::array<unsigned, 6>;

bool ParseMac(std::string_view text, MacAddress &mac) {
    const char *at = text.data();
    const char *const end = at + text.size();
    for (unsigned &part : mac) {
        if (&part != &mac.front()) {
            if (at == end || *at != ':')
                return false;
            ++at;
        }
        const auto [next, error] = std::from_chars(at, end, part, 16);
        if (error != std::errc() || next - at > 2)
            return false;
        at = next;
    }
    return at == end;
}

/// The field `mac`; without one, an address that no other adapter is likely to have.
MacAddress CheckMac(lua_State *L) {
    static unsigned made = 0;
    if (!HasField(L, "mac"))
        return {2, 0, 0x5E, 0, (++made >> 8) & 0xFF, made & 0xFF};
    const std::string_view text = CheckTextField(L, "mac");
    MacAddress mac{};
    if (!ParseMac(text, mac))
        luaL_error(L, "field 'mac': an address such as 00:01:02:03:04:05 expected");
    return mac;
}

/// A device instance id without its last part.
std::string_view ModelOf(std::string_view node) {
    return node.substr(0, node.find_last_of('\\'));
}

/// Lua: host.machine.put_adapter{node =, name =, id =, mac =, ip =, gateway =, frames =, ...}
int PutAdapter(lua_State *L) {
    CheckFields(L, {"node", "name", "id", "mac", "ip", "gateway", "frames", "connected", "gateway_answers", "status"});
    const std::string_view node = CheckTextField(L, "node");
    const std::string_view name = CheckTextField(L, "name");
    const std::string_view id = HasField(L, "id") ? CheckTextField(L, "id") : ModelOf(node);
    const MacAddress mac = CheckMac(L);
    const CheckedChange change = CheckChange(L, 1);
    return ChangeInstallation(L, [&](Installation &installation) {
        Simulator::NetworkAdapter adapter;
        adapter.id = ToWide(id);
        adapter.pnpDevNodeId = ToWide(node);
        adapter.displayName = ToWide(name);
        adapter.mac.assign(mac.begin(), mac.end());
        adapter.frames = 0;
        ChangeAdapter(adapter, change.Make());
        installation.PutAdapter(std::move(adapter));
    });
}

/// Changes an adapter. An unknown name is an error of its argument: the first for an adapter, the second for a
/// component.
template <typename Work>
int ChangeNamedAdapter(lua_State *L, const Work &work) {
    int unknown = 0;
    const bool changed = WithInstallation(L, [&](Installation &installation) {
        try {
            work(installation);
        } catch (const UnknownComponent &) {
            unknown = 2;
            throw;
        } catch (const std::invalid_argument &) {
            unknown = 1;
            throw;
        }
    });
    if (changed)
        return 0;
    return unknown != 0 ? luaL_argerror(L, unknown, lua_tostring(L, -1)) : RaiseText(L, true);
}

/// Lua: host.machine.change_adapter(node, {ip =, gateway =, frames =, connected =, gateway_answers =, status =})
int ChangeOneAdapter(lua_State *L) {
    const std::string_view node = CheckText(L, 1);
    CheckChangeFields(L, 2);
    const CheckedChange change = CheckChange(L, 2);
    return ChangeNamedAdapter(
        L, [&](Installation &installation) { installation.ChangeAdapterAt(ToWide(node), change.Make()); });
}

/// Lua: host.machine.remove_adapter(node)
int RemoveAdapter(lua_State *L) {
    const std::string_view node = CheckText(L, 1);
    return ChangeNamedAdapter(L, [&](Installation &installation) { installation.RemoveAdapter(ToWide(node)); });
}

/// Lua: host.machine.bind(node, component [, bound])
int BindComponent(lua_State *L) {
    const std::string_view node = CheckText(L, 1);
    const std::string_view component = CheckText(L, 2);
    if (!lua_isnoneornil(L, 3))
        luaL_checktype(L, 3, LUA_TBOOLEAN);
    const bool bound = lua_isnoneornil(L, 3) || lua_toboolean(L, 3) != 0;
    return ChangeNamedAdapter(
        L, [&](Installation &installation) { installation.Bind(ToWide(node), ToWide(component), bound); });
}

void PushAdapter(lua_State *L, const AdapterState &adapter) {
    lua_newtable(L);
    SetField(L, "node", adapter.node);
    SetField(L, "name", adapter.name);
    SetField(L, "ip", adapter.ip);
    SetField(L, "gateway", adapter.gateway);
    lua_pushboolean(L, adapter.connected ? 1 : 0);
    lua_setfield(L, -2, "connected");
    lua_pushboolean(L, adapter.enabled ? 1 : 0);
    lua_setfield(L, -2, "enabled");
    SetTexts(L, "bound", adapter.bound);
}

/// Lua: array = host.machine.adapters()
int GetAdapters(lua_State *L) {
    bool pushed = false;
    {
        std::vector<AdapterState> adapters;
        const auto read = [&adapters](const Installation &installation) { adapters = installation.Adapters(); };
        pushed = WithInstallation(L, read) && PushProtected(L, [&adapters](lua_State *state) {
                     lua_newtable(state);
                     int index = 0;
                     for (const AdapterState &adapter : adapters) {
                         PushAdapter(state, adapter);
                         lua_rawseti(state, -2, ++index);
                     }
                 });
    }
    return pushed ? 1 : lua_error(L);
}

/// The field `results`.
struct CheckedResults {
    std::array<HRESULT, 16> results{};
    std::size_t count = 0;
};

CheckedResults CheckResults(lua_State *L) {
    CheckedResults checked;
    if (!HasField(L, "results"))
        return checked;
    lua_getfield(L, 1, "results");
    if (!lua_istable(L, -1))
        luaL_error(L, "field 'results': table expected, got %s", luaL_typename(L, -1));
    if (!IsArray(L, lua_gettop(L)))
        luaL_error(L, "field 'results': array expected");
    checked.count = lua_rawlen(L, -1);
    if (checked.count > checked.results.size())
        luaL_error(L, "field 'results': at most %d results", static_cast<int>(checked.results.size()));
    for (std::size_t i = 0; i < checked.count; ++i) {
        lua_rawgeti(L, -1, static_cast<int>(i + 1));
        checked.results[i] = CheckComponentResult(L, "results");
        lua_pop(L, 1);
    }
    lua_pop(L, 1);
    return checked;
}

/// Lua: host.machine.put_installable{id =, results =, leaves_nothing =, loads =}
int PutInstallable(lua_State *L) {
    CheckFields(L, {"id", "results", "leaves_nothing", "loads"});
    const std::string_view id = CheckTextField(L, "id");
    const CheckedResults results = CheckResults(L);
    const bool leavesNothing = FlagField(L, "leaves_nothing");
    const bool isLoading = HasField(L, "loads");
    const std::string_view loads = isLoading ? CheckTextField(L, "loads") : std::string_view();
    return ChangeInstallation(L, [&](Installation &installation) {
        installation.PutInstallable({.component = {.id = ToWide(id)},
                                     .results = {results.results.begin(), results.results.begin() + results.count},
                                     .leavesNothing = leavesNothing},
                                    isLoading ? std::optional<std::string>(loads) : std::nullopt);
    });
}

struct NamedHappening {
    std::string_view name;
    NetworkHappening::What what;
    bool isOfDevice;
};
constexpr NamedHappening kHappenings[] = {
    {"installed", NetworkHappening::What::Installed, false}, {"removed", NetworkHappening::What::Removed, false},
    {"bound", NetworkHappening::What::Bound, false},         {"unbound", NetworkHappening::What::Unbound, false},
    {"enabled", NetworkHappening::What::Enabled, true},      {"disabled", NetworkHappening::What::Disabled, true},
};

const NamedHappening &CheckHappening(lua_State *L) {
    const std::string_view name = CheckTextField(L, "happens");
    for (const NamedHappening &known : kHappenings)
        if (known.name == name)
            return known;
    luaL_error(L, "field 'happens': installed, removed, bound, unbound, enabled or disabled expected");
    return kHappenings[0];  // not reached
}

/// Lua: host.machine.when({happens =, component =, adapter =}, node, changes). Applies once.
int AddRule(lua_State *L) {
    CheckFields(L, {"happens", "component", "adapter"});
    const NamedHappening &happening = CheckHappening(L);
    if (happening.isOfDevice && HasField(L, "component"))
        luaL_error(L, "field 'component': an adapter is %s, not a component", happening.name.data());
    const std::string_view component = happening.isOfDevice ? std::string_view() : CheckTextField(L, "component");
    const bool hasAdapter = happening.isOfDevice || HasField(L, "adapter");
    const std::string_view adapter = hasAdapter ? CheckTextField(L, "adapter") : std::string_view();
    const std::string_view node = CheckText(L, 2);
    CheckChangeFields(L, 3);
    const CheckedChange change = CheckChange(L, 3);
    luaL_where(L, 1);
    const char *const where = lua_tostring(L, -1);
    return ChangeInstallation(L, [&](Installation &installation) {
        const std::size_t rule =
            installation.When({{happening.what, ToWide(component), ToWide(adapter)}, ToWide(node), change.Make()});
        HostOf(L).plans.Add(
            UnusedPlans::Kind::NetworkRule,
            [&installation, rule,
             text = where + ("nothing was " + std::string(happening.name)) +
                    " for which host.machine.when waits: " + std::string(happening.isOfDevice ? adapter : component)] {
                return installation.Awaits(rule) ? text : std::string();
            });
    });
}

/// Lua: host.machine.write_driver(path, version)
int WriteDriver(lua_State *L) {
    const std::string_view path = CheckText(L, 1);
    const std::optional<Simulator::FileVersion> version =
        ParseFourNumbers<Simulator::FileVersion::value_type>(CheckText(L, 2));
    luaL_argcheck(L, version.has_value(), 2, "a version such as 2.0.0.0 expected");
    return Guarded(L, [&] { Simulator::WriteDriverFile(ToWide(path), *version); }) ? 0 : lua_error(L);
}

}  // namespace

void AddNetworkFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {
        {"put_adapter", PutAdapter},
        {"change_adapter", ChangeOneAdapter},
        {"remove_adapter", RemoveAdapter},
        {"bind", BindComponent},
        {"adapters", GetAdapters},
        {"put_installable", PutInstallable},
        {"when", AddRule},
        {"write_driver", WriteDriver},
        {nullptr, nullptr},
    };
    AddFunctions(L, host, functions);
}
