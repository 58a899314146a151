// Between Lua, whose errors jump over C++ frames, and objects that have destructors.
#pragma once

#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include <lua.hpp>

/// Calls build(L), which pushes one value and owns nothing itself, so that a Lua error returns here instead of jumping
/// over the caller's objects.
/// @return true with the value on the stack, or false with the error; the caller destroys its objects and then calls
///   lua_error.
template <typename Build>
[[nodiscard]] bool PushProtected(lua_State *L, const Build &build) {
    const lua_CFunction call = [](lua_State *state) {
        (*static_cast<const Build *>(lua_topointer(state, 1)))(state);
        return 1;
    };
    lua_pushcfunction(L, call);
    lua_pushlightuserdata(L, const_cast<Build *>(&build));
    return lua_pcall(L, 1, 1, 0) == LUA_OK;
}

/// PushProtected for a text.
[[nodiscard]] inline bool PushText(lua_State *L, std::string_view text) {
    return PushProtected(L, [text](lua_State *state) { lua_pushlstring(state, text.data(), text.size()); });
}

/// Raises the text on top of the stack as an error, with the position in the script; or what PushText has left there.
inline int RaiseText(lua_State *L, bool pushed) {
    return pushed ? luaL_error(L, "%s", lua_tostring(L, -1)) : lua_error(L);
}

/// Calls a function that may throw and that must not raise Lua errors.
/// @return false with an error on the stack if it has thrown.
template <typename Work>
[[nodiscard]] bool Guarded(lua_State *L, const Work &work) {
    try {
        work();
        return true;
    } catch (const std::exception &error) {
        (void)PushText(L, error.what());
        return false;
    }
}

/// The text argument at the index; raises the Lua library's error for other types.
inline std::string_view CheckText(lua_State *L, int index) {
    std::size_t length = 0;
    const char *text = luaL_checklstring(L, index, &length);
    return {text, length};
}

/// Whether the table at the index, from 1, has the items 1 to n and nothing else.
inline bool IsArray(lua_State *L, int index) {
    std::size_t entries = 0;
    for (lua_pushnil(L); lua_next(L, index) != 0; lua_pop(L, 1))
        ++entries;
    return entries == lua_rawlen(L, index);
}

/// Raises an error unless the argument is an array of texts.
inline void CheckTextArray(lua_State *L, int index) {
    constexpr const char *expected = "an array of strings expected";
    luaL_checktype(L, index, LUA_TTABLE);
    luaL_argcheck(L, IsArray(L, index), index, expected);
    const int count = static_cast<int>(lua_rawlen(L, index));
    for (int i = 1; i <= count; ++i) {
        lua_rawgeti(L, index, i);
        luaL_argcheck(L, lua_type(L, -1) == LUA_TSTRING, index, expected);
        lua_pop(L, 1);
    }
}

/// Expects what CheckTextArray has accepted. Raises no error.
inline std::vector<std::string> ToTexts(lua_State *L, int index) {
    std::vector<std::string> texts(lua_rawlen(L, index));
    int number = 0;
    for (std::string &text : texts) {
        lua_rawgeti(L, index, ++number);
        text.assign(lua_tostring(L, -1), lua_rawlen(L, -1));
        lua_pop(L, 1);
    }
    return texts;
}

/// Sets a text field of the table on top of the stack.
inline void SetField(lua_State *L, const char *name, std::string_view text) {
    lua_pushlstring(L, text.data(), text.size());
    lua_setfield(L, -2, name);
}

/// Sets a number field of the table on top of the stack.
inline void SetField(lua_State *L, const char *name, int number) {
    lua_pushinteger(L, number);
    lua_setfield(L, -2, name);
}

/// The same for one with a fraction.
inline void SetNumber(lua_State *L, const char *name, lua_Number number) {
    lua_pushnumber(L, number);
    lua_setfield(L, -2, name);
}

/// Sets a boolean field of the table on top of the stack.
inline void SetFlag(lua_State *L, const char *name, bool flag) {
    lua_pushboolean(L, flag ? 1 : 0);
    lua_setfield(L, -2, name);
}

/// Pushes an array of what `push` makes of each item. Owns nothing itself.
template <typename Items>
void PushItems(lua_State *L, const Items &items, void (*push)(lua_State *, const typename Items::value_type &)) {
    lua_createtable(L, static_cast<int>(items.size()), 0);
    int index = 0;
    for (const auto &item : items) {
        push(L, item);
        lua_rawseti(L, -2, ++index);
    }
}

/// PushProtected for such an array.
template <typename Items>
[[nodiscard]] bool PushArray(lua_State *L, const Items &items,
                             void (*push)(lua_State *, const typename Items::value_type &)) {
    return PushProtected(L, [&items, push](lua_State *state) { PushItems(state, items, push); });
}

/// Pushes an array of texts.
inline void PushTexts(lua_State *L, const std::vector<std::string> &texts) {
    lua_createtable(L, static_cast<int>(texts.size()), 0);
    int index = 0;
    for (const std::string &text : texts) {
        lua_pushlstring(L, text.data(), text.size());
        lua_rawseti(L, -2, ++index);
    }
}

/// Sets an array of texts in the table on top of the stack.
inline void SetTexts(lua_State *L, const char *name, const std::vector<std::string> &texts) {
    PushTexts(L, texts);
    lua_setfield(L, -2, name);
}

/// Implements __pairs: returns the iterator function, and a table of the table's own fields and of those that its
/// __index provides.
/// @param fields  each with a name.
template <typename Field, std::size_t count>
int PairsWithFields(lua_State *L, const Field (&fields)[count]) {
    lua_settop(L, 1);
    lua_pushcfunction(L, [](lua_State *state) {
        lua_settop(state, 2);
        return lua_next(state, 1) != 0 ? 2 : 0;
    });
    lua_newtable(L);
    for (lua_pushnil(L); lua_next(L, 1) != 0;) {
        lua_pushvalue(L, -2);
        lua_insert(L, -2);
        lua_rawset(L, -4);
    }
    for (const Field &field : fields) {
        lua_getfield(L, 1, field.name);
        lua_setfield(L, -2, field.name);
    }
    return 2;
}
