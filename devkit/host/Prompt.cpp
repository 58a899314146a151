// The interactive prompt.
#include "Script.h"

#include <cstdio>
#include <optional>

#include <io.h>

#include "Interruption.h"

namespace {

constexpr const char *kChunkName = "=prompt";

/// @return empty at the end of the input.
std::optional<std::string> ReadLine(const char *prompt) {
    if (_isatty(_fileno(stdin)) != 0) {
        (void)std::fputs(prompt, stdout);
        (void)std::fflush(stdout);
    }
    const Idle idle;
    std::string line;
    for (int character = 0; (character = std::getchar()) != EOF;) {
        if (character == '\n')
            return line;
        if (character != '\r')
            line += static_cast<char>(character);
    }
    if (line.empty())
        return std::nullopt;
    return line;
}

/// Loads the text as an expression, or else as statements.
/// @return the status of the load; leaves the function or the message on the stack.
int Load(lua_State *L, const std::string &text) {
    const bool expression = !text.empty() && text.front() == '=';
    const std::string returning = "return " + (expression ? text.substr(1) : text);
    const int status = luaL_loadbuffer(L, returning.data(), returning.size(), kChunkName);
    if (status == LUA_OK || expression)
        return status;
    lua_pop(L, 1);
    return luaL_loadbuffer(L, text.data(), text.size(), kChunkName);
}

/// Whether more lines could complete the text.
bool IsIncomplete(lua_State *L, const std::string &text) {
    constexpr std::string_view mark = "<eof>";
    bool incomplete = false;
    if (Load(L, text) == LUA_ERRSYNTAX) {
        const std::string_view message = lua_tostring(L, -1);
        incomplete = message.size() >= mark.size() && message.substr(message.size() - mark.size()) == mark;
    }
    lua_pop(L, 1);
    return incomplete;
}

std::optional<std::string> ReadStatement(lua_State *L) {
    std::optional<std::string> text = ReadLine("> ");
    while (text && IsIncomplete(L, *text)) {
        const std::optional<std::string> more = ReadLine(">> ");
        if (!more)
            break;
        *text += "\n" + *more;
    }
    return text;
}

/// Lua: takes a text as light userdata, runs it and prints its results.
int RunStatement(lua_State *L) {
    if (Load(L, *static_cast<const std::string *>(lua_topointer(L, 1))) != LUA_OK)
        return lua_error(L);
    const int before = lua_gettop(L) - 1;
    lua_call(L, 0, LUA_MULTRET);
    const int results = lua_gettop(L) - before;
    if (results > 0) {
        lua_getglobal(L, "print");
        lua_insert(L, before + 1);
        lua_call(L, results, 0);
    }
    lua_pushboolean(L, 1);
    return 1;
}

}  // namespace

void RunPrompt(lua_State *L) {
    while (const std::optional<std::string> text = ReadStatement(L)) {
        lua_pushcfunction(L, RunStatement);
        if (CallReporting(L, &*text))
            lua_pop(L, 1);
        (void)std::fflush(stdout);
        if (IsInterrupted())
            return;
    }
}
