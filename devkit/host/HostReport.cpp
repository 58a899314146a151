// What scripts add to the report.
#include "HostState.h"

#include "LuaEdge.h"
#include "Text.h"
#include "WallClock.h"

namespace {

/// Lua: host.mark(text). A mark in the report, at the current time; does nothing without --report.
int Mark(lua_State *L) {
    const std::string_view text = CheckText(L, 1);
    HostState &host = HostOf(L);
    if (host.history != nullptr)
        host.history->AddNote(HealthNote::Kind::Mark, WallClockSeconds(), ToUtf8(ToWide(text)));
    return 0;
}

}  // namespace

void AddReportFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {{"mark", Mark}, {nullptr, nullptr}};
    AddFunctions(L, host, functions);
}
