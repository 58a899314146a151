// What fc-host's simulated system provides to a module named fc.dll: here copies of other libraries.
#include "devkit/host/SimulatedSystem.h"

#include <cstddef>
#include <memory>

#include <gtest/gtest.h>
#include <lua.hpp>
#include <windows.h>
#include <netfw.h>
#include <wrl/client.h>

#include "Faults.h"
#include "FunctionSet.h"
#include "HostProcess.h"
#include "SimulatorTestSupport.h"

using namespace SimulatorTest;

namespace {

/// A library of this program, copied under the name of the module.
class StandIn {
public:
    explicit StandIn(HMODULE library) {
        wchar_t path[MAX_PATH] = L"";
        GetModuleFileNameW(library, path, MAX_PATH);
        std::filesystem::copy_file(path, m_folder.At(L"fc.dll"));
    }
    ~StandIn() { FreeLibrary(m_module); }
    StandIn(const StandIn &) = delete;
    StandIn &operator=(const StandIn &) = delete;

    void Load() { m_module = LoadLibraryW(m_folder.At(L"fc.dll").c_str()); }
    template <class F>
    F *Find(F *, const char *name) const {
        return reinterpret_cast<F *>(reinterpret_cast<void *>(GetProcAddress(m_module, name)));
    }
    /// Calls a function by the entry in the module's import table, as the module's own code does.
    template <class F>
    F *Imported(F *, const char *name) const {
        void **slot = FindSlot(m_module, name);
        return slot == nullptr ? nullptr : reinterpret_cast<F *>(*slot);
    }

    /// Looks up a function of a library as the module's own code does.
    template <class F>
    F *HandedOut(F *, const wchar_t *library, const char *name) const {
        const auto ask = Imported(&::GetProcAddress, "GetProcAddress");
        return reinterpret_cast<F *>(reinterpret_cast<void *>(ask(GetModuleHandleW(library), name)));
    }

private:
    TemporaryFolder m_folder;
    HMODULE m_module = nullptr;
};

/// Runs a file of the agent in the module's Lua. @return its number; -1 without such a file.
int RunAgentFile(const StandIn &module) {
    const auto closeState = module.Find(&lua_close, "lua_close");
    const std::unique_ptr<lua_State, decltype(closeState)> L(module.Find(&luaL_newstate, "luaL_newstate")(),
                                                             closeState);
    const auto load = module.Find(&luaL_loadfilex, "luaL_loadfilex");
    if (load(L.get(), "C:\\ProgramData\\Quillon\\Vantry Agent\\filter\\number.lua", nullptr) != LUA_OK)
        return -1;
    module.Find(&lua_callk, "lua_callk")(L.get(), 0, 1, 0, nullptr);
    return static_cast<int>(module.Find(&lua_tointegerx, "lua_tointegerx")(L.get(), -1, nullptr));
}

std::uint64_t MemoryOf(const StandIn &module) {
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    const auto ask = module.Imported(&::GlobalMemoryStatusEx, "GlobalMemoryStatusEx");
    return ask != nullptr && ask(&status) ? status.ullTotalPhys : 0;
}

constexpr wchar_t kAgentFolder[] = L"C:\\ProgramData\\Quillon\\Vantry Agent";

}  // namespace

TEST(HostSimulatedSystem, MapsTheAgentsFilesForAModuleThatIsLoadedLater) {
    const TemporaryFolder folder;
    ASSERT_TRUE(std::filesystem::create_directory(folder.At(L"filter")));
    (void)folder.Write(L"filter\\number.lua", "return 17");
    StandIn module(GetModuleHandleW(L"lua52.dll"));
    SimulatedSystem system;
    system.MapPath(kAgentFolder, folder.Path().wstring());
    module.Load();
    EXPECT_EQ(RunAgentFile(module), 17);
}

TEST(HostSimulatedSystem, MapsTheAgentsFilesForALoadedModule) {
    const TemporaryFolder folder;
    ASSERT_TRUE(std::filesystem::create_directory(folder.At(L"filter")));
    (void)folder.Write(L"filter\\number.lua", "return 18");
    StandIn module(GetModuleHandleW(L"lua52.dll"));
    module.Load();
    EXPECT_EQ(RunAgentFile(module), -1);
    {
        SimulatedSystem system;
        system.MapPath(kAgentFolder, folder.At(L"elsewhere"));
        EXPECT_EQ(RunAgentFile(module), -1);
        system.MapPath(kAgentFolder, folder.Path().wstring());
        EXPECT_EQ(RunAgentFile(module), 18) << "the last folder counts";
    }
    EXPECT_EQ(RunAgentFile(module), -1) << "until the system ends";
}

TEST(HostSimulatedSystem, SimulatesTheMachineForTheModuleFromItsFirstUseOn) {
    StandIn module(WxLibrary());
    module.Load();
    const std::uint64_t real = MemoryOf(module);
    ASSERT_NE(real, 0U);
    SimulatedSystem system;
    EXPECT_EQ(system.GetMachine().processorCount, 4U);
    EXPECT_EQ(MemoryOf(module), real) << "read only";
    system.UseMachine().memoryTotal = 12345;
    EXPECT_EQ(MemoryOf(module), 12345U);
    system.UseMachine().memoryTotal = 54321;
    EXPECT_EQ(MemoryOf(module), 54321U);
}

TEST(HostSimulatedSystem, SimulatesTheMachineTogetherWithAClock) {
    StandIn module(WxLibrary());
    SimulatedSystem system;
    EXPECT_FALSE(system.HasClock());
    system.StartFastClock(1);
    EXPECT_TRUE(system.HasClock());
    system.UseMachine().memoryTotal = 12345;
    system.MapPath(kAgentFolder, L"C:\\elsewhere");
    module.Load();
    EXPECT_EQ(MemoryOf(module), 12345U);
    system.SetWallClock(1'000'000);
    FILETIME time{};
    const auto readTime = module.Imported(&::GetSystemTimeAsFileTime, "GetSystemTimeAsFileTime");
    ASSERT_NE(readTime, nullptr);
    readTime(&time);
    const ULARGE_INTEGER intervals{{time.dwLowDateTime, time.dwHighDateTime}};
    EXPECT_EQ(intervals.QuadPart / 100'000'000, (11'644'473'600ULL + 1'000'000) / 10);
}

TEST(HostSimulatedSystem, KnowsWhichCallsCanFailBeforeAnythingIsSimulated) {
    StandIn module(WxLibrary());
    module.Load();
    const std::uint64_t real = MemoryOf(module);
    for (const std::string &call : SimulatedSystem::Calls())
        EXPECT_EQ(SimulatedSystem::FindCall(call), call);
    EXPECT_EQ(SimulatedSystem::FindCall("StartService"), "StartServiceW");
    EXPECT_EQ(SimulatedSystem::FindCall("INetCfgComponent::GetId"), "INetCfgComponent::GetId");
    EXPECT_EQ(SimulatedSystem::FindCall("INetCfg::Apply()"), "INetCfg::Apply");
    EXPECT_EQ(SimulatedSystem::FindCall("INetFwPolicy2::put_FirewallEnabled"), "INetFwPolicy2::put_FirewallEnabled");
    EXPECT_FALSE(SimulatedSystem::FindCall("INetFwPolicy2::Release"));
    EXPECT_FALSE(SimulatedSystem::FindCall("INetCfg::AddRef"));
    EXPECT_FALSE(SimulatedSystem::FindCall(""));
    EXPECT_TRUE(SimulatedSystem::CanFail("StartServiceW"));
    EXPECT_TRUE(SimulatedSystem::CanFail("INetCfg::Apply"));
    EXPECT_FALSE(SimulatedSystem::CanFail("Sleep"));
    EXPECT_EQ(MemoryOf(module), real);
    SimulatedSystem system;
    system.UseMachine().memoryTotal = 12345;
    (void)system.UseFaults().FailEvery("GlobalMemoryStatusEx", ERROR_GEN_FAILURE);
    EXPECT_EQ(MemoryOf(module), 0U);
}

TEST(HostSimulatedSystem, RecordsNoCalls) {
    StandIn module(WxLibrary());
    module.Load();
    SimulatedSystem system;
    (void)system.UseFaults();
    EXPECT_NE(MemoryOf(module), 0U);
    const auto initialize = module.HandedOut(&::CoInitializeEx, L"ole32.dll", "CoInitializeEx");
    const auto create = module.HandedOut(&::CoCreateInstance, L"ole32.dll", "CoCreateInstance");
    const auto uninitialize = module.HandedOut(&::CoUninitialize, L"ole32.dll", "CoUninitialize");
    ASSERT_TRUE(SUCCEEDED(initialize(nullptr, COINIT_APARTMENTTHREADED)));
    {
        Microsoft::WRL::ComPtr<INetFwPolicy2> policy;
        ASSERT_EQ(create(__uuidof(NetFwPolicy2), nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&policy)), S_OK);
        EXPECT_EQ(policy->put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN, VARIANT_FALSE), S_OK);
    }
    uninitialize();
    EXPECT_EQ(system.RecordedCalls(), 0U);
}

TEST(HostSimulatedSystem, EndsWhileItWaitsForCallsThatNeverCome) {
    SimulatedSystem system;
    system.StartFastClock(1);
    const auto plan = system.UseFaults().HangEvery("OpenSCManagerW");
    system.AdvanceWhenHit(plan, 3'600'000);
    const TestThread end([&system] { system.End(); });
    EXPECT_TRUE(end.Join(10'000));
}

TEST(HostSimulatedSystem, StaysFastUntilTheLastOfTwoHangsIsOver) {
    StandIn module(WxLibrary());
    module.Load();
    SimulatedSystem system;
    system.StartFastClock(1);
    Simulator::Faults &faults = system.UseFaults();
    const auto first = faults.HangEvery("GetTickCount64");
    const auto second = faults.HangEvery("GlobalMemoryStatusEx");
    system.AdvanceWhenHit(first, 1'000);
    system.AdvanceWhenHit(second, 600'000);
    const auto wait = module.Imported(&::Sleep, "Sleep");
    ASSERT_NE(wait, nullptr);
    const TestThread hangs([&second] { second->Hang(); });
    const TestThread hangsToo([&first] { first->Hang(); });
    const ULONGLONG begin = GetTickCount64();
    wait(300'000);
    EXPECT_LT(GetTickCount64() - begin, 30'000U) << "five minutes pass in a second, though the first hang is over";
    faults.Clear();
}
