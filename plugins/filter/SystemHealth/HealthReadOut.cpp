// What scripts can see of the last iteration.
#include <cmath>
#include <limits>

#include <windows.h>

#include "HealthConfig.h"
#include "HealthLog.h"
#include "HealthMetrics.h"
#include "HealthSwitch.h"
#include "SystemHealth.h"
#include "fc/fc.h"

namespace {

/// The number's integer part. One that is no number or has no 64-bit integer part gives the least integer, as the
/// processor's own conversion has it.
lua_Integer IntegerPart(double number) {
    constexpr double limit = 9223372036854775808.0;  // 2 to the power of 63
    static_assert(sizeof(lua_Integer) == 8);
    if (!(std::fabs(number) < limit))
        return std::numeric_limits<lua_Integer>::min();
    return static_cast<lua_Integer>(number);
}

void PushMetric(lua_State *L, const SysHealthMetric &metric) {
    lua_createtable(L, 0, 3);
    lua_pushinteger(L, IntegerPart(metric.value));
    lua_setfield(L, -2, "value");
    lua_pushinteger(L, IntegerPart(metric.threshold));  // never with a factor
    lua_setfield(L, -2, "threshold");
    lua_pushstring(L, metric.short_name);
    lua_setfield(L, -2, "name");
}

/// Lua: yields the array of the metrics, the processor count behind them.
int BuildMetrics(lua_State *L) {
    lua_createtable(L, kMetricRows + 1, 0);
    int index = 0;
    for (const SysHealthMetric &metric : sysHealthMetrics) {
        PushMetric(L, metric);
        lua_rawseti(L, -2, ++index);
    }
    SYSTEM_INFO system = {};
    GetSystemInfo(&system);  // a count of 0 is shown as it is
    lua_createtable(L, 0, 1);
    lua_pushinteger(L, static_cast<lua_Integer>(system.dwNumberOfProcessors));
    lua_setfield(L, -2, "cpu_count");
    lua_rawseti(L, -2, ++index);
    return 1;
}

}  // namespace

int GetSysHealthMetrics(lua_State *L) {
    int status = LUA_OK;
    Trace(kReadOutTrace, "GetSysHealthMetrics() called");
    {
        // Lua may run out of memory while it builds: its error must not leave the lock taken. It may also collect
        // garbage, so a script's finalizers must not wait for another thread's read-out.
        const wxCriticalSectionLocker lock(sysHealthLock);
        lua_pushboolean(L, 1);
        lua_pushcfunction(L, BuildMetrics);
        status = lua_pcall(L, 0, 1, 0);
        Trace(kReadOutTrace, "GetSysHealthMetrics() returning");
    }
    if (status != LUA_OK)
        return lua_error(L);
    return 2;
}

int GetSysHealthEnabled(lua_State *L) {
    Trace(kEngineTrace, "GetSysHealthEnabled() called");
    const wxCriticalSectionLocker lock(sysHealthLock);
    lua_pushboolean(L, sysHealthEnabled);
    Trace(kEngineTrace, "GetSysHealthEnabled() returning %d", sysHealthEnabled);
    return 1;
}

// The configured port, not the one that the driver knows; the configuration is written without this lock.
int GetScanMetricPort(lua_State *L) {
    Trace(kReadOutTrace, "GetScanMetricPort() called");
    const wxCriticalSectionLocker lock(sysHealthLock);
    const SysHealthConfigEntry &port = sysHealthConfig[SYS_CONF_CONN_REFUSAL_PORT];
    const bool isMonitored = sysHealthEnabled == 1 && port.is_set != 0;
    lua_pushboolean(L, isMonitored ? 1 : 0);
    lua_pushinteger(L, isMonitored ? static_cast<lua_Integer>(port.value) : 0);
    Trace(kEngineTrace, "GetScanMetricPort() returning");  // on the engine's component, unlike the call
    return 2;
}
