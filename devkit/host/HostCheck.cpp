// Checks of policies and configuration files, for scripts.
#include "HostState.h"

#include "JsonToLua.h"
#include "LuaEdge.h"
#include "PolicyCheck.h"

namespace {

/// The text at index 1, or the texts of the array there.
std::vector<std::string> TextsAt1(lua_State *L) {
    std::vector<std::string> texts;
    if (!lua_istable(L, 1)) {
        texts.emplace_back(CheckText(L, 1));
        return texts;
    }
    const int count = static_cast<int>(lua_rawlen(L, 1));
    for (int i = 1; i <= count; ++i) {
        lua_rawgeti(L, 1, i);
        std::size_t length = 0;
        const char *text = lua_tolstring(L, -1, &length);
        texts.emplace_back(text, length);
        lua_pop(L, 1);
    }
    return texts;
}

void CheckTextArguments(lua_State *L) {
    if (!lua_istable(L, 1)) {
        (void)CheckText(L, 1);
        return;
    }
    const int count = static_cast<int>(lua_rawlen(L, 1));
    for (int i = 1; i <= count; ++i) {
        lua_rawgeti(L, 1, i);
        luaL_argcheck(L, lua_type(L, -1) == LUA_TSTRING, 1, "an array of strings expected");
        lua_pop(L, 1);
    }
}

int CheckAs(lua_State *L, CheckedKind kind) {
    CheckTextArguments(L);
    const bool isArray = lua_istable(L, 1);
    bool checked = false;
    bool pushed = false;
    {
        std::string error;
        const JsonPtr answers = CheckTexts({kind, TextsAt1(L), !isArray}, error);
        checked = answers != nullptr;
        const cJSON *const answer = isArray ? answers.get() : cJSON_GetArrayItem(answers.get(), 0);
        pushed =
            checked ? PushProtected(L, [answer](lua_State *state) { PushJson(state, answer); }) : PushText(L, error);
    }
    if (checked && pushed)
        return 1;
    return RaiseText(L, pushed);
}

/// Lua: answer = host.check_policy(text), or answers = host.check_policy(texts)
int CheckPolicy(lua_State *L) {
    return CheckAs(L, CheckedKind::Policy);
}

/// Lua: the same for the text of a vt_filter.conf.
int CheckConfig(lua_State *L) {
    return CheckAs(L, CheckedKind::Config);
}

}  // namespace

void AddCheckFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {{"check_policy", CheckPolicy}, {"check_config", CheckConfig}, {nullptr, nullptr}};
    AddFunctions(L, host, functions);
}
