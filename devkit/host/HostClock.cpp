// Time, for scripts.
#include "HostState.h"

#include <windows.h>

namespace {

/// No wait may be longer; some 31 years.
constexpr lua_Number kMaxSeconds = 1e9;
constexpr lua_Number kMaxSleepSeconds = 4'000'000;

lua_Number CheckSeconds(lua_State *L, lua_Number limit) {
    const lua_Number seconds = luaL_checknumber(L, 1);
    luaL_argcheck(L, seconds >= 0 && seconds <= limit, 1, "seconds out of range");
    return seconds;
}

/// Lua: host.sleep(seconds). On the simulated clock, if there is one.
int SleepSeconds(lua_State *L) {
    Sleep(static_cast<DWORD>(CheckSeconds(L, kMaxSleepSeconds) * 1000));
    return 0;
}

/// Lua: seconds = host.time(). Since 1970, UTC, with a fraction.
int GetTime(lua_State *L) {
    constexpr lua_Number intervalsPerSecond = 1e7;
    constexpr lua_Number secondsFrom1601To1970 = 11'644'473'600.0;
    FILETIME time{};
    GetSystemTimeAsFileTime(&time);
    const ULARGE_INTEGER intervals{{time.dwLowDateTime, time.dwHighDateTime}};
    lua_pushnumber(L, static_cast<lua_Number>(intervals.QuadPart) / intervalsPerSecond - secondsFrom1601To1970);
    return 1;
}

/// Lua: host.advance(seconds). Puts the simulated clock forward at once.
int AdvanceClock(lua_State *L) {
    const lua_Number seconds = CheckSeconds(L, kMaxSeconds);
    Clock &clock = HostOf(L).clock;
    if (!clock.IsSimulated())
        return luaL_error(L, "host.advance needs a simulated clock: start fc-host with --fast N");
    clock.Advance(seconds);
    return 0;
}

}  // namespace

void AddClockFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {
        {"sleep", SleepSeconds},
        {"time", GetTime},
        {"advance", AdvanceClock},
        {nullptr, nullptr},
    };
    AddFunctions(L, host, functions);
}
