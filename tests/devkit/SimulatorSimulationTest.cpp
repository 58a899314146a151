#include "Simulation.h"

#include <memory>
#include <optional>

#include <gtest/gtest.h>
#include <wx/utils.h>

#include "SimulatorTestSupport.h"
#include "WindowsFunctions.h"

using namespace Simulator;
using namespace SimulatorTest;
using namespace std::chrono_literals;

namespace {

DWORD (*volatile Tick)() = [] { return GetTickCount(); };

std::wstring SystemFolder() {
    wchar_t path[MAX_PATH] = L"";
    return std::wstring(path, GetSystemDirectoryW(path, MAX_PATH));
}
std::wstring (*volatile AskForSystemFolder)() = &SystemFolder;

LSTATUS OpenMicrosoft() {
    HKEY key = nullptr;
    const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft", 0, KEY_READ, &key);
    if (status == ERROR_SUCCESS)
        RegCloseKey(key);
    return status;
}
LSTATUS (*volatile TryToOpenMicrosoft)() = &OpenMicrosoft;

}  // namespace

TEST(Simulation, AttachesAllPartsToAModule) {
    Simulation simulation;
    simulation.Attach(ThisProgram());
    simulation.GetClock().Step();
    const DWORD tick = Tick();
    simulation.GetClock().Advance(1h);
    EXPECT_EQ(Tick() - tick, 3'600'000U);
    EXPECT_EQ(SystemFolder(), simulation.GetFolders().System32());
    EXPECT_EQ(OpenMicrosoft(), ERROR_FILE_NOT_FOUND);
    const BalanceSnapshot before = simulation.GetBalance().Take();
    simulation.GetRegistry().PutKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft");
    EXPECT_EQ(OpenMicrosoft(), ERROR_SUCCESS);
    EXPECT_EQ(simulation.GetBalance().Difference(before, simulation.GetBalance().Take()), "");
    EXPECT_EQ(simulation.GetJournal().Count("RegOpenKeyExW"), 2U) << "not those of the sandbox";
}

TEST(Simulation, RestoresEverything) {
    const std::wstring folder = AskForSystemFolder();
    const DWORD tick = Tick();
    ASSERT_EQ(TryToOpenMicrosoft(), ERROR_SUCCESS);
    std::vector<void *> before;
    for (const Import &import : Imports(ThisProgram()))
        before.push_back(import.Address());
    {
        Simulation simulation;
        EXPECT_GT(simulation.Attach(ThisProgram()), 50U);
        simulation.GetClock().SetTick(1'000'000'000);
        EXPECT_NE(AskForSystemFolder(), folder);
    }
    EXPECT_EQ(AskForSystemFolder(), folder);
    EXPECT_LT(Tick() - tick, 10'000U);
    EXPECT_EQ(TryToOpenMicrosoft(), ERROR_SUCCESS);
    std::vector<void *> after;
    for (const Import &import : Imports(ThisProgram()))
        after.push_back(import.Address());
    EXPECT_EQ(after, before);
}

TEST(Simulation, CanFollowAnother) {
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        Simulation simulation;
        simulation.Attach(ThisProgram());
        EXPECT_EQ(simulation.GetJournal().Count("RegOpenKeyExW"), 0U);
        EXPECT_EQ(OpenMicrosoft(), ERROR_FILE_NOT_FOUND);
        EXPECT_EQ(simulation.GetJournal().Count("RegOpenKeyExW"), 1U);
        EXPECT_EQ(simulation.GetFaults().Calls("RegOpenKeyExW"), 1U);
    }
}

TEST(Simulation, HasOnlyTheRequestedParts) {
    Simulation simulation({.registry = false, .folders = false, .balance = false, .machine = false});
    simulation.Attach(ThisProgram());
    EXPECT_THROW((void)simulation.GetRegistry(), std::bad_optional_access);
    EXPECT_THROW((void)simulation.GetFolders(), std::bad_optional_access);
    EXPECT_THROW((void)simulation.GetMachine(), std::bad_optional_access);
    EXPECT_FALSE(simulation.Functions().Knows("malloc"));
    EXPECT_FALSE(simulation.Functions().Knows("GetSystemInfo"));
    EXPECT_TRUE(simulation.Functions().Knows("Sleep"));
    EXPECT_EQ(OpenMicrosoft(), ERROR_SUCCESS);
    EXPECT_EQ(simulation.GetJournal().Count("RegOpenKeyExW"), 0U);
}

TEST(Simulation, WatchesAModuleThroughLoadingAndUnloading) {
    Simulation simulation({.registry = false, .folders = false, .balance = true});
    LibraryCopy library(L"libwinpthread-1.dll");
    simulation.AttachWhenLoaded(library.Name());
    const BalanceSnapshot before = simulation.GetBalance().Take();
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        ASSERT_NE(library.Load(), nullptr);
        EXPECT_GT(simulation.GetBalance().Take().blocks, before.blocks);
        library.Unload();
    }
    EXPECT_EQ(simulation.GetBalance().Difference(before, simulation.GetBalance().Take()), "");
}

TEST(Simulation, CountsAroundTheMachineWhicheverWasAttachedFirst) {
    Simulation simulation;
    simulation.Functions().Put<System::OpenProcess>(
        [](const auto &, DWORD, BOOL, DWORD) { return reinterpret_cast<HANDLE>(std::uintptr_t{0x7710}); });
    simulation.Functions().Put<System::CloseHandle>([](const auto &next, HANDLE handle) {
        return handle == reinterpret_cast<HANDLE>(std::uintptr_t{0x7710}) ? TRUE : next(handle);
    });
    simulation.Attach(ThisProgram());
    const BalanceSnapshot before = simulation.GetBalance().Take();
    const HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, 4711);
    EXPECT_EQ(Balance::Left(before, simulation.GetBalance().Take()).size(), 1U);
    EXPECT_TRUE(CloseHandle(process));
    EXPECT_EQ(simulation.GetBalance().Difference(before, simulation.GetBalance().Take()), "");
}

TEST(Simulation, ReleasesHungAndSleepingThreadsAtItsEnd) {
    auto simulation = std::make_unique<Simulation>();
    simulation->Attach(ThisProgram());
    simulation->GetClock().Step();
    const auto plan = simulation->GetFaults().HangEvery("GetFileAttributesW");
    DWORD attributes = INVALID_FILE_ATTRIBUTES;
    const TestThread hung([&attributes] { attributes = GetFileAttributesW(L"C:\\"); });
    const TestThread sleeping([] { Sleep(3'600'000); });
    ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
    ASSERT_TRUE(simulation->GetClock().AwaitWaiting(1, kPatienceMs));
    simulation.reset();
    EXPECT_TRUE(hung.Join(kPatienceMs));
    EXPECT_TRUE(sleeping.Join(kPatienceMs));
    EXPECT_NE(attributes, INVALID_FILE_ATTRIBUTES);
}

TEST(Simulation, KeepsWorkingWhenAHungThreadIsKilled) {
    Simulation simulation;
    simulation.Attach(ThisProgram());
    const auto plan = simulation.GetFaults().HangNth("Sleep", 1);
    const TestThread thread([] { Sleep(1); });
    ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
    ASSERT_TRUE(TerminateThread(thread.Handle(), 0));
    ASSERT_TRUE(thread.Join(kPatienceMs));
    Sleep(1);
    EXPECT_EQ(simulation.GetJournal().Count("Sleep"), 2U);
    EXPECT_EQ(OpenMicrosoft(), ERROR_FILE_NOT_FOUND);
}
