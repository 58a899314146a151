// The agent's central object, for scripts.
#include "HostState.h"

#include "LuaEdge.h"
#include "Text.h"
#include "slb3_control.h"

namespace {

constexpr const char *kDomTypeName = "SLB.Dom";

/// Lua: dom = host.dom(). The agent's object, as an argument for functions of the module.
int GetDom(lua_State *L) {
    SLB3::Control::PushInstance(L, kDomTypeName, HostOf(L).dom.get());
    return 1;
}

/// Lua: dom = host.const_dom(). The same object, read-only for the script.
int GetConstDom(lua_State *L) {
    SLB3::Control::PushInstance(L, kDomTypeName, HostOf(L).dom.get(), true);
    return 1;
}

/// Lua: text = host.get_setting(key). Empty if there is none.
int GetSetting(lua_State *L) {
    const std::string_view key = CheckText(L, 1);
    bool pushed = false;
    {
        const std::string value = ToUtf8(HostOf(L).dom->SettingRetrieve(wxString(ToWide(key))));
        pushed = PushText(L, value);
    }
    return pushed ? 1 : lua_error(L);
}

/// Lua: host.set_setting(key, value). The value is a text, or a boolean for a flag.
int SetSetting(lua_State *L) {
    const char *key = luaL_checkstring(L, 1);
    VtaCore::CDom &dom = *HostOf(L).dom;
    if (lua_isboolean(L, 2)) {
        dom.Set(key, lua_toboolean(L, 2) != 0);
        return 0;
    }
    const std::string_view value = CheckText(L, 2);
    dom.SettingStore(wxString(ToWide(key)), wxString(ToWide(value)));
    return 0;
}

}  // namespace

void AddDomFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {
        {"dom", GetDom},    {"const_dom", GetConstDom}, {"get_setting", GetSetting}, {"set_setting", SetSetting},
        {nullptr, nullptr},
    };
    AddFunctions(L, host, functions);
}
