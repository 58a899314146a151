// Expectations of scripts that test.
#include "HostState.h"

#include "LuaEdge.h"
#include "Nearest.h"
#include "Resource.h"

namespace {

/// Pushes the script that adds `expect` to the table that it gets. @return false with an error instead.
bool PushExpectScript(lua_State *L) {
    std::string error;
    const std::string_view script = Resource(L"EXPECT_SCRIPT", error);
    if (!script.empty())
        return luaL_loadbuffer(L, script.data(), script.size(), "=host.expect") == LUA_OK;
    (void)PushText(L, error);
    return false;
}

/// Lua: text = suggestion(name, known). See Suggestion; `known` is an array of strings.
int SuggestName(lua_State *L) {
    const std::string_view name = CheckText(L, 1);
    CheckTextArray(L, 2);
    bool pushed = false;
    {
        const std::string text = Suggestion(name, ToTexts(L, 2));
        pushed = PushText(L, text);
    }
    return pushed ? 1 : lua_error(L);
}

/// Pushes a table whose keys are the kinds of events.
void PushKinds(lua_State *L) {
    using Kind = HostEvent::Kind;
    lua_newtable(L);
    for (const Kind kind : {Kind::Event, Kind::UserNotification, Kind::RebootNotification})
        SetFlag(L, KindName(kind), true);
}

}  // namespace

void AddExpectFunctions(lua_State *L, HostState & /*host*/) {
    if (!PushExpectScript(L))
        (void)lua_error(L);
    lua_pushvalue(L, -2);
    lua_pushcfunction(L, SuggestName);
    PushKinds(L);
    lua_call(L, 3, 0);
}
