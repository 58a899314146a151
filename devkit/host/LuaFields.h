// Reads the fields of a table that a script passes as an argument: the first one, unless `table` says otherwise.
#pragma once

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <string_view>

#include <lua.hpp>

#include "UnknownName.h"

/// Raises an error unless the argument is a table with only these fields.
inline void CheckFields(lua_State *L, std::initializer_list<std::string_view> names, int table = 1) {
    luaL_checktype(L, table, LUA_TTABLE);
    for (lua_pushnil(L); lua_next(L, table) != 0; lua_pop(L, 1)) {
        const char *name = lua_type(L, -2) == LUA_TSTRING ? lua_tostring(L, -2) : luaL_typename(L, -2);
        if (std::find(names.begin(), names.end(), name) == names.end())
            RaiseUnknownName(L, "there is no field", name,
                             [&names] { return std::vector<std::string>(names.begin(), names.end()); });
    }
}

/// A text, valid as long as the table contains it.
inline std::string_view CheckTextField(lua_State *L, const char *name, int table = 1) {
    lua_getfield(L, table, name);
    if (lua_type(L, -1) != LUA_TSTRING)
        luaL_error(L, "field '%s': string expected, got %s", name, luaL_typename(L, -1));
    std::size_t length = 0;
    const char *text = lua_tolstring(L, -1, &length);
    lua_pop(L, 1);
    return {text, length};
}

inline bool HasField(lua_State *L, const char *name, int table = 1) {
    lua_getfield(L, table, name);
    const bool has = !lua_isnil(L, -1);
    lua_pop(L, 1);
    return has;
}

/// A boolean; false without one.
inline bool FlagField(lua_State *L, const char *name, int table = 1) {
    lua_getfield(L, table, name);
    if (!lua_isnil(L, -1) && !lua_isboolean(L, -1))
        luaL_error(L, "field '%s': boolean expected, got %s", name, luaL_typename(L, -1));
    const bool value = lua_toboolean(L, -1) != 0;
    lua_pop(L, 1);
    return value;
}

/// A number from 0 to the limit; 0 without one.
inline lua_Number NumberField(lua_State *L, const char *name, lua_Number limit, int table = 1) {
    lua_getfield(L, table, name);
    if (!lua_isnil(L, -1) && lua_type(L, -1) != LUA_TNUMBER)
        luaL_error(L, "field '%s': number expected, got %s", name, luaL_typename(L, -1));
    const lua_Number value = lua_tonumber(L, -1);
    if (!(value >= 0 && value <= limit))
        luaL_error(L, "field '%s': number out of range", name);
    lua_pop(L, 1);
    return value;
}

/// The same for whole numbers.
inline lua_Number WholeField(lua_State *L, const char *name, lua_Number limit, int table = 1) {
    const lua_Number value = NumberField(L, name, limit, table);
    if (std::floor(value) != value)
        luaL_error(L, "field '%s': whole number expected", name);
    return value;
}
