#include "Script.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "Hints.h"
#include "Interruption.h"

namespace {

/// Puts a hint, if there is one, and a traceback behind the error's text; an error that is no text is described.
int DescribeError(lua_State *L) {
    const char *message = lua_tostring(L, 1);
    if (message == nullptr) {
        if (luaL_callmeta(L, 1, "__tostring") != 0 && lua_isstring(L, -1))
            return 1;
        message = lua_pushfstring(L, "(error object is a %s value)", luaL_typename(L, 1));
    }
    if (const char *hint = HintFor(L, message))
        message = lua_pushfstring(L, "%s\nhint: %s", message, hint);
    luaL_traceback(L, L, message, 1);
    return 1;
}

/// The script without a byte order mark, and without a first line that is meant for a shell; the end of
/// that line stays, so that line numbers stay right.
std::string_view LuaCode(std::string_view content) {
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    if (content.substr(0, byteOrderMark.size()) == byteOrderMark)
        content.remove_prefix(byteOrderMark.size());
    if (!content.empty() && content.front() == '#')
        content.remove_prefix(std::min(content.find('\n'), content.size()));
    return content;
}

/// Lua: takes a Script as light userdata, yields what it returns first.
int RunChunk(lua_State *L) {
    const Script &script = *static_cast<const Script *>(lua_topointer(L, 1));
    const int count = static_cast<int>(script.arguments.size());
    const std::string_view code = LuaCode(script.content);
    const char *chunkName = lua_pushfstring(L, "@%s", script.name.c_str());
    if (luaL_loadbuffer(L, code.data(), code.size(), chunkName) != LUA_OK)
        return lua_error(L);
    luaL_checkstack(L, count, "too many arguments");
    for (const std::string &argument : script.arguments)
        lua_pushlstring(L, argument.data(), argument.size());
    lua_call(L, count, 1);
    return 1;
}

constexpr const char *kStatusExpected = "nothing, a boolean or a whole number from 0 to 255 expected";

/// @return nothing for what is no status. Others than these could not be told apart by shells.
std::optional<int> ReadStatus(lua_State *L, int index) {
    constexpr lua_Number most = 255;
    if (lua_isnoneornil(L, index))
        return 0;
    if (lua_isboolean(L, index))
        return lua_toboolean(L, index) != 0 ? 0 : kScriptFailed;
    if (lua_type(L, index) != LUA_TNUMBER)
        return std::nullopt;
    const lua_Number number = lua_tonumber(L, index);
    if (number != std::floor(number) || number < 0 || number > most)
        return std::nullopt;
    return static_cast<int>(number);
}

/// Lua: os.exit([status [, close]])
int Exit(lua_State *L) {
    const std::optional<int> status = ReadStatus(L, 1);
    if (!status)
        return luaL_argerror(L, 1, kStatusExpected);
    InterruptScript(nullptr);
    if (lua_toboolean(L, 2) != 0)
        lua_close(L);
    std::exit(*status);
}

}  // namespace

bool CallReporting(lua_State *L, const void *argument) {
    const int function = lua_gettop(L);
    lua_pushcfunction(L, DescribeError);
    lua_insert(L, function);
    lua_pushlightuserdata(L, const_cast<void *>(argument));
    const bool succeeded = lua_pcall(L, 1, 1, function) == LUA_OK;
    lua_remove(L, function);
    if (succeeded)
        return true;
    (void)std::fflush(stdout);
    (void)std::fprintf(stderr, "fc-host: %s\n", lua_tostring(L, -1));
    lua_pop(L, 1);
    return false;
}

int RunScript(lua_State *L, const Script &script) {
    lua_pushcfunction(L, RunChunk);
    if (!CallReporting(L, &script))
        return kScriptFailed;
    const std::optional<int> status = ReadStatus(L, -1);
    if (!status) {
        (void)std::fflush(stdout);
        const char *what = lua_type(L, -1) == LUA_TNUMBER ? lua_tostring(L, -1) : luaL_typename(L, -1);
        (void)std::fprintf(stderr, "fc-host: the script returns %s; %s\n", what, kStatusExpected);
    }
    lua_pop(L, 1);
    return status.value_or(kScriptFailed);
}

void UseCheckedExit(lua_State *L) {
    lua_getglobal(L, "os");
    lua_pushcfunction(L, Exit);
    lua_setfield(L, -2, "exit");
    lua_pop(L, 1);
}
