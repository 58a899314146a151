// Checks of policies and configuration files, for scripts.
#include "HostState.h"

#include "JsonToLua.h"
#include "LuaEdge.h"
#include "PolicyCheck.h"

namespace {

/// @return whether the argument is an array of texts; otherwise it is a text.
bool CheckArgument(lua_State *L) {
    if (!lua_istable(L, 1)) {
        (void)CheckText(L, 1);
        return false;
    }
    CheckTextArray(L, 1);
    return true;
}

int CheckAs(lua_State *L, CheckedKind kind) {
    const bool isArray = CheckArgument(L);
    bool checked = false;
    bool pushed = false;
    {
        std::string error;
        const std::vector<std::string> texts = isArray ? ToTexts(L, 1) : std::vector{std::string(CheckText(L, 1))};
        const JsonPtr answers = CheckTexts({kind, texts, !isArray}, error);
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
