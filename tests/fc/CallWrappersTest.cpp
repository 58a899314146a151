// The five wrappers of bound functions, with every kind of Lua value in every position, and how bound functions are
// registered.

#include <limits>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "FcModule.h"
#include "fc/Registration.h"
#include "slb3_control.h"
#include "vta_core_control.h"

namespace {

// What the native functions received, and what they return.
struct Seen {
    int calls = 0;
    std::optional<std::string> first;  ///< No value: a null pointer.
    std::optional<std::string> second;
    std::optional<bool> flag;
    VtaCore::CDom *dom = nullptr;
    wxString secondText;
    wxString thirdText;
};
Seen seen;
bool answer = true;
int number = 0;

std::optional<std::string> Copy(const char *text) {
    return text ? std::optional<std::string>(text) : std::nullopt;
}

int NativeInt() {
    ++seen.calls;
    return number;
}

bool NativeBool(bool flag) {
    ++seen.calls;
    seen.flag = flag;
    return answer;
}

bool NativeStr(const char *text) {
    ++seen.calls;
    seen.first = Copy(text);
    return answer;
}

bool NativeStrStr(const char *first, const char *second) {
    ++seen.calls;
    seen.first = Copy(first);
    seen.second = Copy(second);
    return answer;
}

bool NativeDomStrStr(VtaCore::CDom &dom, const wxString &second, const wxString &third) {
    ++seen.calls;
    seen.dom = &dom;
    seen.secondText = second;
    seen.thirdText = third;
    return answer;
}

constexpr const char *kDomError = "Expected (non-const) Object SLB.Dom";

/// Every kind of Lua value, and whether Lua converts it to a string.
struct LuaValue {
    const char *code;
    std::optional<std::string> text;
    bool truth;
};
const LuaValue kLuaValues[] = {
    {"nil", std::nullopt, false},
    {"false", std::nullopt, false},
    {"true", std::nullopt, true},
    {"0", "0", true},
    {"-1.5", "-1.5", true},
    {"''", "", true},
    {"'path'", "path", true},
    {"{}", std::nullopt, true},
    {"print", std::nullopt, true},
    {"io.stdout", std::nullopt, true},
    {"coroutine.create(print)", std::nullopt, true},
    {"light", std::nullopt, true},
};

class CallWrappers : public testing::Test {
protected:
    CallWrappers() {
        seen = Seen();
        answer = true;
        number = 0;
        {
            SLB3::Namespace table(lua, "SLB.filter");
            RegisterBound(lua, table, "int", &NativeInt);
            RegisterBound(lua, table, "bool", &NativeBool);
            RegisterBound(lua, table, "str", &NativeStr);
            RegisterBound(lua, table, "strstr", &NativeStrStr);
            RegisterBound(lua, table, "domstrstr", &NativeDomStrStr);
        }
        SLB3::Control::PushInstance(lua, "SLB.Dom", &dom);
        lua_setglobal(lua, "dom");
        SLB3::Control::PushInstance(lua, "SLB.Dom", &dom, true);
        lua_setglobal(lua, "constDom");
        lua_pushlightuserdata(lua, &dom);
        lua_setglobal(lua, "light");
        lua.Run("f = SLB.filter");
        EXPECT_EQ(lua_gettop(lua), 0);
    }

    VtaCore::Control::Dom dom;
    LuaState lua;
};

TEST_F(CallWrappers, IntVoidPushesTheResultSignExtended) {
    for (const int value : {0, 1, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        number = value;
        EXPECT_EQ(lua.Eval("string.format('%.0f', f.int())"), std::to_string(value));
    }
    EXPECT_EQ(lua.Eval("select('#', f.int(1, 'x', nil))"), "1") << "arguments are ignored";
    EXPECT_EQ(seen.calls, 6);
}

TEST_F(CallWrappers, BoolBoolTakesLuasTruthOfAnyValue) {
    for (const LuaValue &value : kLuaValues) {
        seen = Seen();
        EXPECT_EQ(lua.Eval(std::string("f.bool(") + value.code + ")"), "true") << value.code;
        EXPECT_EQ(seen.flag, value.truth) << value.code;
    }
}

TEST_F(CallWrappers, BoolBoolWithoutAnArgumentPassesFalseAndWithZeroPassesTrue) {
    EXPECT_EQ(lua.Eval("f.bool()"), "true");
    EXPECT_EQ(seen.flag, false);
    EXPECT_EQ(lua.Eval("f.bool(0)"), "true");
    EXPECT_EQ(seen.flag, true);
}

TEST_F(CallWrappers, EachReturnsTheFunctionsResultAsOneBoolean) {
    for (const char *call : {"f.bool(true)", "f.str('a')", "f.strstr('a', 'b')", "f.domstrstr(dom, 'a', 'b')"}) {
        for (const bool result : {true, false}) {
            answer = result;
            EXPECT_EQ(lua.Eval(call), result ? "true" : "false") << call;
            EXPECT_EQ(lua.Eval(std::string("select('#', ") + call + ")"), "1") << call;
            EXPECT_EQ(lua.Eval(std::string("type(") + call + ")"), "boolean") << call;
        }
    }
}

TEST_F(CallWrappers, BoolStrPassesANullPointerForAnythingButAText) {
    for (const LuaValue &value : kLuaValues) {
        seen = Seen();
        EXPECT_EQ(lua.Eval(std::string("f.str(") + value.code + ")"), "true") << value.code;
        EXPECT_EQ(seen.calls, 1);
        EXPECT_EQ(seen.first, value.text) << value.code;
    }
    seen = Seen();
    lua.Run("f.str()");
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.first, std::nullopt) << "no argument";
}

TEST_F(CallWrappers, BoolStrStrPassesBothArgumentsInOrder) {
    for (const LuaValue &first : kLuaValues) {
        for (const LuaValue &second : kLuaValues) {
            seen = Seen();
            lua.Run(std::string("assert(f.strstr(") + first.code + ", " + second.code + "))");
            EXPECT_EQ(seen.first, first.text) << first.code << ", " << second.code;
            EXPECT_EQ(seen.second, second.text) << first.code << ", " << second.code;
        }
    }
}

TEST_F(CallWrappers, BoolStrStrWithoutArgumentsPassesNullPointers) {
    seen.first = seen.second = "before";
    lua.Run("f.strstr()");
    EXPECT_EQ(seen.first, std::nullopt);
    EXPECT_EQ(seen.second, std::nullopt);
}

TEST_F(CallWrappers, BoolDomStrStrPassesTheObjectAndBothTexts) {
    lua.Run("assert(f.domstrstr(dom, 'C:\\\\ndis\\\\', 'C:\\\\wfp\\\\'))");
    EXPECT_EQ(seen.dom, &dom);
    EXPECT_EQ(seen.secondText, "C:\\ndis\\");
    EXPECT_EQ(seen.thirdText, "C:\\wfp\\");
}

TEST_F(CallWrappers, BoolDomStrStrReadsAnythingButATextAsAnEmptyString) {
    for (const LuaValue &second : kLuaValues) {
        for (const LuaValue &third : kLuaValues) {
            seen = Seen();
            lua.Run(std::string("assert(f.domstrstr(dom, ") + second.code + ", " + third.code + "))");
            EXPECT_EQ(seen.secondText, wxString(second.text.value_or(""))) << second.code;
            EXPECT_EQ(seen.thirdText, wxString(third.text.value_or(""))) << third.code;
        }
    }
    seen = Seen();
    lua.Run("assert(f.domstrstr(dom))");
    EXPECT_EQ(seen.calls, 1);
    EXPECT_TRUE(seen.secondText.empty() && seen.thirdText.empty());
}

TEST_F(CallWrappers, BoolDomStrStrReadsTextsAsUtf8InFullLength) {
    lua.Run("assert(f.domstrstr(dom, 'gr\\195\\188n\\0rest', '\\226\\130\\172'))");
    EXPECT_EQ(seen.secondText, wxString(L"gr\u00FCn\0rest", 9));
    EXPECT_EQ(seen.thirdText, wxString(L"\u20AC"));
}

TEST_F(CallWrappers, BoolDomStrStrReadsInvalidUtf8AsAnEmptyString) {
    lua.Run("assert(f.domstrstr(dom, '\\255\\254', 'good'))");
    EXPECT_EQ(seen.secondText, "");
    EXPECT_EQ(seen.thirdText, "good");
}

TEST_F(CallWrappers, BoolDomStrStrRaisesTheObjectErrorForAnyOtherFirstArgument) {
    for (const LuaValue &value : kLuaValues) {
        const std::string error = lua.ErrorOf(std::string("f.domstrstr(") + value.code + ", 'a', 'b')");
        EXPECT_NE(error.find(kDomError), std::string::npos) << value.code << ": " << error;
    }
    EXPECT_NE(lua.ErrorOf("f.domstrstr()").find(kDomError), std::string::npos);
    EXPECT_EQ(seen.calls, 0);
}

TEST_F(CallWrappers, BoolDomStrStrRaisesTheSameErrorForAConstObject) {
    EXPECT_NE(lua.ErrorOf("f.domstrstr(constDom, 'a', 'b')").find(kDomError), std::string::npos);
    EXPECT_EQ(seen.calls, 0);
}

TEST_F(CallWrappers, AcceptTextsOfOneMebibyte) {
    lua.Run("big = string.rep('x', 1024 * 1024)");
    lua.Run("assert(f.str(big)) assert(f.domstrstr(dom, big, big))");
    EXPECT_EQ(seen.first->size(), 1024U * 1024U);
    EXPECT_EQ(seen.thirdText.length(), 1024U * 1024U);
}

TEST_F(CallWrappers, ABoundFunctionCarriesItsAddressAndItsSignature) {
    lua_getglobal(lua, "f");
    lua_getfield(lua, -1, "strstr");
    ASSERT_STREQ(lua_getupvalue(lua, -1, 1), "");
    EXPECT_EQ(lua_rawlen(lua, -1), 8U);
    EXPECT_EQ(*static_cast<BoolFromStrStr *>(lua_touserdata(lua, -1)), &NativeStrStr);
    lua_pop(lua, 1);
    ASSERT_STREQ(lua_getupvalue(lua, -1, 2), "");
    EXPECT_EQ(lua_touserdata(lua, -1), static_cast<const void *>(SignatureRecord(&NativeStrStr)));
    lua_pop(lua, 1);
    EXPECT_EQ(lua_getupvalue(lua, -1, 3), nullptr);
}

void ExpectPlain(const SLB3::BaseInfo *info, int kind, const char *name) {
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->kind(), kind);
    EXPECT_STREQ(info->name(), name);
    EXPECT_EQ(info->parameterCount(), -1);
    EXPECT_EQ(info->returnType(), nullptr);
    EXPECT_EQ(info->parameters(), nullptr);
}

void ExpectFunction(const SLB3::BaseInfo *info, const char *name, int parameters) {
    EXPECT_EQ(info->kind(), 4);
    EXPECT_STREQ(info->name(), name);
    EXPECT_EQ(info->parameterCount(), parameters);
}

constexpr const char *kBoolName = "SLB3::InfoCompilerName<bool>::Name";
constexpr const char *kTextName = "SLB3::InfoCompilerName<class wxString const &>::Name";

TEST(SignatureRecords, DescribeKindNameAndParametersOfEachFunctionType) {
    const SLB3::BaseInfo *info = SignatureRecord(IntFromVoid());
    ExpectFunction(info, "SLB3::InfoCompilerName<int (__cdecl*)(void)>::Name", 0);
    ExpectPlain(info->returnType(), 2, "int");
    ExpectPlain(info->parameters()[0], 1, "void");

    info = SignatureRecord(BoolFromStr());
    ExpectFunction(info, "SLB3::InfoCompilerName<bool (__cdecl*)(char const *)>::Name", 1);
    ExpectPlain(info->returnType(), 0, kBoolName);
    ExpectPlain(info->parameters()[0], 2, "const char *");

    info = SignatureRecord(BoolFromBool());
    ExpectFunction(info, "SLB3::InfoCompilerName<bool (__cdecl*)(bool)>::Name", 1);
    ExpectPlain(info->returnType(), 0, kBoolName);
    ExpectPlain(info->parameters()[0], 0, kBoolName);

    info = SignatureRecord(BoolFromStrStr());
    ExpectFunction(info, "SLB3::InfoCompilerName<bool (__cdecl*)(char const *,char const *)>::Name", 2);
    ExpectPlain(info->returnType(), 0, kBoolName);
    ExpectPlain(info->parameters()[0], 2, "const char *");
    ExpectPlain(info->parameters()[1], 2, "const char *");

    info = SignatureRecord(BoolFromDomStrStr());
    ExpectFunction(info,
                   "SLB3::InfoCompilerName<bool (__cdecl*)(class VtaCore::CDom &,class wxString const &,class wxString "
                   "const &)>::Name",
                   3);
    ExpectPlain(info->returnType(), 0, kBoolName);
    ExpectPlain(info->parameters()[0], 3, "SLB.Dom &");
    ExpectPlain(info->parameters()[1], 0, kTextName);
    ExpectPlain(info->parameters()[2], 0, kTextName);
}

TEST(SignatureRecords, HaveFiveVirtualFunctionsInTheBindersOrder) {
    using Slot = const void *(*)(const SLB3::BaseInfo *);
    const SLB3::BaseInfo *const info = SignatureRecord(BoolFromStr());
    const Slot *const slots = *reinterpret_cast<const Slot *const *>(info);
    EXPECT_EQ(static_cast<int>(reinterpret_cast<std::intptr_t>(slots[0](info))), 4);
    EXPECT_EQ(slots[1](info), static_cast<const void *>(info->name()));
    EXPECT_EQ(static_cast<int>(reinterpret_cast<std::intptr_t>(slots[2](info))), 1);
    EXPECT_EQ(slots[3](info), static_cast<const void *>(info->returnType()));
    EXPECT_EQ(slots[4](info), static_cast<const void *>(info->parameters()));
}

}  // namespace
