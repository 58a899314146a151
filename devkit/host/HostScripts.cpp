// Other scripts, for scripts that test them.
#include "HostState.h"

#include "LuaEdge.h"
#include "SecondHost.h"
#include "Text.h"

namespace {

std::vector<std::wstring> ArgumentsFrom(lua_State *L, int first) {
    std::vector<std::wstring> arguments;
    for (int i = first; i <= lua_gettop(L); ++i)
        arguments.push_back(ToWide(lua_tostring(L, i)));
    return arguments;
}

/// Lua: status, output = host.run_script(path, ...)
int RunScript(lua_State *L) {
    for (int i = 1; i == 1 || i <= lua_gettop(L); ++i)
        luaL_argcheck(L, CheckText(L, i).find('\0') == std::string_view::npos, i,
                      "a string without zero bytes expected");
    std::optional<DWORD> status;
    bool pushed = false;
    {
        std::string error;
        const std::optional<SecondHostRun> run =
            RunInSecondHost(ToWide(lua_tostring(L, 1)), ArgumentsFrom(L, 2), error);
        if (run)
            status = run->status;
        pushed = PushText(L, run ? run->output : error);
    }
    if (!status || !pushed)
        return RaiseText(L, pushed);
    lua_pushnumber(L, static_cast<lua_Number>(*status));
    lua_insert(L, -2);
    return 2;
}

}  // namespace

void AddScriptFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {{"run_script", RunScript}, {nullptr, nullptr}};
    AddFunctions(L, host, functions);
}
