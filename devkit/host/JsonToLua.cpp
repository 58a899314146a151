#include "JsonToLua.h"

void PushJson(lua_State *L, const cJSON *value) {
    luaL_checkstack(L, 3, "JSON is too deep");
    if (cJSON_IsObject(value) || cJSON_IsArray(value)) {
        lua_newtable(L);
        int index = 0;
        const cJSON *item = nullptr;
        cJSON_ArrayForEach(item, value) {
            PushJson(L, item);
            if (item->string != nullptr)
                lua_setfield(L, -2, item->string);
            else
                lua_rawseti(L, -2, ++index);
        }
    } else if (cJSON_IsString(value)) {
        lua_pushstring(L, value->valuestring);
    } else if (cJSON_IsNumber(value)) {
        lua_pushnumber(L, value->valuedouble);
    } else if (cJSON_IsBool(value)) {
        lua_pushboolean(L, cJSON_IsTrue(value));
    } else {
        lua_pushnil(L);
    }
}
