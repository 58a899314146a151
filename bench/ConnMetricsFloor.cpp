#include "ConnMetricsFloor.h"

#include <algorithm>
#include <string>
#include <vector>

namespace {

/// Names of the fields whose value is a number: few, so that each is created once.
std::vector<std::string> numberNames;

struct NumberField {
    int name;  ///< In numberNames.
    lua_Number value;
};
struct TextField {
    std::string name;
    std::string value;
};
struct Row {
    std::vector<NumberField> numbers;
    std::vector<TextField> texts;
};
std::vector<Row> prepared;

int NumberNameIndex(const std::string &name) {
    const auto found = std::find(numberNames.begin(), numberNames.end(), name);
    if (found != numberNames.end())
        return static_cast<int>(found - numberNames.begin());
    numberNames.push_back(name);
    return static_cast<int>(numberNames.size()) - 1;
}

/// Reads the row on top of the stack.
Row ReadRow(lua_State *L) {
    Row row;
    for (lua_pushnil(L); lua_next(L, -2); lua_pop(L, 1)) {
        const std::string name = lua_tostring(L, -2);
        if (lua_type(L, -1) == LUA_TNUMBER)
            row.numbers.push_back({NumberNameIndex(name), lua_tonumber(L, -1)});
        else
            row.texts.push_back({name, lua_tostring(L, -1)});
    }
    return row;
}

}  // namespace

int ReadArgumentsOnly(lua_State *L) {
    size_t length = 0;
    luaL_checklstring(L, 1, &length);
    luaL_checklstring(L, 2, &length);
    luaL_checknumber(L, 3);
    return 0;
}

int PrepareRows(lua_State *L) {
    prepared.clear();
    const int count = static_cast<int>(lua_rawlen(L, 1));
    for (int i = 1; i <= count; ++i) {
        lua_rawgeti(L, 1, i);
        prepared.push_back(ReadRow(L));
        lua_pop(L, 1);
    }
    return 0;
}

int BuildPreparedRows(lua_State *L) {
    luaL_checkstack(L, static_cast<int>(numberNames.size()) + 8, nullptr);
    lua_createtable(L, static_cast<int>(prepared.size()), 0);
    const int result = lua_gettop(L);
    for (const std::string &name : numberNames)
        lua_pushlstring(L, name.data(), name.size());
    const int firstName = result + 1;
    int index = 1;
    for (const Row &row : prepared) {
        lua_createtable(L, 0, static_cast<int>(row.numbers.size() + row.texts.size()));
        for (const NumberField &field : row.numbers) {
            lua_pushvalue(L, firstName + field.name);
            lua_pushnumber(L, field.value);
            lua_rawset(L, -3);
        }
        for (const TextField &field : row.texts) {
            lua_pushlstring(L, field.name.data(), field.name.size());
            lua_pushlstring(L, field.value.data(), field.value.size());
            lua_rawset(L, -3);
        }
        lua_rawseti(L, result, index++);
    }
    lua_settop(L, result);
    return 1;
}
