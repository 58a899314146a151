// Named tables and signature records. No object with a destructor is alive here across a Lua call, since a Lua error is
// a longjmp.
#include <cstring>

#include "SLB3.h"

namespace SLB3 {
namespace {

/// Replaces the table on top of the stack by its subtable under the first `length` characters of `key`, created if it
/// is missing.
/// @param name  the dotted name that `key` is a part of.
void EnterTable(lua_State *state, const char *name, const char *key, std::size_t length) {
    lua_pushlstring(state, key, length);
    lua_pushvalue(state, -1);
    lua_rawget(state, -3);  // parent, key, value
    if (lua_isnil(state, -1)) {
        lua_pop(state, 1);
        lua_newtable(state);
        lua_insert(state, -2);
        lua_pushvalue(state, -2);  // parent, table, key, table
        lua_rawset(state, -4);
    } else if (lua_istable(state, -1)) {
        lua_remove(state, -2);
    } else {
        const auto *path = lua_pushlstring(state, name, static_cast<std::size_t>(key + length - name));
        luaL_error(state, "SLB3: '%s' is not a table", path);
    }
    lua_remove(state, -2);
}

}  // namespace

void Table::rawSet(const char *key) {
    luaL_checkstack(m_state, 3, "SLB3: no room for a key");
    lua_rawgeti(m_state, LUA_REGISTRYINDEX, m_table);
    lua_pushstring(m_state, key);
    lua_pushvalue(m_state, -3);
    lua_rawset(m_state, -3);
    lua_pop(m_state, 2);
}

Namespace::Namespace(lua_State *state, const char *name) : Table(state) {
    luaL_checkstack(state, 4, "SLB3: no room for a table");
    lua_pushglobaltable(state);
    for (const char *key = name; key != nullptr;) {
        const char *dot = std::strchr(key, '.');
        EnterTable(state, name, key, dot != nullptr ? static_cast<std::size_t>(dot - key) : std::strlen(key));
        key = dot != nullptr ? dot + 1 : nullptr;
    }
    // A Lua error jumps over the destructor; then only this reference stays, until the state is closed.
    m_table = luaL_ref(state, LUA_REGISTRYINDEX);
}

Namespace::~Namespace() {
    luaL_unref(m_state, LUA_REGISTRYINDEX, m_table);
}

void internal::PushInfoUpvalue(lua_State *state, const BaseInfo *info) {
    luaL_checkstack(state, 1, "SLB3: no room for a record");
    lua_pushlightuserdata(state, const_cast<BaseInfo *>(info));
}

}  // namespace SLB3
