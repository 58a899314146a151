#include "JsonFromLua.h"

#include <map>
#include <string_view>
#include <utility>

#include "Text.h"

namespace {

constexpr int kMaxDepth = 100;
constexpr int kStackPerLevel = 4;

/// Reads one value with its contents; stops at the first one that can't be JSON.
class Reader {
public:
    Reader(lua_State *L, std::string &error) : m_lua(L), m_error(error) {}

    /// @return null after a failure.
    JsonPtr Value(int index, int depth) {
        switch (lua_type(m_lua, index)) {
            case LUA_TNIL:
                return JsonPtr(cJSON_CreateNull());
            case LUA_TBOOLEAN:
                return JsonPtr(cJSON_CreateBool(lua_toboolean(m_lua, index)));
            case LUA_TNUMBER:
                return JsonPtr(cJSON_CreateNumber(lua_tonumber(m_lua, index)));
            case LUA_TSTRING:
                return Text(index);
            case LUA_TTABLE:
                return Table(index, depth);
            default:
                return Fail(std::string("a ") + luaL_typename(m_lua, index) + " can't be written as JSON");
        }
    }

private:
    JsonPtr Fail(const std::string &error) {
        m_error = error;
        return nullptr;
    }

    std::string_view TextAt(int index) {
        std::size_t length = 0;
        const char *text = lua_tolstring(m_lua, index, &length);
        return {text, length};
    }

    JsonPtr Text(int index) {
        const std::string_view text = TextAt(index);
        if (text.find('\0') != std::string_view::npos)
            return Fail("a text with a zero byte can't be written as JSON");
        return JsonPtr(cJSON_CreateString(ToUtf8(ToWide(text)).c_str()));
    }

    JsonPtr Table(int index, int depth) {
        if (depth >= kMaxDepth)
            return Fail("tables within tables are too deep for JSON, or a table holds itself");
        if (lua_checkstack(m_lua, kStackPerLevel) == 0)
            return Fail("no memory");
        std::size_t entries = 0;
        std::size_t names = 0;
        for (lua_pushnil(m_lua); lua_next(m_lua, index) != 0; lua_pop(m_lua, 1)) {
            ++entries;
            names += lua_type(m_lua, -2) == LUA_TSTRING ? 1U : 0U;
        }
        if (names == 0 && lua_rawlen(m_lua, index) == entries)
            return Array(index, entries, depth);
        if (names == entries)
            return Object(index, depth);
        return Fail("a table needs texts as keys, or the numbers 1 to n, to be written as JSON");
    }

    JsonPtr Array(int index, std::size_t size, int depth) {
        JsonPtr array(cJSON_CreateArray());
        for (std::size_t i = 1; i <= size; ++i) {
            lua_rawgeti(m_lua, index, static_cast<int>(i));
            JsonPtr value = Value(lua_gettop(m_lua), depth + 1);
            lua_pop(m_lua, 1);
            if (value == nullptr)
                return nullptr;
            cJSON_AddItemToArray(array.get(), value.release());
        }
        return array;
    }

    JsonPtr Object(int index, int depth) {
        std::map<std::string, JsonPtr> fields;
        for (lua_pushnil(m_lua); lua_next(m_lua, index) != 0; lua_pop(m_lua, 1)) {
            const std::string_view name = TextAt(-2);
            if (name.find('\0') != std::string_view::npos)
                return Fail("a key with a zero byte can't be written as JSON");
            JsonPtr value = Value(lua_gettop(m_lua), depth + 1);
            if (value == nullptr)
                return nullptr;
            fields[ToUtf8(ToWide(name))] = std::move(value);
        }
        JsonPtr object(cJSON_CreateObject());
        for (auto &[name, value] : fields)
            cJSON_AddItemToObject(object.get(), name.c_str(), value.release());
        return object;
    }

    lua_State *m_lua;
    std::string &m_error;
};

}  // namespace

JsonPtr JsonFromLua(lua_State *L, int index, std::string &error) {
    const int top = lua_gettop(L);
    JsonPtr json = Reader(L, error).Value(lua_absindex(L, index), 0);
    lua_settop(L, top);  // a failure leaves values on the stack
    return json;
}
