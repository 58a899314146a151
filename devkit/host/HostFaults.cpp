// Faults of the simulated machine, for scripts.
#include "HostState.h"

#include <exception>

#include "Faults.h"
#include "LuaEdge.h"
#include "LuaFields.h"

namespace {

constexpr lua_Number kLastFaultCode = 4294967295.0;
constexpr lua_Number kLastCall = 1'000'000'000;
constexpr lua_Number kLongestDelay = 4'000'000;  // seconds

/// What a script asks for. All that belongs to one call.
struct Wish {
    std::string_view call;
    unsigned nth = 0;  ///< 0 for every call.
    bool fails = false;
    bool hangs = false;
    DWORD code = 0;
    DWORD delayMs = 0;
    DWORD advanceMs = 0;  ///< Of simulated time, that pass as soon as the call hangs.
};

Wish CheckWish(lua_State *L) {
    CheckFields(L, {"call", "nth", "fail", "hang", "delay", "advance"});
    Wish wish;
    wish.call = CheckTextField(L, "call");
    wish.nth = static_cast<unsigned>(WholeField(L, "nth", kLastCall));
    wish.fails = HasField(L, "fail");
    wish.hangs = FlagField(L, "hang");
    wish.code = static_cast<DWORD>(WholeField(L, "fail", kLastFaultCode));
    wish.delayMs = static_cast<DWORD>(NumberField(L, "delay", kLongestDelay) * 1000);
    if (!wish.fails && !wish.hangs && wish.delayMs == 0)
        luaL_error(L, "what is the call to do? fail, hang or delay expected");
    wish.advanceMs = static_cast<DWORD>(NumberField(L, "advance", kLongestDelay) * 1000);
    if (wish.advanceMs != 0 && !wish.hangs)
        luaL_error(L, "field 'advance': only for a call that hangs");
    if (wish.advanceMs != 0 && !HostOf(L).system.HasClock())
        luaL_error(L, "field 'advance' needs a simulated clock: start fc-host with --fast N");
    return wish;
}

void Plan(SimulatedSystem &system, Simulator::Faults &faults, const Wish &wish) {
    const std::string call(wish.call);
    if (wish.delayMs != 0)
        (void)(wish.nth == 0 ? faults.DelayEvery(call, wish.delayMs) : faults.DelayNth(call, wish.nth, wish.delayMs));
    if (wish.fails)
        (void)(wish.nth == 0 ? faults.FailEvery(call, wish.code) : faults.FailNth(call, wish.nth, wish.code));
    if (!wish.hangs)
        return;
    const Simulator::FaultPlanHandle hang = wish.nth == 0 ? faults.HangEvery(call) : faults.HangNth(call, wish.nth);
    if (wish.advanceMs != 0)
        system.AdvanceWhenHit(hang, wish.advanceMs);
}

/// Works on the faults. @return false with an error on the stack, where something was thrown.
template <typename Work>
[[nodiscard]] bool WithFaults(lua_State *L, const Work &work) {
    try {
        work(HostOf(L).system.UseFaults());
        return true;
    } catch (const std::exception &error) {
        (void)PushText(L, error.what());
        return false;
    }
}

/// Lua: host.fault{call =, nth =, fail =, hang =, delay =, advance =}
int AddFault(lua_State *L) {
    const Wish wish = CheckWish(L);
    bool isKnown = false;
    const bool done = WithFaults(L, [&](Simulator::Faults &faults) {
        isKnown = HostOf(L).system.IsSimulated(std::string(wish.call));
        if (isKnown)
            Plan(HostOf(L).system, faults, wish);
    });
    if (!done)
        return lua_error(L);
    if (!isKnown)
        return luaL_error(L, "no call of that name is simulated: %s", wish.call.data());
    return 0;
}

/// Lua: host.clear_faults(). Calls that hang do their work now.
int EndFaults(lua_State *L) {
    return WithFaults(L, [](Simulator::Faults &faults) { faults.Clear(); }) ? 0 : lua_error(L);
}

}  // namespace

void AddFaultFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {{"fault", AddFault}, {"clear_faults", EndFaults}, {nullptr, nullptr}};
    AddFunctions(L, host, functions);
}
