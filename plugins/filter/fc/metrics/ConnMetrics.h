// Connection metrics: scripts count connections by kind, fold the counts once a minute at most, and
// drain the result as a table.
#pragma once

#include <lua.hpp>

/// Lua: AddToConnMetrics(key, text, count). Counts `count` connections of the kind `key`.
/// The first text of a key stays; a count whose integer part is 0 in 32 bits is no data.
/// Raises the argument errors of the Lua library. Takes no lock: one thread at a time, together
/// with UpdateConnMetrics.
int AddToConnMetrics(lua_State *L);

/// Lua: UpdateConnMetrics(). Folds what was added into the result, if the last fold is more than
/// 60 s ago. One thread at a time, together with AddToConnMetrics.
int UpdateConnMetrics(lua_State *L);

/// Lua: rows = GetConnMetrics(). Drains the result: an array with a table for each kind, ordered by
/// key. Any thread. Raises the Lua error of whatever happens while the table is built: no memory, a finalizer or
/// a hook that raises. The result then is as if it had not been drained, but for a hook that raises when the function
/// returns. No lock is held while finalizers run; they may call this module, adding and folding on their one thread.
int GetConnMetrics(lua_State *L);
