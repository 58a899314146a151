#include "FunctionSet.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include <gtest/gtest.h>
#include <wx/dynlib.h>
#include <wx/utils.h>

#include "SimulatorTestSupport.h"
#include "WindowsFunctions.h"

using namespace Simulator;
using namespace SimulatorTest;

// A function that the real library lacks because the system is too old.
DWORD WINAPI GetAnswerToEverything();
namespace Newer {
SIMULATOR_FUNCTION(GetAnswerToEverything, "KERNEL32.dll", ReturnsZero);
}

namespace Chosen {
SIMULATOR_FUNCTION(GetCurrentProcessId, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(GetVersion, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(GetSystemDefaultLangID, "KERNEL32.dll", ReturnsZero);
}  // namespace Chosen

namespace {

class SimulatedFunctions : public ::testing::Test {
protected:
    /// Attaches only the named functions of this program: the test framework is part of it.
    void AttachProgram(const std::set<std::string> &names) { set->Attach(ThisProgram(), names); }

    std::shared_ptr<Core> core = std::make_shared<Core>();
    std::unique_ptr<FunctionSet> set = std::make_unique<FunctionSet>(core);
};

LSTATUS OpenSoftware(REGSAM access = KEY_READ) {
    HKEY key = nullptr;
    const LSTATUS status = RegOpenKeyExW(HKEY_CURRENT_USER, L"Software", 0, access, &key);
    if (status == ERROR_SUCCESS)
        RegCloseKey(key);
    return status;
}

std::size_t allocations = 0;

void *CountedMalloc(std::size_t size) {
    ++allocations;
    return std::malloc(size);
}

void *CountedCalloc(std::size_t count, std::size_t size) {
    ++allocations;
    return std::calloc(count, size);
}

/// Read again at each call: the compiler keeps an import's address within a function.
DWORD (*volatile ProcessId)() = [] { return GetCurrentProcessId(); };

}  // namespace

TEST_F(SimulatedFunctions, AreRecordedAndCallTheRealFunctionByDefault) {
    set->PassThrough<System::RegOpenKeyExW>();
    set->PassThrough<System::RegCloseKey>();
    AttachProgram({"RegOpenKeyExW", "RegCloseKey"});
    EXPECT_EQ(OpenSoftware(), ERROR_SUCCESS);
    EXPECT_EQ(core->journal.Names(), (std::vector<std::string>{"RegOpenKeyExW", "RegCloseKey"}));
    const std::string arguments = core->journal.Entries()[0].arguments;
    EXPECT_EQ(arguments.find("HKEY_CURRENT_USER, \"Software\", 0, " + std::to_string(KEY_READ) + ", 0x"), 0U)
        << arguments;
    EXPECT_EQ(core->faults.Calls("RegOpenKeyExW"), 1U);
}

TEST_F(SimulatedFunctions, AreRealAgainWhenTheSetEnds) {
    set->Put<Chosen::GetCurrentProcessId>([](const auto &) -> DWORD { return 4711; });
    const DWORD real = ProcessId();
    ASSERT_NE(real, 4711U);
    AttachProgram({"GetCurrentProcessId"});
    EXPECT_EQ(ProcessId(), 4711U);
    set.reset();
    EXPECT_EQ(ProcessId(), real);
}

TEST_F(SimulatedFunctions, FailInTheirOwnWay) {
    set->PassThrough<System::RegOpenKeyExW>();
    set->PassThrough<System::CreateFileW>();
    set->PassThrough<System::GetFileAttributesW>();
    set->PassThrough<System::CreateEventW>();
    set->PassThrough<System::DeleteFileW>();
    set->PassThrough<System::SHGetFolderPathW>();
    set->PassThrough<System::_wfopen>();
    set->PassThrough<System::fopen_s>();
    for (const std::string &name : set->Names())
        (void)core->faults.FailEvery(name, ERROR_ACCESS_DENIED);

    EXPECT_EQ(System::RegOpenKeyExW::Replacement(HKEY_CURRENT_USER, L"", 0, KEY_READ, nullptr), ERROR_ACCESS_DENIED);
    SetLastError(0);
    EXPECT_EQ(System::CreateFileW::Replacement(L"x", 0, 0, nullptr, 0, 0, nullptr), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(System::GetFileAttributesW::Replacement(L"C:\\"), INVALID_FILE_ATTRIBUTES);
    SetLastError(0);
    EXPECT_EQ(System::CreateEventW::Replacement(nullptr, FALSE, FALSE, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_FALSE(System::DeleteFileW::Replacement(L"x"));
    EXPECT_EQ(System::SHGetFolderPathW::Replacement(nullptr, 0, nullptr, 0, nullptr), E_ACCESSDENIED);
    errno = 0;
    EXPECT_EQ(System::_wfopen::Replacement(L"x", L"r"), nullptr);
    EXPECT_EQ(errno, ERROR_ACCESS_DENIED);
    EXPECT_EQ(System::fopen_s::Replacement(nullptr, "x", "r"), ERROR_ACCESS_DENIED);
}

TEST_F(SimulatedFunctions, FailTheCallThatThePlanNames) {
    set->PassThrough<System::RegOpenKeyExW>();
    AttachProgram({"RegOpenKeyExW"});
    const auto plan = core->faults.FailNth("RegOpenKeyExW", 2, ERROR_ACCESS_DENIED);
    EXPECT_EQ(OpenSoftware(), ERROR_SUCCESS);
    EXPECT_EQ(OpenSoftware(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(OpenSoftware(), ERROR_SUCCESS);
    EXPECT_TRUE(plan->Hit());
}

TEST_F(SimulatedFunctions, KeepTheLastErrorThatTheCallerHad) {
    set->PassThrough<Chosen::GetVersion>();
    SetLastError(1234);
    (void)Chosen::GetVersion::Replacement();
    EXPECT_EQ(GetLastError(), 1234U);
}

TEST_F(SimulatedFunctions, ReturnTheLastErrorOfTheRealFunction) {
    set->PassThrough<System::GetFileAttributesW>();
    SetLastError(0);
    EXPECT_EQ(System::GetFileAttributesW::Replacement(L"C:\\no such file"), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(SimulatedFunctions, RunTheirLayersFromTheOutermostInwards) {
    std::string order;
    set->Put<Chosen::GetVersion>(
        [&order](const auto &next) {
            order += "watch ";
            return next() + 1;
        },
        Depth::Watch);
    set->Put<Chosen::GetVersion>([&order](const auto &) -> DWORD {
        order += "machine ";
        return 10;
    });
    set->Put<Chosen::GetVersion>([&order](const auto &next) {
        order += "later machine ";
        return next() * 2;
    });
    EXPECT_EQ(Chosen::GetVersion::Replacement(), 21U);
    EXPECT_EQ(order, "watch later machine machine ");
}

TEST_F(SimulatedFunctions, DoNotRecordWhatTheirLayersCall) {
    set->PassThrough<Chosen::GetCurrentProcessId>();
    bool realIsOutside = false;
    set->Put<Chosen::GetVersion>([&realIsOutside](const auto &next) {
        EXPECT_TRUE(InsideSimulator::Here());
        const DWORD version = next();
        {
            const OutsideSimulator outside;
            realIsOutside = !InsideSimulator::Here();
        }
        return version + 0 * ProcessId();
    });
    AttachProgram({"GetVersion", "GetCurrentProcessId"});
    EXPECT_NE(GetVersion(), 0U);
    EXPECT_EQ(core->journal.Names(), std::vector<std::string>{"GetVersion"});
    EXPECT_TRUE(realIsOutside);
    EXPECT_FALSE(InsideSimulator::Here());
    (void)ProcessId();
    EXPECT_EQ(core->journal.Count("GetCurrentProcessId"), 1U);
}

TEST_F(SimulatedFunctions, AffectModulesThatWereAttachedBefore) {
    AttachProgram({"GetCurrentProcessId"});
    set->Put<Chosen::GetCurrentProcessId>([](const auto &) -> DWORD { return 4711; });
    EXPECT_EQ(ProcessId(), 4711U);
    set->Detach(ThisProgram());
    EXPECT_NE(ProcessId(), 4711U);
}

TEST_F(SimulatedFunctions, AffectTheCallsOfAnotherLibrary) {
    set->Put<System::Sleep>([](const auto &, DWORD) {});
    ASSERT_GT(set->Attach(WxLibrary()), 0U);
    wxMilliSleep(20000);
    EXPECT_EQ(core->journal.Count("Sleep"), 1U);
    EXPECT_EQ(core->journal.Entries().back().arguments, "20000");
}

TEST_F(SimulatedFunctions, CannotBeAddedTwice) {
    const SimulatedFunction function{"KERNEL32.dll", "GetVersion", nullptr};
    set->Add(function);
    EXPECT_TRUE(set->Knows("GetVersion"));
    EXPECT_FALSE(set->Knows("GetVersionExW"));
    EXPECT_THROW(set->Add(function), std::logic_error);
}

TEST_F(SimulatedFunctions, BelongToOneSetAtATime) {
    EXPECT_THROW(FunctionSet(std::make_shared<Core>()), std::logic_error);
    set->Put<Chosen::GetVersion>([](const auto &) -> DWORD { return 4711; });
    EXPECT_EQ(Chosen::GetVersion::Replacement(), 4711U) << "the attempt has done no harm";
}

TEST_F(SimulatedFunctions, AreReturnedByGetProcAddress) {
    set->Put<Chosen::GetSystemDefaultLangID>([](const auto &) -> LANGID { return 4711; });
    AttachProgram({"GetProcAddress"});
    const HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
    const auto found = reinterpret_cast<LANGID(WINAPI *)()>(
        reinterpret_cast<void *>(GetProcAddress(kernel, "GetSystemDefaultLangID")));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found(), 4711);
    EXPECT_EQ(core->journal.Count("GetProcAddress"), 1U);
}

TEST_F(SimulatedFunctions, AreReturnedByTheGetProcAddressOfWx) {
    set->Put<Chosen::GetSystemDefaultLangID>([](const auto &) -> LANGID { return 4711; });
    set->Attach(WxLibrary());
    wxDynamicLibrary kernel(wxS("kernel32.dll"));
    const auto found = reinterpret_cast<LANGID(WINAPI *)()>(kernel.GetSymbol(wxS("GetSystemDefaultLangID")));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found(), 4711);
}

TEST_F(SimulatedFunctions, AreReturnedByGetProcAddressIfTheSystemHasNone) {
    set->Put<Newer::GetAnswerToEverything>([](const auto &) -> DWORD { return 42; });
    AttachProgram({"GetProcAddress"});
    const auto found = reinterpret_cast<DWORD(WINAPI *)()>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "GetAnswerToEverything")));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found(), 42U);
}

TEST_F(SimulatedFunctions, FailIfTheSystemHasNoneAndNoLayerReplacesIt) {
    set->PassThrough<Newer::GetAnswerToEverything>();
    EXPECT_EQ(Newer::GetAnswerToEverything::Replacement(), 0U);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PROC_NOT_FOUND));
}

TEST_F(SimulatedFunctions, AreNotReturnedByGetProcAddressForAnotherLibrary) {
    set->PassThrough<System::Sleep>();
    AttachProgram({"GetProcAddress"});
    const HMODULE user = LoadLibraryW(L"user32.dll");
    EXPECT_EQ(GetProcAddress(user, "Sleep"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PROC_NOT_FOUND));
    FreeLibrary(user);
}

TEST_F(SimulatedFunctions, DoNotAffectOrdinalsAndUnknownNamesInGetProcAddress) {
    AttachProgram({"GetProcAddress"});
    const HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
    const FARPROC real = FindRealFunction("kernel32.dll", "GetVersion");
    ASSERT_NE(real, nullptr);
    EXPECT_EQ(GetProcAddress(kernel, "GetVersion"), real);
    EXPECT_EQ(GetProcAddress(kernel, MAKEINTRESOURCEA(0xFFFF)), nullptr);
}

TEST_F(SimulatedFunctions, CanBeAttachedAgainWhenTheModuleIsReloaded) {
    set->PassThrough<System::Sleep>();
    LibraryCopy library(L"libwinpthread-1.dll");
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        const HMODULE module = library.Load();
        ASSERT_NE(module, nullptr);
        void *const real = *FindSlot(module, "Sleep");
        EXPECT_NE(real, reinterpret_cast<void *>(&System::Sleep::Replacement)) << "a fresh module";
        ASSERT_GT(set->Attach(module), 0U);
        EXPECT_EQ(*FindSlot(module, "Sleep"), reinterpret_cast<void *>(&System::Sleep::Replacement));
        EXPECT_EQ(set->Attach(module), set->Attach(module)) << "doing it again changes nothing";
        library.Unload();
        ASSERT_EQ(GetModuleHandleW(library.Name().c_str()), nullptr);
        EXPECT_EQ(set->Attach(module), 0U) << "it is gone";
    }
}

TEST_F(SimulatedFunctions, AreAttachedToAnAwaitedModuleBeforeItsConstructorsRun) {
    set->Add({kCRuntime, "malloc", reinterpret_cast<void *>(&CountedMalloc)});
    set->Add({kCRuntime, "calloc", reinterpret_cast<void *>(&CountedCalloc)});
    LibraryCopy library(L"libwinpthread-1.dll");
    HMODULE attached = nullptr;
    set->OnAttach([&](HMODULE module) { attached = module; });
    set->AttachWhenLoaded(library.Name());
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        attached = nullptr;
        allocations = 0;
        const HMODULE module = library.Load();
        ASSERT_NE(module, nullptr);
        EXPECT_EQ(attached, module);
        EXPECT_GT(allocations, 0U) << "its start registers functions for its end, which takes memory";
        library.Unload();
    }
}

TEST_F(SimulatedFunctions, HangUntilReleased) {
    set->PassThrough<Chosen::GetVersion>();
    const auto plan = core->faults.HangNth("GetVersion", 1);
    DWORD answer = 0;
    const TestThread thread([&answer] { answer = Chosen::GetVersion::Replacement(); });
    ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
    EXPECT_TRUE(thread.Runs());
    EXPECT_EQ(Chosen::GetVersion::Replacement(), Chosen::GetVersion::Real()) << "the second call does not hang";
    core->faults.ReleaseHung();
    ASSERT_TRUE(thread.Join(kPatienceMs));
    EXPECT_EQ(answer, Chosen::GetVersion::Real());
}

TEST_F(SimulatedFunctions, HangUntilTheThreadIsKilled) {
    set->PassThrough<Chosen::GetVersion>();
    const auto plan = core->faults.HangEvery("GetVersion");
    const TestThread thread([] { (void)Chosen::GetVersion::Replacement(); });
    ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
    ASSERT_TRUE(thread.Runs());
    ASSERT_TRUE(TerminateThread(thread.Handle(), 17));
    ASSERT_TRUE(thread.Join(kPatienceMs));
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread.Handle(), &code));
    EXPECT_EQ(code, 17U);
    plan->Release();
    EXPECT_EQ(Chosen::GetVersion::Replacement(), Chosen::GetVersion::Real()) << "no lock was left taken";
    EXPECT_EQ(core->journal.Count("GetVersion"), 2U);
}

TEST_F(SimulatedFunctions, ReleaseHangingCallsWhenTheSetEnds) {
    int modelled = 0;
    set->Put<Chosen::GetVersion>([&modelled](const auto &) -> DWORD {
        ++modelled;
        return 4711;
    });
    const auto plan = core->faults.HangEvery("GetVersion");
    DWORD answer = 0;
    const TestThread thread([&answer] { answer = Chosen::GetVersion::Replacement(); });
    ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
    set.reset();
    ASSERT_TRUE(thread.Join(kPatienceMs));
    EXPECT_EQ(answer, Chosen::GetVersion::Real());
    EXPECT_EQ(modelled, 0) << "the models have gone with the set";
}

TEST_F(SimulatedFunctions, AnswerLateByTheSimulatedClock) {
    set->PassThrough<Chosen::GetVersion>();
    (void)core->faults.DelayEvery("GetVersion", 60'000);
    core->clock.Step();
    const TestThread thread([] { (void)Chosen::GetVersion::Replacement(); });
    ASSERT_TRUE(core->clock.AwaitWaiting(1, kPatienceMs));
    core->clock.Advance(std::chrono::seconds(59));
    EXPECT_TRUE(thread.Runs());
    core->clock.Advance(std::chrono::seconds(1));
    EXPECT_TRUE(thread.Join(kPatienceMs));
}

TEST_F(SimulatedFunctions, MayFailOneByOneUntilARunMeetsNoFault) {
    set->PassThrough<System::RegOpenKeyExW>();
    set->PassThrough<System::RegQueryValueExW>();
    set->PassThrough<System::RegCloseKey>();
    AttachProgram({"RegOpenKeyExW", "RegQueryValueExW", "RegCloseKey"});
    const auto work = [] {
        HKEY key = nullptr;
        if (RegOpenKeyExW(HKEY_CURRENT_USER, L"Software", 0, KEY_READ, &key) != ERROR_SUCCESS)
            return 0;
        const LSTATUS query = RegQueryValueExW(key, L"no such value", nullptr, nullptr, nullptr, nullptr);
        return RegCloseKey(key) != ERROR_SUCCESS ? 3 : query == ERROR_ACCESS_DENIED ? 2 : 1;
    };
    std::vector<int> ways;
    for (unsigned nth = 1;; ++nth) {
        const auto plan = core->faults.FailNthOfAny(nth, ERROR_ACCESS_DENIED);
        ways.push_back(work());
        core->faults.Clear();
        if (!plan->Hit())
            break;
    }
    EXPECT_EQ(ways, (std::vector<int>{0, 2, 3, 1}));
}
