// The rules by which a userdata argument becomes a native object.

#include <cstring>

#include <gtest/gtest.h>

#include "FcModule.h"
#include "SLB3.h"
#include "common/UserdataArguments.h"
#include "slb3_control.h"

namespace {

using SLB3::SlbBaseEntry;
using SLB3::SlbInstance;

class UserdataArguments : public testing::Test {
protected:
    /// A record made by hand, so that unusual ones can be tested.
    SlbInstance *PushRecord(std::size_t size = sizeof(SlbInstance)) {
        void *const block = lua_newuserdata(lua, size);
        std::memset(block, 0, size);
        return static_cast<SlbInstance *>(block);
    }

    /// The object at index 1 by the rule for the agent object; checks the stack, too.
    void *Dom() {
        const int top = lua_gettop(lua);
        void *const found = GetDomArg(lua);
        EXPECT_EQ(lua_gettop(lua), top);
        return found;
    }

    LuaState lua;
    int object = 0;
};

struct Derived {
    int own = 0;
    int base = 0;
};

void *BaseOfDerived(void *derived) {
    return &static_cast<Derived *>(derived)->base;
}
void *NotToBeCalled(void *) {
    return reinterpret_cast<void *>(0xBAD);
}

TEST_F(UserdataArguments, ReturnsTheObjectOfAnInstanceWithThatTypeName) {
    SLB3::Control::PushInstance(lua, "SLB.Dom", &object);
    EXPECT_EQ(Dom(), &object);
}

TEST_F(UserdataArguments, ComparesTypeNamesByTextNotOnlyByAddress) {
    static char name[] = "SLB.Dom";
    SLB3::Control::PushInstance(lua, name, &object);
    ASSERT_NE(static_cast<const void *>(name), static_cast<const void *>(kDomTypeName));
    EXPECT_EQ(Dom(), &object);
}

TEST_F(UserdataArguments, AcceptsNeitherAPrefixNorALongerNameAsTheType) {
    SLB3::Control::PushInstance(lua, "SLB.Do", &object);
    EXPECT_EQ(Dom(), nullptr);
    lua_settop(lua, 0);
    SLB3::Control::PushInstance(lua, "SLB.Domain", &object);
    EXPECT_EQ(Dom(), nullptr);
}

TEST_F(UserdataArguments, ReturnsNothingForAConstInstanceAlthoughTheObjectIsFound) {
    SLB3::Control::PushInstance(lua, "SLB.Dom", &object, true);
    EXPECT_EQ(Dom(), nullptr);
}

TEST_F(UserdataArguments, IgnoresOneOfTheTwoConstBitsWithoutTheOther) {
    for (const std::uint32_t flags : {1U, 2U, 0xFFFFFFFCU}) {
        SLB3::Control::PushInstance(lua, "SLB.Dom", &object);
        static_cast<SlbInstance *>(lua_touserdata(lua, 1))->flags = flags;
        EXPECT_EQ(Dom(), &object) << flags;
        lua_settop(lua, 0);
    }
}

TEST_F(UserdataArguments, AcceptsADerivedClassThroughItsBaseEntry) {
    Derived derived;
    const SlbBaseEntry bases[] = {{"SLB.Other", 1, NotToBeCalled},
                                  {"SLB.Dom", 1, BaseOfDerived},
                                  {"SLB.Dom", 1, NotToBeCalled},
                                  {nullptr, 0, nullptr}};
    SLB3::Control::PushInstance(lua, "SLB.DerivedDom", &derived, false, bases);
    EXPECT_EQ(Dom(), &derived.base);
}

TEST_F(UserdataArguments, AConstDerivedInstanceReturnsNothing) {
    Derived derived;
    const SlbBaseEntry bases[] = {{"SLB.Dom", 1, BaseOfDerived}, {nullptr, 0, nullptr}};
    SLB3::Control::PushInstance(lua, "SLB.DerivedDom", &derived, true, bases);
    EXPECT_EQ(Dom(), nullptr);
}

TEST_F(UserdataArguments, TheSearchOfTheBasesEndsAtTheZeroMarker) {
    Derived derived;
    const SlbBaseEntry bases[] = {{"SLB.Other", 1, NotToBeCalled}, {"SLB.Dom", 0, NotToBeCalled}};
    SLB3::Control::PushInstance(lua, "SLB.DerivedDom", &derived, false, bases);
    EXPECT_EQ(Dom(), nullptr);
}

TEST_F(UserdataArguments, AnotherTypeWithoutBasesReturnsNothing) {
    SLB3::Control::PushInstance(lua, "SLB.Other", &object);
    EXPECT_EQ(Dom(), nullptr);
}

TEST_F(UserdataArguments, AForgottenObjectReturnsNothing) {
    Derived derived;
    const SlbBaseEntry bases[] = {{"SLB.Dom", 1, NotToBeCalled}, {nullptr, 0, nullptr}};
    SLB3::Control::PushInstance(lua, "SLB.Dom", &object);
    SLB3::Control::ForgetObject(lua, 1);
    EXPECT_EQ(Dom(), nullptr);

    lua_settop(lua, 0);
    SLB3::Control::PushInstance(lua, "SLB.DerivedDom", &derived, false, bases);
    SLB3::Control::ForgetObject(lua, 1);
    EXPECT_EQ(Dom(), nullptr);
}

TEST_F(UserdataArguments, AUserdataTooShortForTheRecordIsNotFound) {
    for (std::size_t size = 0; size < sizeof(SlbInstance); ++size) {
        std::memset(lua_newuserdata(lua, size), 0xFF, size);
        EXPECT_EQ(Dom(), nullptr) << size << " bytes";
        lua_settop(lua, 0);
    }
}

TEST_F(UserdataArguments, ALightUserdataIsNotFound) {
    SlbInstance record{};
    lua_pushlightuserdata(lua, &record);
    EXPECT_EQ(Dom(), nullptr);
}

TEST_F(UserdataArguments, ARecordOfZerosIsNotFound) {
    PushRecord(256);
    EXPECT_EQ(Dom(), nullptr);
}

TEST_F(UserdataArguments, ABaseEntryWithoutANameOrAConversionIsNotFound) {
    const SlbBaseEntry bases[] = {{nullptr, 1, NotToBeCalled}, {"SLB.Dom", 1, nullptr}, {nullptr, 0, nullptr}};
    SLB3::Control::PushInstance(lua, "SLB.DerivedDom", &object, false, bases);
    EXPECT_EQ(Dom(), nullptr);
}

TEST_F(UserdataArguments, ValuesThatAreNotUserdataAreNotFound) {
    for (const char *value : {"nil", "true", "1", "'SLB.Dom'", "{}", "print", "coroutine.create(print)"}) {
        ASSERT_EQ(luaL_loadstring(lua, (std::string("return ") + value).c_str()), LUA_OK);
        lua_call(lua, 0, 1);
        EXPECT_EQ(Dom(), nullptr) << value;
        lua_settop(lua, 0);
    }
    EXPECT_EQ(Dom(), nullptr) << "no argument at all";
}

TEST_F(UserdataArguments, TheResolvingFunctionSeesTheInstanceAndItsPayload) {
    static SLB3::SlbInstanceView seen;
    SlbInstance *const record = PushRecord(64);
    record->typeName = "SLB.Dom";
    record->resolve = [](const SLB3::SlbInstanceView *view) -> void * {
        seen = *view;
        return &seen;
    };
    EXPECT_EQ(Dom(), &seen);
    EXPECT_EQ(seen.instance, record);
    EXPECT_EQ(seen.payload, reinterpret_cast<char *>(record) + 32);
}

TEST_F(UserdataArguments, WhatTheResolvingFunctionLeavesOnTheStackIsRemoved) {
    static lua_State *state;
    state = lua;
    SlbInstance *const record = PushRecord(64);
    record->typeName = "SLB.Dom";
    record->resolve = [](const SLB3::SlbInstanceView *) -> void * {
        lua_pushliteral(state, "left behind");
        return state;
    };
    EXPECT_EQ(Dom(), state) << "found";
    record->flags = SlbInstance::kConstFlags;
    EXPECT_EQ(Dom(), nullptr) << "held as const";
    record->typeName = "SLB.Other";
    EXPECT_EQ(Dom(), nullptr) << "of another type";
}

TEST_F(UserdataArguments, TheZipIsFoundAtItsIndexByTheSameRules) {
    lua_pushnil(lua);
    lua_pushnil(lua);
    SLB3::Control::PushInstance(lua, "SLB.wx.ZipOutputStream", &object);
    EXPECT_EQ(static_cast<void *>(GetZipArg(lua, 3)), &object);
    EXPECT_EQ(GetZipArg(lua, 1), nullptr);
    EXPECT_EQ(lua_gettop(lua), 3);

    lua_settop(lua, 2);
    SLB3::Control::PushInstance(lua, "SLB.wx.ZipOutputStream", &object, true);
    EXPECT_EQ(GetZipArg(lua, 3), nullptr) << "held as const";

    lua_settop(lua, 2);
    SLB3::Control::PushInstance(lua, "SLB.Dom", &object);
    EXPECT_EQ(GetZipArg(lua, 3), nullptr) << "another type";
}

TEST_F(UserdataArguments, TheDriverHandleIsRecognisedByItsMetatable) {
    auto **const word = static_cast<vti_handle_t **>(lua_newuserdata(lua, sizeof(vti_handle_t *)));
    *word = reinterpret_cast<vti_handle_t *>(&object);
    EXPECT_EQ(GetDriverHandleArg(lua, 1), nullptr) << "no metatable yet";
    luaL_newmetatable(lua, "vti_handle_t*");
    lua_setmetatable(lua, 1);

    const DriverHandleBlock *const block = GetDriverHandleArg(lua, 1);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(static_cast<void *>(block->handle), &object);

    *word = nullptr;
    ASSERT_NE(GetDriverHandleArg(lua, 1), nullptr) << "a closed handle is still a handle's block";
    EXPECT_EQ(GetDriverHandleArg(lua, 1)->handle, nullptr);
}

TEST_F(UserdataArguments, ADriverHandleBlockWithoutRoomForTheWordIsNotFound) {
    lua_newuserdata(lua, sizeof(vti_handle_t *) - 1);
    luaL_newmetatable(lua, "vti_handle_t*");
    lua_setmetatable(lua, 1);
    EXPECT_EQ(GetDriverHandleArg(lua, 1), nullptr);
}

}  // namespace
