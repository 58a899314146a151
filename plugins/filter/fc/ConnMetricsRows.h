// How drained connection metrics become a Lua table.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <lua.hpp>

#include "ConnMetricsMap.h"

/// One line of an entry's text.
struct ConnMetricLine {
    std::wstring_view name;   ///< Before the first tab.
    std::wstring_view value;  ///< After it; empty where the line has none.
};

/// What a drain owns while Lua builds its table. It lives outside of the protected call, since an
/// error in Lua runs no destructor.
struct ConnMetricsDrain {
    ConnMetricsMap entries;
    std::vector<ConnMetricLine> lines;  ///< Of the entry at hand.
    std::string narrow;                 ///< The name or value at hand, in the locale's encoding.
};

/// A Lua function: takes a light userdata that points at a ConnMetricsDrain, yields the array of rows.
int BuildConnMetricsRows(lua_State *L);
