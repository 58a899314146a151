// Invalid arguments of AddDriverDiagnostics.
#include "DiagnosticsFixture.h"

#include "SLB3.h"
#include "slb3_control.h"

namespace {

class DiagnosticArguments : public DiagnosticsFixture {
protected:
    DiagnosticArguments() : zip(memory) {
        SLB3::Control::PushInstance(lua, "SLB.wx.ZipOutputStream", &zip);
        lua_setglobal(lua, "zip");
        lua_pushlightuserdata(lua, &zip);
        lua_setglobal(lua, "light");
        std::memset(lua_newuserdata(lua, 64), 0, 64);
        lua_setglobal(lua, "plain");
        PushHandleBlock(sizeof(void *));
        lua_setglobal(lua, "closed");
        PushHandleBlock(4);
        lua_setglobal(lua, "short");
        driver().calls.clear();
    }

    /// The error of a call with these arguments, which must have done nothing.
    std::string ErrorWith(const std::string &arguments) {
        std::string error = lua.ErrorOf("f.AddDriverDiagnostics(" + arguments + ")");
        EXPECT_EQ(driver().calls, std::vector<std::string>()) << arguments;
        EXPECT_EQ(TakeEvents(), std::vector<std::string>()) << arguments;
        return error;
    }
    /// Makes an instance of the type a global, optionally const or without its object.
    void Put(const char *name, const char *type, void *object, bool isConst, bool isGone = false) {
        SLB3::Control::PushInstance(lua, type, object, isConst);
        if (isGone)
            SLB3::Control::ForgetObject(lua, -1);
        lua_setglobal(lua, name);
    }

    /// Makes a record of an agent object, without any storage of the binder behind it, a global.
    template <class Resolve>
    const SLB3::SlbInstance *PutRecord(const char *name, Resolve resolve) {
        void *const block = lua_newuserdata(lua, sizeof(SLB3::SlbInstance));
        lua_setglobal(lua, name);
        return new (block) SLB3::SlbInstance{0, "SLB.Dom", resolve, nullptr};
    }

    wxMemoryOutputStream memory;
    VtaCore::Control::ZipPackage zip;

private:
    void PushHandleBlock(std::size_t size) {
        std::memset(lua_newuserdata(lua, size), 0, size);
        luaL_newmetatable(lua, "vti_handle_t*");
        lua_setmetatable(lua, -2);
    }
};

constexpr char kDomExpected[] = "test:1: bad argument #1 to 'AddDriverDiagnostics' (CDom object expected)";
constexpr char kHandleExpected[] = "test:1: bad argument #2 to 'AddDriverDiagnostics' (vti handle expected)";
constexpr char kHandleClosed[] = "test:1: bad argument #2 to 'AddDriverDiagnostics' (vti handle already closed)";
constexpr char kZipExpected[] = "test:1: bad argument #3 to 'AddDriverDiagnostics' (CZipOutputStream object expected)";
/// A value of each type other than the three.
constexpr const char *kWrong[] = {"nil",       "true",  "false", "0", "'dom'", "{}", "print", "coroutine.create(print)",
                                  "io.stdout", "plain", "light"};

TEST_F(DiagnosticArguments, AValueOfAnyOtherTypeIsNotAnAgentObject) {
    EXPECT_EQ(ErrorWith(""), kDomExpected);
    for (const char *value : kWrong)
        EXPECT_EQ(ErrorWith(std::string(value) + ", handle, zip"), kDomExpected) << value;
    EXPECT_EQ(ErrorWith("handle, handle, zip"), kDomExpected);
    EXPECT_EQ(ErrorWith("zip, handle, zip"), kDomExpected);
}

TEST_F(DiagnosticArguments, AValueOfAnyOtherTypeIsNotAHandle) {
    EXPECT_EQ(ErrorWith("dom"), kHandleExpected);
    for (const char *value : kWrong)
        EXPECT_EQ(ErrorWith("dom, " + std::string(value) + ", zip"), kHandleExpected) << value;
    EXPECT_EQ(ErrorWith("dom, dom, zip"), kHandleExpected);
    EXPECT_EQ(ErrorWith("dom, zip, zip"), kHandleExpected);
    EXPECT_EQ(ErrorWith("dom, short, zip"), kHandleExpected);
}

TEST_F(DiagnosticArguments, AValueOfAnyOtherTypeIsNotAPackage) {
    EXPECT_EQ(ErrorWith("dom, handle"), kZipExpected);
    for (const char *value : kWrong)
        EXPECT_EQ(ErrorWith("dom, handle, " + std::string(value)), kZipExpected) << value;
    EXPECT_EQ(ErrorWith("dom, handle, dom"), kZipExpected);
    EXPECT_EQ(ErrorWith("dom, handle, handle"), kZipExpected);
}

TEST_F(DiagnosticArguments, AClosedHandleIsReportedBeforeThePackageIsChecked) {
    EXPECT_EQ(ErrorWith("dom, closed, zip"), kHandleClosed);
    EXPECT_EQ(ErrorWith("dom, closed, nil"), kHandleClosed);
}

TEST_F(DiagnosticArguments, TheFirstWrongArgumentIsReported) {
    EXPECT_EQ(ErrorWith("nil, nil, nil"), kDomExpected);
    EXPECT_EQ(ErrorWith("nil, closed, nil"), kDomExpected);
    EXPECT_EQ(ErrorWith("dom, nil, nil"), kHandleExpected);
}

TEST_F(DiagnosticArguments, ConstAndForgottenObjectsAreRejected) {
    Put("const_dom", "SLB.Dom", &dom, true);
    Put("gone_dom", "SLB.Dom", &dom, false, true);
    Put("const_zip", "SLB.wx.ZipOutputStream", &zip, true);
    Put("gone_zip", "SLB.wx.ZipOutputStream", &zip, false, true);
    EXPECT_EQ(ErrorWith("const_dom, handle, zip"), kDomExpected);
    EXPECT_EQ(ErrorWith("gone_dom, handle, zip"), kDomExpected);
    EXPECT_EQ(ErrorWith("dom, handle, const_zip"), kZipExpected);
    EXPECT_EQ(ErrorWith("dom, handle, gone_zip"), kZipExpected);
}

TEST_F(DiagnosticArguments, ARecordWithoutStorageOfTheBinderIsAnAgentObject) {
    static SLB3::SlbInstanceView seen;
    const SLB3::SlbInstance *const record = PutRecord("bare", [](const SLB3::SlbInstanceView *view) -> void * {
        seen = *view;
        return &seen;
    });
    EXPECT_EQ(ErrorWith("bare"), kHandleExpected);
    EXPECT_EQ(seen.instance, record);
    EXPECT_EQ(seen.payload, record + 1) << "where storage would begin";
}

TEST_F(DiagnosticArguments, WhatTheBinderLeavesOnTheStackIsNoArgument) {
    static lua_State *state = nullptr;
    state = lua;
    (void)PutRecord("untidy", [](const SLB3::SlbInstanceView *) -> void * {
        lua_getglobal(state, "handle");
        return state;
    });
    EXPECT_EQ(ErrorWith("untidy"), kHandleExpected);
}

TEST_F(DiagnosticArguments, AnObjectOfADerivedClassIsConvertedByItsBaseEntry) {
    static void *converted = nullptr;
    const auto toDom = [](void *derived) { return converted = *static_cast<void **>(derived); };
    const auto toOther = [](void *) -> void * { return nullptr; };
    void *derived = &dom;
    const SLB3::SlbBaseEntry bases[] = {{"SLB.Other", 1, toOther}, {"SLB.Dom", 2, toDom}, {nullptr, 0, nullptr}};
    SLB3::Control::PushInstance(lua, "SLB.DerivedDom", &derived, false, bases);
    lua_setglobal(lua, "derived");
    EXPECT_EQ(ErrorWith("derived"), kHandleExpected);
    EXPECT_EQ(converted, static_cast<void *>(&dom));
}

TEST_F(DiagnosticArguments, AWrongArgumentLeavesOnlyTheTraceOfTheCall) {
    VtaCore::Control::EnableTrace("*", true);
    (void)ErrorWith("dom, closed, zip");
    EXPECT_EQ(TakeTracedMessages(), std::vector<std::string>{"AddDriverDiagnostics"});
}

TEST_F(DiagnosticArguments, ExtraArgumentsAreIgnored) {
    lua.Run("assert(f.AddDriverDiagnostics(dom, handle, zip, nil, 7) == true)");
    EXPECT_TRUE(zip.Close());
    EXPECT_EQ(Package(memory).Files().size(), 5u);
}

}  // namespace
