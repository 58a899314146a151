#include "Balance.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <direct.h>
#include <process.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <malloc.h>
#include <wx/string.h>

#include "FunctionSet.h"
#include "SimulatorTestSupport.h"
#include "WindowsFunctions.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

// Through volatile pointers, since the compiler may optimise an unused block away.
void *(*volatile Allocate)(std::size_t) = [](std::size_t size) { return std::malloc(size); };
void (*volatile Release)(void *) = [](void *block) { std::free(block); };
void *(*volatile Resize)(void *, std::size_t) = [](void *block, std::size_t size) {
    return std::realloc(block, size);  // NOLINT: the block is the caller's
};
char *(*volatile New)(std::size_t) = [](std::size_t size) { return new char[size]; };
void (*volatile Delete)(char *) = [](char *block) { delete[] block; };

class Balanced : public ::testing::Test {
protected:
    Balanced() {
        InstallBalance(set, balance);
        set.OnAttach([this](HMODULE module) { balance.Remember(module); });
        for (const wchar_t *library : {L"libstdc++-6.dll", L"libwinpthread-1.dll", L"libgcc_s_seh-1.dll"})
            set.Attach(GetModuleHandleW(library));
        set.Attach(WxLibrary());
        set.Attach(ThisProgram());
        balance.Start();
    }
    ~Balanced() override { balance.Stop(); }

    [[nodiscard]] std::size_t LeftSince(const BalanceSnapshot &before, std::string_view kind) const {
        const InsideSimulator inside;
        std::size_t count = 0;
        for (const BalanceItem &item : Balance::Left(before, balance.Take()))
            count += item.kind == kind ? 1U : 0U;
        return count;
    }
    [[nodiscard]] std::string Difference(const BalanceSnapshot &before) const {
        return balance.Difference(before, balance.Take());
    }

    std::shared_ptr<Core> core = std::make_shared<Core>();
    FunctionSet set{core};
    Balance &balance = Balance::Instance();
};

}  // namespace

TEST_F(Balanced, CountsABlockUntilItIsFreed) {
    const BalanceSnapshot before = balance.Take();
    void *block = Allocate(100);
    const BalanceSnapshot during = balance.Take();
    EXPECT_EQ(during.blocks - before.blocks, 1U);
    EXPECT_EQ(during.bytes - before.bytes, 100U);
    Release(block);
    const BalanceSnapshot after = balance.Take();
    EXPECT_EQ(after.blocks, before.blocks);
    EXPECT_EQ(after.bytes, before.bytes);
    EXPECT_EQ(Difference(before), "");
}

TEST_F(Balanced, ReportsWhatIsLeft) {
    const BalanceSnapshot before = balance.Take();
    void *block = Allocate(123);
    const std::string difference = Difference(before);
    const std::vector<BalanceItem> left = Balance::Left(before, balance.Take());
    Release(block);
    ASSERT_EQ(left.size(), 1U);
    EXPECT_EQ(left[0].size, 123U);
    EXPECT_EQ(left[0].sequence, before.sequence);
    EXPECT_EQ(left[0].thread, GetCurrentThreadId());
    const std::string start = "+ block of 123 bytes, #" + std::to_string(before.sequence) + ", by malloc from ";
    EXPECT_EQ(difference.substr(0, start.size()), start);
    EXPECT_NE(difference.find(".exe+0x"), std::string::npos) << difference;
    EXPECT_EQ(difference.find('\n'), difference.size() - 1) << "one line";
}

TEST_F(Balanced, ReportsWhatWasReleased) {
    void *block = Allocate(123);
    const BalanceSnapshot before = balance.Take();
    Release(block);
    const std::string difference = Difference(before);
    EXPECT_EQ(difference.substr(0, 23), "- block of 123 bytes, #");
    EXPECT_TRUE(Balance::Left(before, balance.Take()).empty());
}

TEST_F(Balanced, NamesAModuleThatWasUnloadedMeanwhile) {
    LibraryCopy library(L"libwinpthread-1.dll");
    set.AttachWhenLoaded(library.Name());
    const BalanceSnapshot before = balance.Take();
    ASSERT_NE(library.Load(), nullptr);
    const BalanceSnapshot during = balance.Take();
    library.Unload();
    const std::string difference = balance.Difference(before, during);
    EXPECT_NE(difference.find(" from fc-devkit-copy-"), std::string::npos) << difference;
}

TEST_F(Balanced, FollowsABlockThroughRealloc) {
    const BalanceSnapshot before = balance.Take();
    char *block = static_cast<char *>(Resize(nullptr, 10));
    std::strcpy(block, "text");
    block = static_cast<char *>(Resize(block, 100'000));
    EXPECT_STREQ(block, "text");
    EXPECT_EQ(balance.Take().bytes - before.bytes, 100'000U);
    block = static_cast<char *>(Resize(block, 5));
    EXPECT_STREQ(block, "text");
    EXPECT_EQ(balance.Take().blocks - before.blocks, 1U);
    EXPECT_EQ(balance.Take().bytes - before.bytes, 5U);
    EXPECT_EQ(Resize(block, 0), nullptr);
    EXPECT_EQ(balance.Take().blocks, before.blocks);
}

TEST_F(Balanced, CountsAllKindsOfAllocation) {
    const BalanceSnapshot before = balance.Take();
    void *(*volatile zeroed)(std::size_t, std::size_t) = [](std::size_t n, std::size_t size) {
        return std::calloc(n, size);
    };
    auto *cleared = static_cast<unsigned char *>(zeroed(10, 10));
    EXPECT_EQ(cleared[0] + cleared[99], 0);
    char *narrow = _strdup("abc");
    wchar_t *wide = _wcsdup(L"abcd");
    void *aligned = _aligned_malloc(50, 64);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(aligned) % 64, 0U);
    aligned = _aligned_realloc(aligned, 60, 64);
    void *heap = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, 70);
    heap = HeapReAlloc(GetProcessHeap(), 0, heap, 80);
    char *made = New(90);
    const BalanceSnapshot during = balance.Take();
    EXPECT_STREQ(narrow, "abc");
    EXPECT_STREQ(wide, L"abcd");
    EXPECT_EQ(during.blocks - before.blocks, 6U);
    EXPECT_EQ(during.bytes - before.bytes, 100U + 4 + 10 + 60 + 80 + 90);
    Release(cleared);
    Release(narrow);
    Release(wide);
    _aligned_free(aligned);
    EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, heap));
    Delete(made);
    EXPECT_EQ(Difference(before), "");
}

TEST_F(Balanced, ReportsWhoCalledNew) {
    const BalanceSnapshot before = balance.Take();
    char *made = New(1'000);
    const std::string difference = Difference(before);
    Delete(made);
    EXPECT_NE(difference.find("by operator new from "), std::string::npos) << difference;
    EXPECT_NE(difference.find(".exe+0x"), std::string::npos) << difference;
}

TEST_F(Balanced, CountsWhatWxAllocates) {
    const BalanceSnapshot before = balance.Take();
    {
        const wxString text(wxS('x'), 5'000);
        EXPECT_GE(balance.Take().bytes - before.bytes, 10'000U);
    }
    EXPECT_EQ(Difference(before), "");
}

TEST_F(Balanced, PassesForeignBlocksToTheRealFunctions) {
    void *block = nullptr;
    {
        const InsideSimulator inside;
        block = Allocate(100);
    }
    const BalanceSnapshot before = balance.Take();
    block = Resize(block, 200);
    EXPECT_EQ(_msize(block), 200U);
    Release(block);
    char *directory = _getcwd(nullptr, 0);  // allocated within the C runtime
    EXPECT_NE(directory, nullptr);
    Release(directory);
    Release(nullptr);
    EXPECT_EQ(Difference(before), "");
}

TEST_F(Balanced, RemembersThePeak) {
    balance.ResetPeak();
    const BalanceSnapshot before = balance.Take();
    EXPECT_EQ(before.peakBytes, before.bytes);
    Release(Allocate(1'000'000));
    EXPECT_EQ(balance.Take().peakBytes - before.bytes, 1'000'000U);
    balance.ResetPeak();
    EXPECT_EQ(balance.Take().peakBytes, before.bytes);
}

TEST_F(Balanced, DoesNotCountTheSimulatorItself) {
    set.PassThrough<System::GetTickCount>();
    const BalanceSnapshot before = balance.Take();
    for (int i = 0; i < 100; ++i)
        (void)System::GetTickCount::Replacement();
    EXPECT_EQ(core->journal.Count("GetTickCount"), 100U);
    (void)core->faults.FailEvery("f", 1);
    (void)core->journal.Take();
    EXPECT_EQ(Difference(before), "");
}

TEST_F(Balanced, CountsHandles) {
    const BalanceSnapshot before = balance.Take();
    std::vector<HANDLE> handles;
    {
        handles.push_back(CreateEventW(nullptr, FALSE, FALSE, nullptr));
        handles.push_back(CreateMutexW(nullptr, FALSE, nullptr));
        handles.push_back(CreateSemaphoreW(nullptr, 0, 1, nullptr));
        handles.push_back(CreateFileW(L"NUL", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        handles.push_back(OpenProcess(SYNCHRONIZE, FALSE, GetCurrentProcessId()));
        handles.push_back(OpenThread(SYNCHRONIZE, FALSE, GetCurrentThreadId()));
        const auto nothing = [](void *) -> DWORD { return 0; };
        handles.push_back(CreateThread(nullptr, 0, nothing, nullptr, 0, nullptr));
        const auto alsoNothing = [](void *) -> unsigned { return 0; };
        handles.push_back(reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, alsoNothing, nullptr, 0, nullptr)));
        HANDLE token = nullptr;
        ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
        handles.push_back(token);
        HANDLE copy = nullptr;
        ASSERT_TRUE(
            DuplicateHandle(GetCurrentProcess(), token, GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS));
        handles.push_back(copy);
    }
    EXPECT_EQ(LeftSince(before, Kind::kHandle), 10U);
    for (const HANDLE handle : handles)
        EXPECT_TRUE(CloseHandle(handle));
    EXPECT_EQ(LeftSince(before, Kind::kHandle), 0U);
}

TEST_F(Balanced, DoesNotCountFailedAllocations) {
    const BalanceSnapshot before = balance.Take();
    EXPECT_EQ(CreateFileW(L"C:\\no\\such", 0, 0, nullptr, OPEN_EXISTING, 0, nullptr), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(OpenProcess(SYNCHRONIZE, FALSE, 0xFFFF'FFF0U), nullptr);
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExW(HKEY_CURRENT_USER, L"no\\such", 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(balance.Take().items.size(), before.items.size());
}

TEST_F(Balanced, KeepsCountingAHandleThatWasNotClosed) {
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const BalanceSnapshot before = balance.Take();
    (void)core->faults.FailNth("CloseHandle", 1, ERROR_INVALID_HANDLE);
    EXPECT_FALSE(CloseHandle(event));
    EXPECT_EQ(balance.Take().Count(Kind::kHandle), before.Count(Kind::kHandle));
    EXPECT_TRUE(CloseHandle(event));
    EXPECT_EQ(before.Count(Kind::kHandle) - balance.Take().Count(Kind::kHandle), 1U);
}

TEST_F(Balanced, CountsRegistryKeys) {
    const BalanceSnapshot before = balance.Take();
    HKEY software = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_CURRENT_USER, L"Software", 0, KEY_ALL_ACCESS, &software), ERROR_SUCCESS);
    HKEY same = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, L"Software", 0, nullptr, 0, KEY_READ, nullptr, &same, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(LeftSince(before, Kind::kKey), 2U);
    EXPECT_NE(Difference(before).find("+ key, #"), std::string::npos);
    RegCloseKey(software);
    EXPECT_EQ(LeftSince(before, Kind::kKey), 1U);
    RegCloseKey(same);
    EXPECT_EQ(Difference(before), "");
}

TEST_F(Balanced, DoesNotCountPredefinedKeys) {
    const BalanceSnapshot before = balance.Take();
    HKEY key = nullptr;
    ASSERT_EQ(RegConnectRegistryW(nullptr, HKEY_LOCAL_MACHINE, &key), ERROR_SUCCESS);
    if (key == HKEY_LOCAL_MACHINE)
        EXPECT_EQ(LeftSince(before, Kind::kKey), 0U);
    else
        EXPECT_EQ(LeftSince(before, Kind::kKey), 1U);
    RegCloseKey(key);
    EXPECT_EQ(Difference(before), "");
}

TEST_F(Balanced, CountsEachReferenceToALibrary) {
    const BalanceSnapshot before = balance.Take();
    const HMODULE first = LoadLibraryW(L"version.dll");
    const HMODULE second = LoadLibraryExW(L"version.dll", nullptr, 0);
    ASSERT_EQ(first, second);
    HMODULE third = nullptr;
    ASSERT_TRUE(GetModuleHandleExW(0, L"version.dll", &third));
    HMODULE unchanged = nullptr;
    ASSERT_TRUE(GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT, L"version.dll", &unchanged));
    EXPECT_EQ(LeftSince(before, Kind::kLibrary), 3U);
    FreeLibrary(first);
    FreeLibrary(second);
    EXPECT_EQ(LeftSince(before, Kind::kLibrary), 1U);
    FreeLibrary(third);
    EXPECT_EQ(Difference(before), "");
}

TEST_F(Balanced, CountsFilesAndSearches) {
    const BalanceSnapshot before = balance.Take();
    FILE *narrow = fopen("NUL", "r");
    FILE *wide = _wfopen(L"NUL", L"r");
    FILE *checked = nullptr;
    ASSERT_EQ(fopen_s(&checked, "NUL", "r"), 0);
    ASSERT_TRUE(narrow != nullptr && wide != nullptr);
    WIN32_FIND_DATAW found{};
    const HANDLE search = FindFirstFileW(L"C:\\*", &found);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    EXPECT_EQ(LeftSince(before, Kind::kFile), 3U);
    EXPECT_EQ(LeftSince(before, Kind::kFind), 1U);
    EXPECT_EQ(fclose(narrow), 0);
    EXPECT_EQ(fclose(wide), 0);
    EXPECT_EQ(fclose(checked), 0);
    EXPECT_TRUE(FindClose(search));
    EXPECT_EQ(Difference(before), "");
}

TEST_F(Balanced, CountsTheResourcesOfAModel) {
    const BalanceSnapshot before = balance.Take();
    balance.Opened("service", 17, "OpenServiceW");
    EXPECT_EQ(balance.Take().Count("service"), 1U);
    EXPECT_FALSE(balance.Closed("service", 18));
    EXPECT_TRUE(balance.Closed("service", 17));
    EXPECT_FALSE(balance.Closed("service", 17));
    EXPECT_EQ(Difference(before), "");
}

TEST_F(Balanced, FailsTheNthAllocation) {
    const auto fault = balance.FailAllocation(2, nullptr, GetCurrentThreadId());
    void *first = Allocate(10);
    EXPECT_FALSE(fault->Hit());
    errno = 0;
    void *second = Allocate(10);
    const int error = errno;
    void *third = Allocate(10);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(error, ENOMEM);
    EXPECT_NE(third, nullptr);
    EXPECT_TRUE(fault->Hit());
    Release(first);
    Release(third);
}

TEST_F(Balanced, FailsNewWithAnException) {
    (void)balance.FailAllocation(1, ThisProgram());
    bool thrown = false;
    try {
        Delete(New(10));
    } catch (const std::bad_alloc &) {
        thrown = true;
    }
    EXPECT_TRUE(thrown);
    const BalanceSnapshot before = balance.Take();
    Delete(New(10));
    EXPECT_EQ(Difference(before), "");
}

TEST_F(Balanced, KeepsABlockThatCouldNotGrow) {
    char *block = static_cast<char *>(Allocate(10));
    std::strcpy(block, "text");
    const BalanceSnapshot before = balance.Take();
    (void)balance.FailAllocation(1, nullptr, GetCurrentThreadId());
    EXPECT_EQ(Resize(block, 1'000'000), nullptr);
    EXPECT_STREQ(block, "text");
    EXPECT_EQ(Difference(before), "");
    Release(block);
}

TEST_F(Balanced, FailsAllocationsOfTheNamedModuleOnly) {
    const auto fault = balance.FailAllocation(1, WxLibrary());
    void *block = Allocate(10);
    EXPECT_NE(block, nullptr);
    Release(block);
    EXPECT_FALSE(fault->Hit());
    balance.CancelAllocationFaults();
    const wxString text(wxS('x'), 5'000);
    EXPECT_FALSE(fault->Hit()) << "cancelled";
}

TEST_F(Balanced, DoesNotFailOperatorNewIfItDoesNotCount) {
    const auto fault = balance.FailAllocation(1, nullptr, GetCurrentThreadId(), false);
    void *const fromNew = New(10);
    EXPECT_FALSE(fault->Hit());
    Delete(static_cast<char *>(fromNew));
    EXPECT_EQ(Allocate(10), nullptr);
    EXPECT_TRUE(fault->Hit());
}

TEST_F(Balanced, FailsAllocationsOfTheNamedThreadOnly) {
    const auto fault = balance.FailAllocation(1, nullptr, GetCurrentThreadId());
    void *other = nullptr;
    {
        const TestThread thread([&other] { other = Allocate(10); });
        ASSERT_TRUE(thread.Join(kPatienceMs));
    }
    EXPECT_NE(other, nullptr);
    Release(other);
    balance.CancelAllocationFaults();
    EXPECT_FALSE(fault->Hit());
}

TEST_F(Balanced, HandlesHundredsOfThousandsOfCallsInSeconds) {
    const BalanceSnapshot before = balance.Take();
    const double begin = ProcessorMs();
    std::vector<void *> blocks(1'000);
    for (std::size_t i = 0; i < 300'000; ++i) {
        Release(blocks[i % blocks.size()]);
        blocks[i % blocks.size()] = Allocate(i % 500);
    }
    const double took = ProcessorMs() - begin;
    EXPECT_GT(took, 0);
    EXPECT_LT(took, 3'000);
    for (void *block : blocks)
        Release(block);
    blocks = std::vector<void *>();
    EXPECT_EQ(balance.Take().blocks, before.blocks);
}

TEST_F(Balanced, CountsCorrectlyUnderManyThreads) {
    const BalanceSnapshot before = balance.Take();
    {
        const auto work = [] {
            for (std::size_t i = 0; i < 20'000; ++i)
                Release(Resize(Allocate(i % 300 + 1), i % 700 + 1));
        };
        const TestThread first(work);
        const TestThread second(work);
        const TestThread third(work);
    }
    EXPECT_EQ(balance.Take().blocks, before.blocks);
    EXPECT_EQ(balance.Take().bytes, before.bytes);
}
