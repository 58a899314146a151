#include "ConnMetrics.h"

#include <cmath>
#include <ctime>

#include "ConnMetricsObjects.h"
#include "ConnMetricsRows.h"

namespace {

constexpr std::int64_t kFoldAfterSeconds = 60;

/// The low 32 bits of the number's integer part. A number beyond 64 bits, infinite or no number
/// has none of them set, as the processor's own conversion has it.
std::uint32_t ConnMetricsCount(lua_Number number) {
    // compat 13: a negative count wraps, and a count of 0 in 32 bits is no data
    constexpr lua_Number limit = 9223372036854775808.0;  // 2 to the power of 63
    if (!(std::fabs(number) < limit))
        return 0;
    return static_cast<std::uint32_t>(static_cast<std::int64_t>(number));
}

/// Puts back what a failed drain has taken, as if there had been no drain: it was in the result before all that was
/// folded meanwhile.
void PutBackDrainedConnMetrics(ConnMetricsMap &drained) {
    const wxCriticalSectionLocker lock(connMetricsLock);
    drained.swap(mergedMetrics);
    FoldConnMetricsMap(drained, mergedMetrics);
}

}  // namespace

int AddToConnMetrics(lua_State *L) {
    size_t keyLength = 0;
    size_t textLength = 0;
    const char *key = luaL_checklstring(L, 1, &keyLength);
    const char *text = luaL_checklstring(L, 2, &textLength);
    const std::uint32_t count = ConnMetricsCount(luaL_checknumber(L, 3));
    if (count != 0)
        stagingMetrics.Add({key, keyLength}, {text, textLength}, count);
    return 0;
}

int UpdateConnMetrics(lua_State *) {
    const std::int64_t now = _time64(nullptr);
    // compat 12: a clock that was set back stops the folding until it has caught up
    if (now - lastMetricsUpdate <= kFoldAfterSeconds)
        return 0;
    {
        const wxCriticalSectionLocker lock(connMetricsLock);
        stagingMetrics.FoldInto(mergedMetrics);
        lastMetricsUpdate = now;
    }
    // compat 11: empties staging outside the lock, which guards the result only
    stagingMetrics.Clear();
    return 0;
}

int GetConnMetrics(lua_State *L) {
    int status = LUA_OK;
    {
        ConnMetricsDrain drain;
        {
            const wxCriticalSectionLocker lock(connMetricsLock);
            drain.entries.swap(mergedMetrics);
        }
        lua_pushcfunction(L, BuildConnMetricsRows);
        lua_pushlightuserdata(L, &drain);
        status = lua_pcall(L, 1, 1, 0);
        // Any error, such as one of a finalizer that Lua runs within an allocation.
        if (status != LUA_OK)
            PutBackDrainedConnMetrics(drain.entries);
        FreeConnMetricsMap(drain.entries);
    }
    if (status != LUA_OK)
        return lua_error(L);
    return 1;
}
