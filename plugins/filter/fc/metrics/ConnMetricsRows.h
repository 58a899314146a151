// How drained connection metrics become a Lua table.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include <lua.hpp>

#include "ConnMetricLines.h"
#include "ConnMetricsMap.h"

/// Lines that are read before the first of them is set in its row, so that the row is made with their number of fields.
constexpr std::size_t kLinesAhead = 32;
template <typename Character>
using ConnMetricLinesAhead = std::array<ConnMetricLine<Character>, kLinesAhead>;

/// What a drain owns while Lua builds its table. It lives outside of the protected call, since an
/// error in Lua runs no destructor.
struct ConnMetricsDrain {
    ConnMetricsMap entries;  ///< All, until the table is whole: a drain that fails has lost none.
    // Of the entry at hand: lines that are not yet in the row, of bytes where the whole text is ASCII.
    ConnMetricLinesAhead<char> lines;
    ConnMetricLinesAhead<wchar_t> wideLines;
    // A name or value on its way into another encoding.
    std::wstring wide;
    std::string narrow;
};

/// A Lua function: takes a light userdata that points at a ConnMetricsDrain, yields the array of rows. Leaves
/// the entries as they are. No C++ exception leaves it: without memory it raises a Lua error.
int BuildConnMetricsRows(lua_State *L);
