// JSON files, for scripts.
#include "HostState.h"

#include "Files.h"
#include "JsonFromLua.h"
#include "LuaEdge.h"
#include "Text.h"

namespace {

bool WriteJson(lua_State *L, std::string_view path, std::string &error) {
    const JsonPtr json = JsonFromLua(L, 2, error);
    return json != nullptr && WriteWholeFile(ToWide(path), PrintJson(json.get()), error);
}

/// Lua: host.write_json(path, value). Creates missing folders.
int WriteJsonFile(lua_State *L) {
    const std::string_view path = CheckText(L, 1);
    luaL_checkany(L, 2);
    lua_settop(L, 2);
    bool written = false;
    bool pushed = false;
    {
        std::string error;
        written = WriteJson(L, path, error);
        pushed = written || PushText(L, error);
    }
    if (written)
        return 0;
    return RaiseText(L, pushed);
}

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

JsonPtr ReadJson(std::string_view path, std::string &error) {
    const std::optional<std::string> content = ReadWholeFile(ToWide(path), error);
    if (!content)
        return nullptr;
    JsonPtr json(cJSON_ParseWithOpts(content->c_str(), nullptr, 1));
    if (json == nullptr)
        error = std::string(path) + " is no valid JSON";
    return json;
}

/// Lua: value = host.read_json(path). A null in the file becomes nil.
int ReadJsonFile(lua_State *L) {
    const std::string_view path = CheckText(L, 1);
    bool read = false;
    bool pushed = false;
    {
        std::string error;
        const JsonPtr json = ReadJson(path, error);
        read = json != nullptr;
        pushed =
            read ? PushProtected(L, [&json](lua_State *state) { PushJson(state, json.get()); }) : PushText(L, error);
    }
    if (read && pushed)
        return 1;
    return RaiseText(L, pushed);
}

}  // namespace

void AddJsonFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {
        {"write_json", WriteJsonFile},
        {"read_json", ReadJsonFile},
        {nullptr, nullptr},
    };
    AddFunctions(L, host, functions);
}
