// Faults of the simulated machine, for scripts.
#include "HostState.h"

#include <utility>

#include "Faults.h"
#include "LuaEdge.h"
#include "LuaFields.h"

namespace {

constexpr lua_Number kLastFaultCode = 4294967295.0;
constexpr lua_Number kLastCall = 1'000'000'000;
constexpr lua_Number kLongestDelay = 4'000'000;  // seconds

/// The fault that a script requests. One of `fails`, `hangs` and `delays` is set.
struct FaultRequest {
    std::string_view call;
    unsigned nth = 0;  ///< 0 for every call.
    bool fails = false;
    bool hangs = false;
    bool delays = false;
    DWORD code = 0;
    DWORD delayMs = 0;
    DWORD advanceMs = 0;  ///< Simulated time that passes as soon as the call hangs.
};

FaultRequest ReadFaultRequest(lua_State *L) {
    CheckFields(L, {"call", "nth", "fail", "hang", "delay", "advance"});
    FaultRequest request;
    request.call = CheckTextField(L, "call");
    const std::optional<std::string_view> call = SimulatedSystem::FindCall(request.call);
    if (!call)
        RaiseUnknownName(L, "no call of that name is simulated:", request.call, SimulatedSystem::Calls);
    request.call = *call;
    request.nth = static_cast<unsigned>(WholeField(L, "nth", kLastCall));
    if (HasField(L, "nth") && request.nth == 0)
        luaL_error(L, "field 'nth': calls are counted from 1");
    request.fails = HasField(L, "fail");
    if (request.fails && !SimulatedSystem::CanFail(request.call))
        luaL_error(L, "%s can't fail: it can only be late, or hang", request.call.data());
    request.hangs = FlagField(L, "hang");
    request.delays = HasField(L, "delay");
    if (int{request.fails} + int{request.hangs} + int{request.delays} != 1)
        luaL_error(L, "what is the call to do? one of fail, hang and delay expected");
    request.code = static_cast<DWORD>(WholeField(L, "fail", kLastFaultCode));
    request.delayMs = static_cast<DWORD>(NumberField(L, "delay", kLongestDelay) * 1000);
    request.advanceMs = static_cast<DWORD>(NumberField(L, "advance", kLongestDelay) * 1000);
    if (request.advanceMs != 0 && !request.hangs)
        luaL_error(L, "field 'advance': only for a call that hangs");
    if (request.advanceMs != 0 && !HostOf(L).system.HasClock())
        luaL_error(L, "field 'advance' needs a simulated clock: start fc-host with --clock steps");
    return request;
}

Simulator::FaultPlanHandle Plan(SimulatedSystem &system, const FaultRequest &request) {
    Simulator::Faults &faults = system.UseFaults();
    const std::string call(request.call);
    const bool every = request.nth == 0;
    if (request.delays)
        return every ? faults.DelayEvery(call, request.delayMs) : faults.DelayNth(call, request.nth, request.delayMs);
    if (request.fails)
        return every ? faults.FailEvery(call, request.code) : faults.FailNth(call, request.nth, request.code);
    const Simulator::FaultPlanHandle hang = every ? faults.HangEvery(call) : faults.HangNth(call, request.nth);
    if (request.advanceMs != 0)
        system.AdvanceWhenHit(hang, request.advanceMs);
    return hang;
}

/// What is to be told of a plan that no call has met.
UnusedPlans::Complaint UnmetPlan(SimulatedSystem &system, const FaultRequest &request, std::string where,
                                 const Simulator::FaultPlanHandle &plan) {
    const unsigned before = system.UseFaults().Calls(std::string(request.call));
    return [&system, plan, before, where = std::move(where), call = std::string(request.call),
            nth = request.nth]() -> std::string {
        if (plan->Hit())
            return {};
        const unsigned calls = system.UseFaults().Calls(call) - before;
        const std::string text = where + "the fault of " + call + " never struck: ";
        if (calls == 0)
            return text + "nobody called it";
        return text + "it was for call " + std::to_string(nth) + ", of " + std::to_string(calls);
    };
}

/// Lua: host.fault{call =, nth =, fail =, hang =, delay =, advance =}
int AddFault(lua_State *L) {
    const FaultRequest request = ReadFaultRequest(L);
    luaL_where(L, 1);
    const char *const where = lua_tostring(L, -1);
    HostState &host = HostOf(L);
    const auto plan = [&] {
        host.plans.Add(UnusedPlans::Kind::Fault, UnmetPlan(host.system, request, where, Plan(host.system, request)));
    };
    return Guarded(L, plan) ? 0 : lua_error(L);
}

/// Lua: array = host.fault_names(). The calls that host.fault knows, in the order of the alphabet.
int GetCalls(lua_State *L) {
    bool pushed = false;
    {
        const std::vector<std::string> calls = SimulatedSystem::Calls();
        pushed = PushProtected(L, [&calls](lua_State *state) { PushTexts(state, calls); });
    }
    return pushed ? 1 : lua_error(L);
}

/// Lua: host.clear_faults(). Hanging calls then do their work.
int EndFaults(lua_State *L) {
    HostState &host = HostOf(L);
    host.plans.Settle(UnusedPlans::Kind::Fault);
    return Guarded(L, [&host] { host.system.UseFaults().Clear(); }) ? 0 : lua_error(L);
}

}  // namespace

void AddFaultFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {
        {"fault", AddFault}, {"clear_faults", EndFaults}, {"fault_names", GetCalls}, {nullptr, nullptr}};
    AddFunctions(L, host, functions);
}
