// What scripts can see of the last iteration.
#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <limits>
#include <type_traits>

#include <windows.h>

#include "HealthState.h"
#include "HealthTrace.h"
#include "SystemHealth.h"
#include "common/Trace.h"

namespace {

/// The number's integer part. One that is no number or has no 64-bit integer part gives the least integer, as the
/// processor's own conversion has it.
lua_Integer SysHealthIntegerPart(double number) {
    constexpr double limit = 9223372036854775808.0;  // 2 to the power of 63
    static_assert(sizeof(lua_Integer) == 8);
    if (!(std::fabs(number) < limit))
        return std::numeric_limits<lua_Integer>::min();
    return static_cast<lua_Integer>(number);
}

/// A metric as scripts see it.
struct ShownMetric {
    const char *name;
    lua_Integer value;
    lua_Integer threshold;
};
using ShownMetrics = std::array<ShownMetric, kMetricRows>;
static_assert(std::is_trivially_destructible_v<ShownMetrics>, "it is alive while Lua may raise an error");

ShownMetrics CopySysHealthMetrics() {
    ShownMetrics shown = {};
    const wxCriticalSectionLocker lock(healthState.lock);
    const auto &metrics = healthState.metrics.sysHealthMetrics;
    std::transform(std::begin(metrics), std::end(metrics), shown.begin(), [](const SysHealthMetric &metric) {
        // The threshold is never shown with a factor.
        return ShownMetric{metric.short_name, SysHealthIntegerPart(metric.value),
                           SysHealthIntegerPart(metric.threshold)};
    });
    return shown;
}

void PushSysHealthMetric(lua_State *L, const ShownMetric &metric) {
    lua_createtable(L, 0, 3);
    lua_pushinteger(L, metric.value);
    lua_setfield(L, -2, "value");
    lua_pushinteger(L, metric.threshold);
    lua_setfield(L, -2, "threshold");
    lua_pushstring(L, metric.name);
    lua_setfield(L, -2, "name");
}

/// Pushes the array of the metrics, the processor count behind them.
void PushSysHealthMetrics(lua_State *L, const ShownMetrics &metrics) {
    lua_createtable(L, kMetricRows + 1, 0);
    int index = 0;
    for (const ShownMetric &metric : metrics) {
        PushSysHealthMetric(L, metric);
        lua_rawseti(L, -2, ++index);
    }
    SYSTEM_INFO system = {};
    GetSystemInfo(&system);  // a count of 0 is shown as it is
    lua_createtable(L, 0, 1);
    lua_pushinteger(L, static_cast<lua_Integer>(system.dwNumberOfProcessors));
    lua_setfield(L, -2, "cpu_count");
    lua_rawseti(L, -2, ++index);
}

}  // namespace

int GetSysHealthMetrics(lua_State *L) {
    Trace(kReadOutTrace, "GetSysHealthMetrics() called");
    // Not under the lock: while Lua makes the tables it may run scripts' finalizers, which may take long, raise an
    // error or start an iteration.
    const ShownMetrics metrics = CopySysHealthMetrics();
    lua_pushboolean(L, 1);
    PushSysHealthMetrics(L, metrics);
    Trace(kReadOutTrace, "GetSysHealthMetrics() returning");
    return 2;
}

int GetSysHealthEnabled(lua_State *L) {
    Trace(kEngineTrace, "GetSysHealthEnabled() called");
    const wxCriticalSectionLocker lock(healthState.lock);
    lua_pushboolean(L, healthState.sysHealthEnabled);
    Trace(kEngineTrace, "GetSysHealthEnabled() returning %d", healthState.sysHealthEnabled);
    return 1;
}
