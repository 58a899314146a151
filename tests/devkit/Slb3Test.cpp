// The stand-in for the Lua binder: named tables, signature records, instances.
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "slb3_control.h"

namespace {

using namespace SLB3;

class Binder : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(m_lua, nullptr);
        luaL_openlibs(m_lua.get());
    }
    void TearDown() override { EXPECT_EQ(lua_gettop(m_lua.get()), 0) << "values stayed on the stack"; }

    lua_State *Lua() const { return m_lua.get(); }

    /// Runs a chunk.
    /// @return its result or its error as text.
    std::string Run(const char *chunk) const {
        luaL_loadstring(Lua(), chunk);
        lua_pcall(Lua(), 0, 1, 0);
        return PopText();
    }

    std::string PopText() const {
        const char *text = luaL_tolstring(Lua(), -1, nullptr);
        std::string result = text;
        lua_pop(Lua(), 2);
        return result;
    }

    /// Opens a name and stores a number under a key there, in a protected call.
    /// @return the error, empty if there was none.
    std::string Store(const char *name, const char *key, int value) const {
        struct Job {
            const char *name;
            const char *key;
            int value;
        } job{name, key, value};
        lua_pushcfunction(Lua(), [](lua_State *state) {
            const auto *todo = static_cast<const Job *>(lua_touserdata(state, 1));
            Namespace space(state, todo->name);
            lua_pushinteger(state, todo->value);
            space.rawSet(todo->key);
            return lua_gettop(state) == 1 ? 0 : luaL_error(state, "the stack is not as before");
        });
        lua_pushlightuserdata(Lua(), &job);
        return lua_pcall(Lua(), 1, 0, 0) == LUA_OK ? std::string() : PopText();
    }

private:
    struct Closer {
        void operator()(lua_State *state) const { lua_close(state); }
    };
    std::unique_ptr<lua_State, Closer> m_lua{luaL_newstate()};
};

TEST_F(Binder, CreatesTheTablesOfADottedName) {
    EXPECT_EQ(Store("SLB.filter", "answer", 42), "");
    EXPECT_EQ(Run("return SLB.filter.answer"), "42");
}

TEST_F(Binder, OpensExistingTablesAndKeepsTheirValues) {
    Run("SLB = {other = 1, filter = {old = 2}} kept = SLB.filter");
    EXPECT_EQ(Store("SLB.filter", "new", 3), "");
    EXPECT_EQ(Run("return SLB.other .. SLB.filter.old .. kept.new"), "123");
}

TEST_F(Binder, OpensANameWithoutDotsAndAVeryLongOne) {
    EXPECT_EQ(Store("single", "key", 1), "");
    EXPECT_EQ(Run("return single.key"), "1");
    std::string name = "a";
    for (int i = 0; i < 1000; ++i)
        name += ".a";
    EXPECT_EQ(Store(name.c_str(), "key", 2), "");
    EXPECT_EQ(Run("local t = a for i = 1, 1000 do t = t.a end return t.key"), "2");
}

TEST_F(Binder, AValueThatIsNotATableIsAnErrorThatNamesIt) {
    Run("SLB = 7");
    EXPECT_NE(Store("SLB.filter", "key", 1).find("SLB3: 'SLB' is not a table"), std::string::npos);
    Run("SLB = {filter = 'text'}");
    EXPECT_NE(Store("SLB.filter", "key", 1).find("SLB3: 'SLB.filter' is not a table"), std::string::npos);
    EXPECT_NE(Store("SLB.filter.deep", "key", 1).find("SLB3: 'SLB.filter' is not a table"), std::string::npos);
    EXPECT_EQ(Run("return SLB.filter"), "text") << "it stays as it was";
}

TEST_F(Binder, IgnoresMetamethods) {
    Run("local refuse = function() error('asked') end "
        "SLB = {filter = setmetatable({}, {__index = refuse, __newindex = refuse})} "
        "setmetatable(SLB, {__index = refuse, __newindex = refuse}) "
        "setmetatable(_G, {__index = refuse, __newindex = refuse})");
    EXPECT_EQ(Store("SLB.filter", "key", 1), "");
    EXPECT_EQ(Run("return rawget(SLB.filter, 'key')"), "1");
    EXPECT_EQ(Store("SLB.fresh", "key", 2), "");
    EXPECT_EQ(Run("return SLB.fresh.key"), "2");
    EXPECT_EQ(Store("newGlobal", "key", 3), "");
    EXPECT_EQ(Run("return newGlobal.key"), "3");
}

TEST_F(Binder, ReplacesAndRemovesValues) {
    EXPECT_EQ(Store("SLB", "key", 1), "");
    EXPECT_EQ(Store("SLB", "key", 2), "");
    EXPECT_EQ(Run("return SLB.key"), "2");
    {
        Namespace space(Lua(), "SLB");
        lua_pushnil(Lua());
        space.rawSet("key");
    }
    EXPECT_EQ(Run("return SLB.key"), "nil");
}

TEST_F(Binder, KeepsTheTableWhileTheNameIsOverwritten) {
    {
        Namespace space(Lua(), "SLB");
        Run("kept = SLB SLB = nil collectgarbage()");
        lua_pushinteger(Lua(), 5);
        space.rawSet("key");
    }
    EXPECT_EQ(Run("return kept.key"), "5");
}

TEST_F(Binder, ReleasesItsReferenceInTheRegistry) {
    EXPECT_EQ(Store("SLB", "key", 1), "");
    lua_pushinteger(Lua(), 1);
    const int first = luaL_ref(Lua(), LUA_REGISTRYINDEX);
    luaL_unref(Lua(), LUA_REGISTRYINDEX, first);
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(Store("SLB", "key", i), "");
    lua_pushinteger(Lua(), 1);
    const int last = luaL_ref(Lua(), LUA_REGISTRYINDEX);
    luaL_unref(Lua(), LUA_REGISTRYINDEX, last);
    EXPECT_EQ(first, last);
}

TEST_F(Binder, AnErrorLeaksOneRegistryReferenceAndNothingElse) {
    lua_pushcfunction(Lua(), [](lua_State *state) {
        const Namespace space(state, "SLB");
        return luaL_error(state, "jumps over the destructor");
    });
    EXPECT_NE(lua_pcall(Lua(), 0, 0, 0), LUA_OK);
    lua_pop(Lua(), 1);
    EXPECT_EQ(Store("SLB", "key", 1), "");
    EXPECT_EQ(Run("return SLB.key"), "1");
}

class SomeInfo : public BaseInfo {
public:
    int kind() const override { return 1; }
    const char *name() const override { return "some"; }
    int parameterCount() const override { return -1; }
    const BaseInfo *returnType() const override { return nullptr; }
    const BaseInfo *const *parameters() const override { return nullptr; }
};

TEST_F(Binder, PushesASignatureRecordAsItsAddress) {
    const SomeInfo info;
    internal::PushInfoUpvalue(Lua(), &info);
    EXPECT_TRUE(lua_islightuserdata(Lua(), -1));
    EXPECT_EQ(lua_touserdata(Lua(), -1), &info);
    lua_pop(Lua(), 1);
}

/// The object that the instance on top of the stack resolves to, obtained as a bound function does.
void *Resolved(lua_State *state) {
    const auto *instance = static_cast<const SlbInstance *>(lua_touserdata(state, -1));
    const SlbInstanceView view{instance, instance + 1};
    return instance->resolve(&view);
}

TEST_F(Binder, AnInstanceResolvesToItsObject) {
    int object = 0;
    const SlbBaseEntry bases[] = {{nullptr, 0, nullptr}};
    Control::PushInstance(Lua(), "VtaCore::CDom", &object, false, bases);
    const auto *instance = static_cast<const SlbInstance *>(lua_touserdata(Lua(), -1));
    ASSERT_NE(instance, nullptr);
    EXPECT_GT(lua_rawlen(Lua(), -1), sizeof(SlbInstance));
    EXPECT_STREQ(instance->typeName, "VtaCore::CDom");
    EXPECT_EQ(instance->flags, 0u);
    EXPECT_EQ(instance->bases, bases);
    EXPECT_EQ(Resolved(Lua()), &object);
    lua_pop(Lua(), 1);
}

TEST_F(Binder, AConstInstanceHasBothConstFlags) {
    int object = 0;
    Control::PushInstance(Lua(), "Type", &object, true);
    const auto *instance = static_cast<const SlbInstance *>(lua_touserdata(Lua(), -1));
    EXPECT_EQ(instance->flags & SlbInstance::kConstFlags, SlbInstance::kConstFlags);
    EXPECT_EQ(instance->bases, nullptr);
    lua_pop(Lua(), 1);
}

TEST_F(Binder, AForgottenObjectResolvesToNull) {
    int object = 0;
    int other = 0;
    Control::PushInstance(Lua(), "Type", &object);
    Control::PushInstance(Lua(), "Type", &other);
    Control::ForgetObject(Lua(), -2);
    EXPECT_EQ(Resolved(Lua()), &other) << "only the one is forgotten";
    lua_pop(Lua(), 1);
    EXPECT_EQ(Resolved(Lua()), nullptr);
    lua_pop(Lua(), 1);
}

TEST_F(Binder, OnlyInstancesCanBeForgotten) {
    const lua_CFunction forget = [](lua_State *state) {
        Control::ForgetObject(state, 1);
        return 0;
    };
    lua_pushcfunction(Lua(), forget);
    lua_pushinteger(Lua(), 1);
    EXPECT_NE(lua_pcall(Lua(), 1, 0, 0), LUA_OK);
    EXPECT_EQ(PopText(), "SLB3: not an instance");
    lua_pushcfunction(Lua(), forget);
    lua_newuserdata(Lua(), 8);
    EXPECT_NE(lua_pcall(Lua(), 1, 0, 0), LUA_OK);
    EXPECT_EQ(PopText(), "SLB3: not an instance");
}

TEST_F(Binder, InstancesOfATypeShareAMetatableNamedAfterIt) {
    int object = 0;
    Control::PushInstance(Lua(), "Type", &object);
    Control::PushInstance(Lua(), "Type", &object);
    Control::PushInstance(Lua(), "Other", &object);
    EXPECT_NE(luaL_testudata(Lua(), 1, "SLB3:Type"), nullptr);
    EXPECT_NE(luaL_testudata(Lua(), 2, "SLB3:Type"), nullptr);
    EXPECT_EQ(luaL_testudata(Lua(), 3, "SLB3:Type"), nullptr);
    EXPECT_NE(luaL_testudata(Lua(), 3, "SLB3:Other"), nullptr);
    lua_pop(Lua(), 3);
}

TEST_F(Binder, TheTextOfAnInstanceNamesItsTypeAndWhetherItIsForgotten) {
    int object = 0;
    Control::PushInstance(Lua(), "VtaCore::CDom", &object);
    lua_pushvalue(Lua(), -1);
    lua_setglobal(Lua(), "dom");
    lua_pushfstring(Lua(), "VtaCore::CDom: %p", &object);
    const std::string expected = PopText();
    EXPECT_EQ(Run("return tostring(dom)"), expected);
    Control::ForgetObject(Lua(), -1);
    EXPECT_EQ(Run("return tostring(dom)"), "VtaCore::CDom: gone");
    lua_pop(Lua(), 1);
}

TEST_F(Binder, TheTextOfAnInstanceIsRefusedForOtherValues) {
    int object = 0;
    Control::PushInstance(Lua(), "Type", &object);
    lua_setglobal(Lua(), "instance");
    EXPECT_NE(Run("return getmetatable(instance).__tostring(io.stdout)").find("SLB3:Type expected"), std::string::npos);
}

TEST_F(Binder, ThePayloadFollowsTheHeaderWithoutAGap) {
    int object = 0;
    Control::PushInstance(Lua(), "Type", &object);
    const auto *words = static_cast<void *const *>(lua_touserdata(Lua(), -1));
    EXPECT_EQ(words[sizeof(SlbInstance) / sizeof(void *)], &object);
    lua_pop(Lua(), 1);
}

}  // namespace
