// How drained connection metrics become a Lua table.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <lua.hpp>

#include "ConnMetricsMap.h"

constexpr int kNoNumberField = -1;

/// One line of an entry's text.
template <typename Character>
struct ConnMetricLine {
    std::basic_string_view<Character> name;   ///< Before the first tab.
    std::basic_string_view<Character> value;  ///< After it; empty where the line has none.
    int numberField;                          ///< Which of the fields whose value is a number, or kNoNumberField.
};

/// What a drain owns while Lua builds its table. It lives outside of the protected call, since an
/// error in Lua runs no destructor.
struct ConnMetricsDrain {
    ConnMetricsMap entries;
    // Of the entry at hand: its lines, of bytes where the whole text is ASCII, and what they were made of.
    std::vector<ConnMetricLine<char>> lines;
    std::vector<ConnMetricLine<wchar_t>> wideLines;
    std::string narrow;
};

/// A Lua function: takes a light userdata that points at a ConnMetricsDrain, yields the array of rows.
int BuildConnMetricsRows(lua_State *L);
