// The driver of the stand-in for vti, for scripts.
#include "HostState.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "LuaEdge.h"
#include "UnknownName.h"
#include "vti_control.h"

namespace {

// The fields of host.driver.

bool PushBoolean(lua_State *L, bool value) {
    lua_pushboolean(L, value ? 1 : 0);
    return true;
}

bool PushNumber(lua_State *L, int value) {
    lua_pushinteger(L, value);
    return true;
}

/// Accesses the driver under its lock. The function must not raise Lua errors.
template <typename Work>
auto WithDriver(const Work &work) {
    const std::lock_guard<std::mutex> guard(Vti::Lock());
    return work(Vti::TheDriver());
}

bool PushCalls(lua_State *L) {
    const std::vector<std::string> calls = WithDriver([](const Vti::Driver &driver) { return driver.calls; });
    return PushProtected(L, [&calls](lua_State *state) { PushTexts(state, calls); });
}

bool PushVersion(lua_State *L) {
    const std::string version = WithDriver([](const Vti::Driver &driver) { return driver.version; });
    return PushText(L, version);
}

template <typename Value>
Value Read(Value Vti::Driver::*field) {
    return WithDriver([field](const Vti::Driver &driver) { return driver.*field; });
}

void SetFlag(lua_State *L, bool Vti::Driver::*field) {
    luaL_checktype(L, 3, LUA_TBOOLEAN);
    const bool value = lua_toboolean(L, 3) != 0;
    WithDriver([field, value](Vti::Driver &driver) { driver.*field = value; });
}

struct Field {
    const char *name;
    bool (*push)(lua_State *L);  ///< False if it has left an error on the stack.
    void (*set)(lua_State *L);   ///< Sets it from the value at index 3; null if it is read-only.
};

constexpr Field kFields[] = {
    {"present", [](lua_State *L) { return PushBoolean(L, Read(&Vti::Driver::present)); },
     [](lua_State *L) { SetFlag(L, &Vti::Driver::present); }},
    {"available", [](lua_State *L) { return PushBoolean(L, Read(&Vti::Driver::available)); },
     [](lua_State *L) { SetFlag(L, &Vti::Driver::available); }},
    {"version", PushVersion,
     [](lua_State *L) {
         const std::string_view version = CheckText(L, 3);
         WithDriver([version](Vti::Driver &driver) { driver.version = version; });
     }},
    {"open_handles", [](lua_State *L) { return PushNumber(L, Read(&Vti::Driver::openHandles)); }, nullptr},
    {"trace_level", [](lua_State *L) { return PushNumber(L, Read(&Vti::Driver::traceLevel)); }, nullptr},
    {"calls", PushCalls, nullptr},
};

const Field &FindField(lua_State *L) {
    const char *name = luaL_checkstring(L, 2);
    for (const Field &field : kFields)
        if (std::strcmp(field.name, name) == 0)
            return field;
    RaiseUnknownName(L, "host.driver has no field", name, [] { return NamesOf(kFields); });
    return kFields[0];  // not reached
}

int GetField(lua_State *L) {
    return FindField(L).push(L) ? 1 : lua_error(L);
}

int SetField(lua_State *L) {
    const Field &field = FindField(L);
    if (field.set == nullptr)
        return luaL_error(L, "host.driver.%s can only be read", field.name);
    field.set(L);
    return 0;
}

/// Lua: pairs visits the fields, too.
int ListFields(lua_State *L) {
    return PairsWithFields(L, kFields);
}

// Its functions.

/// The index of a filter variable at stack index 1.
std::size_t CheckVariable(lua_State *L) {
    const lua_Integer index = luaL_checkinteger(L, 1);
    luaL_argcheck(L, index >= 0 && index < 174, 1, "filter variables have the numbers 0 to 173");
    return static_cast<std::size_t>(index);
}

/// The number at the index, rounded down, from 0 to the limit.
double CheckCount(lua_State *L, int index, double limit) {
    const lua_Number number = std::floor(luaL_checknumber(L, index));
    luaL_argcheck(L, number >= 0 && number <= limit, index, "number out of range");
    return number;
}

/// Lua: value = host.driver.get_variable(index)
int GetVariable(lua_State *L) {
    const std::size_t index = CheckVariable(L);
    lua_pushnumber(L, WithDriver([index](const Vti::Driver &driver) { return driver.variables[index]; }));
    return 1;
}

/// Lua: host.driver.set_variable(index, value)
int SetVariable(lua_State *L) {
    const std::size_t index = CheckVariable(L);
    const auto value = static_cast<std::uint32_t>(CheckCount(L, 2, 4294967295.0));
    WithDriver([index, value](Vti::Driver &driver) { driver.variables[index] = value; });
    return 0;
}

/// Lua: host.driver.set_counters{c1, ..., c10}. The counts of a monitored port; missing ones are 0.
int SetCounters(lua_State *L) {
    constexpr double maxExact = 9007199254740992.0;  // 2 to the power of 53
    luaL_checktype(L, 1, LUA_TTABLE);
    std::array<std::uint64_t, 10> counters{};
    luaL_argcheck(L, IsArray(L, 1), 1, "an array of numbers expected");
    luaL_argcheck(L, lua_rawlen(L, 1) <= counters.size(), 1, "at most ten counters");
    for (std::size_t i = 0; i < lua_rawlen(L, 1); ++i) {
        lua_rawgeti(L, 1, static_cast<int>(i + 1));
        counters[i] = static_cast<std::uint64_t>(CheckCount(L, -1, maxExact));
        lua_pop(L, 1);
    }
    WithDriver([&counters](Vti::Driver &driver) { driver.scanCounters = counters; });
    return 0;
}

/// Raises an error unless the argument is an array of strings of at most 64 bytes each.
void CheckConnections(lua_State *L, int index) {
    constexpr std::size_t maxConnections = 65'535;
    luaL_checktype(L, index, LUA_TTABLE);
    luaL_argcheck(L, IsArray(L, index), index, "an array of strings expected");
    luaL_argcheck(L, lua_rawlen(L, index) <= maxConnections, index, "at most 65535 connections");
    for (std::size_t i = 0; i < lua_rawlen(L, index); ++i) {
        lua_rawgeti(L, index, static_cast<int>(i + 1));
        const bool fits = lua_type(L, -1) == LUA_TSTRING && lua_rawlen(L, -1) <= sizeof(Vti::Connection);
        luaL_argcheck(L, fits, index, "a connection is a string of at most 64 bytes");
        lua_pop(L, 1);
    }
}

/// Expects what CheckConnections has accepted. Raises no error.
std::vector<Vti::Connection> ToConnections(lua_State *L, int index) {
    std::vector<Vti::Connection> connections(lua_rawlen(L, index));
    int number = 0;
    for (Vti::Connection &connection : connections) {
        lua_rawgeti(L, index, ++number);
        std::memcpy(connection.bytes.data(), lua_tostring(L, -1), lua_rawlen(L, -1));
        lua_pop(L, 1);
    }
    return connections;
}

/// Lua: host.driver.set_connections(udp, tcp). Arrays of strings, the entries of both tables; shorter strings are
/// padded with zeros.
int SetConnections(lua_State *L) {
    CheckConnections(L, 1);
    CheckConnections(L, 2);
    WithDriver([L](Vti::Driver &driver) {
        driver.udp = ToConnections(L, 1);
        driver.tcp = ToConnections(L, 2);
    });
    return 0;
}

int SetBytes(lua_State *L, std::vector<std::uint8_t> Vti::Driver::*field) {
    const std::string_view bytes = CheckText(L, 1);
    WithDriver([field, bytes](Vti::Driver &driver) { (driver.*field).assign(bytes.begin(), bytes.end()); });
    return 0;
}

/// Lua: host.driver.set_blacklist(bytes)
int SetBlacklist(lua_State *L) {
    return SetBytes(L, &Vti::Driver::blacklist);
}

/// Lua: host.driver.set_profile(bytes)
int SetProfile(lua_State *L) {
    return SetBytes(L, &Vti::Driver::profile);
}

std::vector<std::string> Operations() {
    return {Vti::kOperations.begin(), Vti::kOperations.end()};
}

/// What is to be told of a fault of the operation that no call has met.
UnusedPlans::Complaint UnmetFault(std::string where, std::string operation) {
    return [where = std::move(where), operation = std::move(operation)]() -> std::string {
        const bool met = WithDriver([&operation](const Vti::Driver &driver) {
            const auto fault = driver.faults.find(operation);
            return fault == driver.faults.end() || fault->second.met != 0;
        });
        return met ? "" : where + "the driver's fault of " + operation + " never struck: nobody called it";
    };
}

/// Lua: host.driver.set_fault(operation, status, text). The operation fails until clear_faults.
int SetFault(lua_State *L) {
    const std::string_view operation = CheckText(L, 1);
    if (std::find(Vti::kOperations.begin(), Vti::kOperations.end(), operation) == Vti::kOperations.end())
        return RaiseUnknownName(L, "the driver has no operation", operation, Operations);
    const auto status = static_cast<std::int32_t>(luaL_checkinteger(L, 2));
    const std::string_view text = CheckText(L, 3);
    luaL_where(L, 1);
    UnusedPlans &plans = HostOf(L).plans;
    plans.Settle(UnusedPlans::Kind::DriverFault, operation);  // this one takes the place of an earlier one
    WithDriver(
        [&](Vti::Driver &driver) { driver.faults[std::string(operation)] = {status, std::string(text), -1, 0}; });
    plans.Add(UnusedPlans::Kind::DriverFault, UnmetFault(lua_tostring(L, -1), std::string(operation)),
              std::string(operation));
    return 0;
}

/// Lua: array = host.driver.fault_names(). The operations that set_fault knows.
int GetOperations(lua_State *L) {
    bool pushed = false;
    {
        const std::vector<std::string> operations = Operations();
        pushed = PushProtected(L, [&operations](lua_State *state) { PushTexts(state, operations); });
    }
    return pushed ? 1 : lua_error(L);
}

/// Lua: host.driver.clear_faults()
int ClearFaults(lua_State *L) {
    HostOf(L).plans.Settle(UnusedPlans::Kind::DriverFault);
    WithDriver([](Vti::Driver &driver) { driver.faults.clear(); });
    return 0;
}

/// Lua: host.driver.trace(level, source, file, line, text). Makes the library trace a line.
int TraceLine(lua_State *L) {
    const auto level = static_cast<std::int32_t>(luaL_checkinteger(L, 1));
    const char *source = luaL_checkstring(L, 2);
    const char *file = luaL_checkstring(L, 3);
    const auto line = static_cast<std::int32_t>(luaL_checkinteger(L, 4));
    const char *text = luaL_checkstring(L, 5);
    Vti::Trace(level, source, file, line, text);
    return 0;
}

}  // namespace

void AddDriverFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg driverFunctions[] = {
        {"get_variable", GetVariable},
        {"set_variable", SetVariable},
        {"set_counters", SetCounters},
        {"set_connections", SetConnections},
        {"set_blacklist", SetBlacklist},
        {"set_profile", SetProfile},
        {"set_fault", SetFault},
        {"fault_names", GetOperations},
        {"clear_faults", ClearFaults},
        {"trace", TraceLine},
        {nullptr, nullptr},
    };
    constexpr luaL_Reg fieldFunctions[] = {
        {"__index", GetField}, {"__newindex", SetField}, {"__pairs", ListFields}, {nullptr, nullptr}};

    lua_newtable(L);
    AddFunctions(L, host, driverFunctions);
    lua_newtable(L);
    AddFunctions(L, host, fieldFunctions);
    lua_setmetatable(L, -2);
    lua_setfield(L, -2, "driver");
}
