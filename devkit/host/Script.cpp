#include "Script.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "Hints.h"
#include "Interruption.h"

namespace {

/// Appends a hint, if there is one, and a traceback to the error's text; describes an error that is not a text.
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

/// The script without a byte order mark, and without a shebang line, whose line end stays, so that line numbers stay
/// right.
std::string_view LuaCode(std::string_view content) {
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    if (content.substr(0, byteOrderMark.size()) == byteOrderMark)
        content.remove_prefix(byteOrderMark.size());
    if (!content.empty() && content.front() == '#')
        content.remove_prefix(std::min(content.find('\n'), content.size()));
    return content;
}

/// Lua: takes a Script as light userdata, returns its first result.
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

int g_exitStatus = 0;

constexpr const char *kStatusExpected = "nothing, a boolean or a whole number from 0 to 255 expected";

/// @return empty for an invalid status. Shells could not distinguish others.
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
    g_exitStatus = *status;
    if (lua_toboolean(L, 2) != 0)
        lua_close(L);
    std::exit(*status);
}

/// @param error  receives the text, if not null.
void Report(const std::string &text, std::string *error) {
    (void)std::fflush(stdout);
    (void)std::fprintf(stderr, "fc-host: %s\n", text.c_str());
    if (error != nullptr)
        *error = text;
}

}  // namespace

bool CallReporting(lua_State *L, const void *argument, std::string *error) {
    const int function = lua_gettop(L);
    lua_pushcfunction(L, DescribeError);
    lua_insert(L, function);
    lua_pushlightuserdata(L, const_cast<void *>(argument));
    const bool succeeded = lua_pcall(L, 1, 1, function) == LUA_OK;
    lua_remove(L, function);
    if (succeeded)
        return true;
    Report(lua_tostring(L, -1), error);
    lua_pop(L, 1);
    return false;
}

int RunScript(lua_State *L, const Script &script, std::string &error) {
    lua_pushcfunction(L, RunChunk);
    if (!CallReporting(L, &script, &error))
        return kScriptFailed;
    const std::optional<int> status = ReadStatus(L, -1);
    if (!status) {
        const char *what = lua_type(L, -1) == LUA_TNUMBER ? lua_tostring(L, -1) : luaL_typename(L, -1);
        Report("the script returns " + std::string(what) + "; " + kStatusExpected, &error);
    }
    lua_pop(L, 1);
    return status.value_or(kScriptFailed);
}

int ExitStatus() {
    return g_exitStatus;
}

void UseCheckedExit(lua_State *L) {
    lua_getglobal(L, "os");
    lua_pushcfunction(L, Exit);
    lua_setfield(L, -2, "exit");
    lua_pop(L, 1);
}
