#include "CallWrappers.h"

#include "common/UserdataArguments.h"

namespace {

template <typename Function>
Function WrappedFunction(lua_State *L) {
    return *static_cast<const Function *>(lua_touserdata(L, lua_upvalueindex(1)));
}

struct Text {
    const char *data;
    size_t length;
};

Text WrapperTextArg(lua_State *L, int index) {
    Text text{nullptr, 0};
    text.data = lua_tolstring(L, index, &text.length);
    return text;
}

}  // namespace

int CallIntVoid(lua_State *L) {
    lua_pushinteger(L, WrappedFunction<IntFromVoid>(L)());
    return 1;
}

int CallBoolBool(lua_State *L) {
    lua_pushboolean(L, WrappedFunction<BoolFromBool>(L)(lua_toboolean(L, 1) != 0));
    return 1;
}

int CallBoolStr(lua_State *L) {
    const char *text = lua_tolstring(L, 1, nullptr);
    lua_pushboolean(L, WrappedFunction<BoolFromStr>(L)(text));
    return 1;
}

int CallBoolStrStr(lua_State *L) {
    const char *second = lua_tolstring(L, 2, nullptr);
    const char *first = lua_tolstring(L, 1, nullptr);
    lua_pushboolean(L, WrappedFunction<BoolFromStrStr>(L)(first, second));
    return 1;
}

int CallBoolDomStrStr(lua_State *L) {
    const Text third = WrapperTextArg(L, 3);
    const Text second = WrapperTextArg(L, 2);
    VtaCore::CDom *const dom = GetDomArg(L);
    if (!dom)
        return luaL_error(L, "Expected (non-const) Object %s", kDomTypeName);

    bool result = false;
    {
        // Made only now: an error in Lua would run no destructor.
        const wxString thirdText = wxString::FromUTF8(third.data, third.length);
        const wxString secondText = wxString::FromUTF8(second.data, second.length);
        result = WrappedFunction<BoolFromDomStrStr>(L)(*dom, secondText, thirdText);
    }
    lua_pushboolean(L, result);
    return 1;
}
