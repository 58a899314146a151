// JSON files, for scripts.
#include "HostState.h"

#include "Files.h"
#include "JsonFromLua.h"
#include "JsonToLua.h"
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
