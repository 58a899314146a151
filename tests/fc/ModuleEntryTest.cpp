// How Lua opens the module, and what the module then provides.

#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FcModule.h"
#include "ImportTable.h"
#include "SLB3.h"
#include "TestData.h"
#include "vta_core.h"
#include "vti_control.h"

namespace {

std::size_t ProfilerCalls() {
    const std::lock_guard lock(Vti::Lock());
    std::size_t count = 0;
    for (const std::string &call : Vti::TheDriver().calls)
        count += call.rfind("vti_set_profiler", 0) == 0;
    return count;
}

std::set<std::string> DirectFunctions() {
    return {
        "AddDriverDiagnostics",  "setup_qbtrace",
        "AddToConnMetrics",      "UpdateConnMetrics",
        "GetConnMetrics",        "CheckSystemHealthMetrics",
        "GetSysHealthMetrics",   "GetSysHealthEnabled",
        "GetScanMetricPort",     "GetDriverCheckedFromReg",
        "SetDriverCheckedToReg", "GetDriverHookedFromReg",
        "SetDriverHookedToReg",  "GetUncheckedIfc",
        "SetUncheckedIfc",       "GetDriverStoppedByBLPTimestamp",
        "GetFileVersion",
    };
}

std::set<std::string> BoundFunctions() {
    return {"InstallOrUpdateDriver", "UninstallDriver",       "StartWFPDriver",        "StopWFPDriver",
            "RestartWFPDriver",      "StopNDISDriver",        "StartNDISDriver",       "RestartNDISDriver",
            "EnableNativeFirewall",  "DisableNativeFirewall", "WindowsFirewallAddApp", "WindowsFirewallRemoveApp"};
}

std::set<std::string> AllFunctions() {
    std::set<std::string> names = DirectFunctions();
    names.merge(BoundFunctions());
    return names;
}

class ModuleEntry : public testing::Test {
protected:
    ModuleEntry() { Vti::Reset(); }

    void Open(const LuaState &state) {
        lua_pushcfunction(state, module.luaopen());
        lua_call(state, 0, LUA_MULTRET);
        ASSERT_EQ(lua_gettop(state), 1);
        EXPECT_EQ(lua_type(state, 1), LUA_TBOOLEAN);
        EXPECT_TRUE(lua_toboolean(state, 1));
        lua_settop(state, 0);
    }

    static std::set<std::string> FilterNames(lua_State *state) {
        std::set<std::string> names;
        lua_getglobal(state, "SLB");
        lua_getfield(state, -1, "filter");
        for (lua_pushnil(state); lua_next(state, -2); lua_pop(state, 1)) {
            EXPECT_EQ(lua_type(state, -1), LUA_TFUNCTION);
            names.insert(lua_tostring(state, -2));
        }
        lua_settop(state, 0);
        return names;
    }

    FcModule module;
};

TEST_F(ModuleEntry, ReturnsOnlyTrue) {
    const LuaState state;
    Open(state);
}

TEST_F(ModuleEntry, FillsTheFilterTableWithExactlyTheseFunctions) {
    const LuaState state;
    Open(state);
    EXPECT_EQ(FilterNames(state), AllFunctions());
}

TEST_F(ModuleEntry, HasADocumentedSectionForEachFunction) {
    std::set<std::string> documented;
    const std::filesystem::path path = TestData("docs/lua-functions.md");
    std::ifstream file(path);
    ASSERT_TRUE(file) << "no " << path.string();
    for (std::string line; std::getline(file, line);)
        if (line.rfind("### ", 0) == 0)
            documented.insert(line.substr(4));
    const LuaState state;
    Open(state);
    EXPECT_EQ(documented, FilterNames(state));
}

TEST_F(ModuleEntry, RegistersDirectFunctionsWithoutUpvalues) {
    const LuaState state;
    Open(state);
    lua_getglobal(state, "SLB");
    lua_getfield(state, -1, "filter");
    for (const std::string &name : DirectFunctions()) {
        lua_getfield(state, -1, name.c_str());
        EXPECT_TRUE(lua_iscfunction(state, -1)) << name;
        EXPECT_EQ(lua_getupvalue(state, -1, 1), nullptr) << name;
        lua_pop(state, 1);
    }
}

TEST_F(ModuleEntry, RegistersBoundFunctionsWithTheirFunctionAndItsSignature) {
    const LuaState state;
    Open(state);
    lua_getglobal(state, "SLB");
    lua_getfield(state, -1, "filter");
    for (const std::string &name : BoundFunctions()) {
        lua_getfield(state, -1, name.c_str());
        ASSERT_STREQ(lua_getupvalue(state, -1, 1), "") << name;
        EXPECT_EQ(lua_type(state, -1), LUA_TUSERDATA) << name;
        EXPECT_EQ(lua_rawlen(state, -1), 8U) << name;
        ASSERT_STREQ(lua_getupvalue(state, -2, 2), "") << name;
        EXPECT_EQ(lua_getupvalue(state, -3, 3), nullptr) << name;
        lua_pop(state, 3);
    }
}

/// What the binder reads of a type.
std::string DescribedType(const SLB3::BaseInfo *info) {
    EXPECT_EQ(info->parameterCount(), -1);
    EXPECT_EQ(info->returnType(), nullptr);
    EXPECT_EQ(info->parameters(), nullptr);
    return std::to_string(info->kind()) + " " + info->name();
}

/// The same of a function's type: its result, and its parameters.
std::string DescribedSignature(const SLB3::BaseInfo *info) {
    EXPECT_EQ(info->kind(), 4);
    EXPECT_EQ(std::string(info->name()).find("SLB3::InfoCompilerName<"), 0U) << info->name();
    std::string described = DescribedType(info->returnType()) + " of";
    for (int i = 0; i < info->parameterCount(); ++i)
        described += " [" + DescribedType(info->parameters()[i]) + "]";
    return described;
}

TEST_F(ModuleEntry, TheSignaturesOfBoundFunctionsDescribeTheirResultsAndParameters) {
    const std::string result = "0 SLB3::InfoCompilerName<bool>::Name of";
    const std::string flag = " [0 SLB3::InfoCompilerName<bool>::Name]";
    const std::string text = " [2 const char *]";
    const std::string wide = " [0 SLB3::InfoCompilerName<class wxString const &>::Name]";
    const std::vector<std::pair<std::string, std::string>> expected{
        {"DisableNativeFirewall", "2 int of"},
        {"StartWFPDriver", result + flag},
        {"WindowsFirewallRemoveApp", result + text},
        {"WindowsFirewallAddApp", result + text + text},
        {"UninstallDriver", result + " [3 SLB.Dom &]" + wide + wide},
    };
    const LuaState state;
    Open(state);
    lua_getglobal(state, "SLB");
    lua_getfield(state, -1, "filter");
    for (const auto &[name, signature] : expected) {
        lua_getfield(state, -1, name.c_str());
        ASSERT_STREQ(lua_getupvalue(state, -1, 2), "") << name;
        EXPECT_EQ(DescribedSignature(static_cast<const SLB3::BaseInfo *>(lua_touserdata(state, -1))), signature)
            << name;
        lua_pop(state, 2);
    }
}

// ---- The order of registration

constexpr char kRawSet[] = "_ZN4SLB35Table6rawSetEPKc";
constexpr char kNamespaceBegins[] = "_ZN4SLB39NamespaceC1EP9lua_StatePKc";
constexpr char kNamespaceEnds[] = "_ZN4SLB39NamespaceD1Ev";

/// What the module has asked of the binder: the names that it registered, and "[TABLE" and "]" around each access.
std::vector<std::string> binderCalls;

template <class Function>
Function *OfBinder(const char *symbol, Function *) {
    return reinterpret_cast<Function *>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"SLB3.dll"), symbol)));
}
void NoteRegistration(void *table, const char *key) {
    binderCalls.emplace_back(key);
    OfBinder(kRawSet, &NoteRegistration)(table, key);
}
void *NoteBeginOfAccess(void *place, lua_State *state, const char *name) {
    binderCalls.push_back(std::string("[") + name);
    return OfBinder(kNamespaceBegins, &NoteBeginOfAccess)(place, state, name);
}
void NoteEndOfAccess(void *place) {
    binderCalls.emplace_back("]");
    OfBinder(kNamespaceEnds, &NoteEndOfAccess)(place);
}

TEST_F(ModuleEntry, RegistersItsFunctionsInThisOrderInThreeAccessesToTheTable) {
    const Simulator::Redirection redirections[] = {
        {module.handle(), kRawSet, reinterpret_cast<void *>(&NoteRegistration)},
        {module.handle(), kNamespaceBegins, reinterpret_cast<void *>(&NoteBeginOfAccess)},
        {module.handle(), kNamespaceEnds, reinterpret_cast<void *>(&NoteEndOfAccess)},
    };
    for (const Simulator::Redirection &redirection : redirections)
        ASSERT_TRUE(redirection.Found());
    binderCalls.clear();
    const LuaState state;
    Open(state);
    const std::vector<std::string> expected{
        "[SLB.filter",
        "EnableNativeFirewall",
        "DisableNativeFirewall",
        "AddDriverDiagnostics",
        "setup_qbtrace",
        "AddToConnMetrics",
        "UpdateConnMetrics",
        "GetConnMetrics",
        "CheckSystemHealthMetrics",
        "GetSysHealthMetrics",
        "GetSysHealthEnabled",
        "GetScanMetricPort",
        "GetDriverCheckedFromReg",
        "SetDriverCheckedToReg",
        "GetDriverHookedFromReg",
        "SetDriverHookedToReg",
        "GetUncheckedIfc",
        "SetUncheckedIfc",
        "GetDriverStoppedByBLPTimestamp",
        "]",
        "[SLB.filter",
        "GetFileVersion",
        "InstallOrUpdateDriver",
        "UninstallDriver",
        "StartWFPDriver",
        "StopWFPDriver",
        "RestartWFPDriver",
        "StopNDISDriver",
        "StartNDISDriver",
        "RestartNDISDriver",
        "]",
        "[SLB.filter",
        "WindowsFirewallAddApp",
        "WindowsFirewallRemoveApp",
        "]",
    };
    EXPECT_EQ(binderCalls, expected);
}

TEST_F(ModuleEntry, KeepsOtherContentsOfTheTables) {
    LuaState state;
    state.Run("SLB = {other = 1, filter = {mine = 2, GetConnMetrics = 'old'}}");
    Open(state);
    EXPECT_EQ(state.Eval("SLB.other + SLB.filter.mine"), "3");
    EXPECT_EQ(state.Eval("type(SLB.filter.GetConnMetrics)"), "function");
}

TEST_F(ModuleEntry, IgnoresMetamethodsOfTheTable) {
    LuaState state;
    state.Run("SLB = {filter = setmetatable({}, {__newindex = function() error('called') end})}");
    Open(state);
    EXPECT_EQ(state.Eval("type(SLB.filter.AddToConnMetrics)"), "function");
}

TEST_F(ModuleEntry, RequireFindsTheModule) {
    LuaState state;
    wchar_t path[MAX_PATH];
    ASSERT_NE(GetModuleFileNameW(module.handle(), path, MAX_PATH), 0U);
    const std::filesystem::path pattern = std::filesystem::path(path).parent_path() / "?.dll";
    lua_pushstring(state, pattern.string().c_str());
    lua_setglobal(state, "pattern");
    state.Run("package.cpath = pattern");
    EXPECT_EQ(state.Eval("require 'fc'"), "true");
    EXPECT_EQ(state.Eval("type(SLB.filter.GetConnMetrics)"), "function");
}

TEST_F(ModuleEntry, PassesTheProfilersWordsOncePerProcess) {
    const LuaState first;
    const LuaState second;
    Open(first);
    Open(first);
    Open(second);
    EXPECT_EQ(ProfilerCalls(), 1U);
    const std::lock_guard lock(Vti::Lock());
    EXPECT_EQ(Vti::TheDriver().profilerBlockfilter, &profiler_blockfilter);
    EXPECT_EQ(Vti::TheDriver().profilerRunning, &profiler_running);
}

TEST(ModuleEntryOnTwoThreads, SetsTheProfilerOnceAndFillsBothStates) {
    for (int round = 0; round < 30; ++round) {
        Vti::Reset();
        const FcModule module;  // afresh, so that each round is the first
        std::atomic<int> ready{0};
        const auto open = [&module, &ready] {
            LuaState state;
            ++ready;
            while (ready < 2)
                std::this_thread::yield();
            lua_pushcfunction(state, module.luaopen());
            lua_call(state, 0, 1);
            EXPECT_TRUE(lua_toboolean(state, -1));
            EXPECT_EQ(state.Eval("type(SLB.filter.AddToConnMetrics)"), "function");
        };
        std::thread other(open);
        open();
        other.join();
        EXPECT_EQ(ProfilerCalls(), 1U);
    }
}

TEST_F(ModuleEntry, ASecondOpeningRegistersTheTableAgain) {
    LuaState state;
    Open(state);
    state.Run("SLB.filter.GetConnMetrics = nil");
    Open(state);
    EXPECT_EQ(state.Eval("type(SLB.filter.GetConnMetrics)"), "function");
}

}  // namespace
