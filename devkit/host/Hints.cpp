#include "Hints.h"

namespace {

bool IsModuleLoaded(lua_State *L) {
    lua_getfield(L, LUA_REGISTRYINDEX, "_LOADED");
    lua_getfield(L, -1, "fc");
    const bool isLoaded = lua_toboolean(L, -1) != 0;
    lua_pop(L, 2);
    return isLoaded;
}

bool Contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

}  // namespace

const char *HintFor(lua_State *L, std::string_view message) {
    const bool isAboutModule = Contains(message, "global 'SLB' (a nil value)") || Contains(message, "'filter' (a nil");
    if (isAboutModule && !IsModuleLoaded(L))
        return "the module is not loaded: require \"fc\" loads it and makes SLB.filter";
    if (Contains(message, "Expected (non-const) Object SLB.Dom"))
        return "argument #1 has to be host.dom(), the agent's object; host.const_dom() and other values are refused";
    return nullptr;
}
