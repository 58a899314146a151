// Time, for scripts.
#include "HostState.h"

#include <cmath>

#include <windows.h>

#include "Interruption.h"
#include "WallClock.h"

namespace {

/// The longest wait; some 31 years.
constexpr lua_Number kMaxSeconds = 1e9;
constexpr lua_Number kMaxSleepSeconds = 4'000'000;
/// The end of the year 9999.
constexpr lua_Number kMaxWallSeconds = 253'402'300'799;

lua_Number CheckSeconds(lua_State *L, lua_Number limit) {
    const lua_Number seconds = luaL_checknumber(L, 1);
    luaL_argcheck(L, seconds >= 0 && seconds <= limit, 1, "seconds out of range");
    return seconds;
}

/// The system, which must have a simulated clock.
SimulatedSystem &CheckClock(lua_State *L, const char *function) {
    SimulatedSystem &system = HostOf(L).system;
    if (!system.HasClock())
        luaL_error(L, "%s needs a simulated clock: start fc-host with --clock steps", function);
    return system;
}

/// Lua: host.sleep(seconds). By the simulated clock, if there is one; an interruption ends it.
int SleepSeconds(lua_State *L) {
    (void)WaitForSingleObject(InterruptionEvent(), static_cast<DWORD>(CheckSeconds(L, kMaxSleepSeconds) * 1000));
    return 0;
}

/// Lua: interrupted = host.interrupted(). Whether Ctrl-C has come.
int GetInterrupted(lua_State *L) {
    lua_pushboolean(L, IsInterrupted() ? 1 : 0);
    return 1;
}

/// Lua: seconds = host.time(). Since 1970, UTC, with a fraction.
int GetTime(lua_State *L) {
    lua_pushnumber(L, WallClockSeconds());
    return 1;
}

/// Lua: host.advance(seconds). Advances the simulated clock at once.
int AdvanceClock(lua_State *L) {
    const lua_Number seconds = CheckSeconds(L, kMaxSeconds);
    CheckClock(L, "host.advance").Advance(seconds);
    return 0;
}

/// Lua: host.set_wall_clock(seconds_since_1970). Sets the time of day of the simulated clock to a whole second, even
/// backwards; sleeps and waits are not affected.
int SetWallClock(lua_State *L) {
    const lua_Number seconds = std::floor(luaL_checknumber(L, 1));
    luaL_argcheck(L, seconds >= 0 && seconds <= kMaxWallSeconds, 1, "seconds out of range");
    CheckClock(L, "host.set_wall_clock").SetWallClock(static_cast<std::int64_t>(seconds));
    return 0;
}

}  // namespace

void AddClockFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {
        {"sleep", SleepSeconds},   {"interrupted", GetInterrupted},  {"time", GetTime},
        {"advance", AdvanceClock}, {"set_wall_clock", SetWallClock}, {nullptr, nullptr},
    };
    AddFunctions(L, host, functions);
}
