// Expectations of scripts that test.
#include "HostState.h"

#include "LuaEdge.h"
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

}  // namespace

void AddExpectFunctions(lua_State *L, HostState & /*host*/) {
    if (!PushExpectScript(L))
        (void)lua_error(L);
    lua_pushvalue(L, -2);
    lua_call(L, 1, 0);
}
