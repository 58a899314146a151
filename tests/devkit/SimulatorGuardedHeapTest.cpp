#include "GuardedHeap.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <malloc.h>
#include <wx/string.h>

#include "Simulation.h"
#include "SimulatorTestSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

bool IsOpen(const void *address) {
    MEMORY_BASIC_INFORMATION info{};
    EXPECT_NE(VirtualQuery(address, &info, sizeof info), 0U);
    return info.State == MEM_COMMIT && (info.Protect & PAGE_READWRITE) != 0;
}

bool IsReserved(const void *address) {
    MEMORY_BASIC_INFORMATION info{};
    EXPECT_NE(VirtualQuery(address, &info, sizeof info), 0U);
    return info.State == MEM_RESERVE;
}

/// Ends a child process with the code of its exception, without a debugger.
void ExitByException() {
    SetUnhandledExceptionFilter([](EXCEPTION_POINTERS *pointers) -> LONG {
        (void)fputs("exception\n", stderr);
        (void)fflush(stderr);
        TerminateProcess(GetCurrentProcess(), pointers->ExceptionRecord->ExceptionCode & 0xFF);
        return EXCEPTION_EXECUTE_HANDLER;
    });
}
constexpr int kAccessViolation = 0x05;

void *(*volatile Allocate)(std::size_t) = [](std::size_t size) { return std::malloc(size); };
void (*volatile Release)(void *) = [](void *block) { std::free(block); };
void *(*volatile Resize)(void *, std::size_t) = [](void *block, std::size_t size) {
    return std::realloc(block, size);  // NOLINT: the block is the caller's
};
void (*volatile Write)(void *, std::size_t) = [](void *block, std::size_t offset) {
    static_cast<volatile char *>(block)[offset] = 'x';
};

/// The guarded heap behind the counted functions, in this program and its libraries.
class GuardedSimulation : public ::testing::Test {
protected:
    GuardedSimulation() {
        simulation->Attach(GetModuleHandleW(L"libstdc++-6.dll"));
        simulation->Attach(WxLibrary());
        simulation->Attach(ThisProgram());
    }
    std::unique_ptr<Simulation> simulation =
        std::make_unique<Simulation>(SimulationParts{.registry = false, .folders = false, .balance = true});
    Balance &balance = Balance::Instance();
};

}  // namespace

TEST(GuardedHeap, ProtectsThePageAfterABlock) {
    GuardedHeap heap;
    for (const std::size_t size : {std::size_t{1}, std::size_t{16}, std::size_t{100}, std::size_t{4096},
                                   std::size_t{4097}, std::size_t{100'000}}) {
        SCOPED_TRACE(size);
        char *block = static_cast<char *>(heap.Allocate(size, 0));
        ASSERT_NE(block, nullptr);
        std::memset(block, 1, size);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0U);
        EXPECT_TRUE(IsOpen(block));
        EXPECT_TRUE(IsOpen(block + size - 1));
        EXPECT_FALSE(IsOpen(block + (size + 15) / 16 * 16));
        heap.Free(block, size);
    }
}

TEST(GuardedHeap, ProtectsTheNextByteWithAlignmentOne) {
    GuardedHeap heap;
    heap.Use({.alignment = 1});
    char *block = static_cast<char *>(heap.Allocate(5, 0));
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(IsOpen(block + 4));
    EXPECT_FALSE(IsOpen(block + 5));
    heap.Free(block, 5);
}

TEST(GuardedHeap, RespectsARequestedAlignment) {
    GuardedHeap heap;
    void *block = heap.Allocate(100, 256);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 256, 0U);
    heap.Free(block, 100);
}

TEST(GuardedHeap, ProtectsFreedPagesAndDoesNotReuseThem) {
    GuardedHeap heap;
    std::vector<void *> freed;
    for (int i = 0; i < 100; ++i) {
        void *block = heap.Allocate(64, 0);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(std::count(freed.begin(), freed.end(), block), 0);
        heap.Free(block, 64);
        freed.push_back(block);
    }
    for (const void *block : freed)
        EXPECT_TRUE(IsReserved(block)) << "closed, its memory given back";
}

TEST(GuardedHeap, GivesEvenEmptyBlocksUniqueAddresses) {
    GuardedHeap heap;
    void *first = heap.Allocate(0, 0);
    void *second = heap.Allocate(0, 0);
    EXPECT_NE(first, second);
    EXPECT_FALSE(IsOpen(first));
    heap.Free(first, 0);
    heap.Free(second, 0);
}

TEST(GuardedHeap, FillsFreshBlocks) {
    GuardedHeap heap;
    auto *block = static_cast<unsigned char *>(heap.Allocate(10, 0));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block[0], 0xA5);
    EXPECT_EQ(block[9], 0xA5);
    heap.Free(block, 10);
}

TEST(GuardedHeap, FailsForAnAbsurdSize) {
    GuardedHeap heap;
    EXPECT_EQ(heap.Allocate(SIZE_MAX - 100, 0), nullptr);
}

TEST(GuardedHeapDeathTest, FaultsWhenWrittenBeyondTheEnd) {
    EXPECT_EXIT(
        {
            ExitByException();
            GuardedHeap heap;
            Write(heap.Allocate(16, 0), 16);
            std::exit(0);
        },
        testing::ExitedWithCode(kAccessViolation), "exception");
}

TEST(GuardedHeapDeathTest, FaultsWhenUsedAfterFree) {
    EXPECT_EXIT(
        {
            ExitByException();
            GuardedHeap heap;
            void *block = heap.Allocate(16, 0);
            heap.Free(block, 16);
            Write(block, 0);
            std::exit(0);
        },
        testing::ExitedWithCode(kAccessViolation), "exception");
}

TEST(GuardedHeapDeathTest, FindsASmallOverrunWhenTheBlockIsFreed) {
    EXPECT_EXIT(
        {
            GuardedHeap heap;
            void *block = heap.Allocate(10, 0);
            Write(block, 10);
            heap.Free(block, 10);
            std::exit(0);
        },
        testing::ExitedWithCode(GuardedHeap::kDamaged), "wrote beyond the end of a block; its bytes: 10");
}

TEST(GuardedHeapDeathTest, EndsTheProcessWhenItsAddressesAreUsedUp) {
    EXPECT_EXIT(
        {
            GuardedHeap heap;
            heap.Use({.alignment = 16, .addressSpaceBytes = 1 << 20});
            for (int i = 0; i < 1'000; ++i)
                heap.Free(heap.Allocate(64, 0), 64);
            std::exit(0);
        },
        testing::ExitedWithCode(GuardedHeap::kUsedUp), "used up its address space, bytes: 1048576");
}

TEST(GuardedHeapDeathTest, EndsTheProcessWhenTheSystemHasNoMorePages) {
    EXPECT_EXIT(
        {
            // Committing fails as it does when the system runs out of memory.
            const Redirection redirection(
                ThisProgram(), "VirtualAlloc",
                reinterpret_cast<void *>(+[](void *, SIZE_T, DWORD, DWORD) -> void * { return nullptr; }));
            GuardedHeap heap;
            (void)heap.Allocate(64, 0);
            std::exit(0);
        },
        testing::ExitedWithCode(GuardedHeap::kUsedUp), "the system has no more pages; blocks alive: 0");
}

TEST_F(GuardedSimulation, GuardsBlocksWhileItIsSwitchedOn) {
    void *before = Allocate(64);
    balance.Guard({});
    void *during = Allocate(64);
    const std::size_t guarded = balance.GuardedBlocks();
    balance.StopGuarding();
    void *after = Allocate(64);
    EXPECT_FALSE(IsOpen(static_cast<char *>(during) + 64));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(during) % 4096, 4096U - 64);
    EXPECT_GE(guarded, 1U);
    Release(before);
    Release(after);
    Release(during);
    EXPECT_TRUE(IsReserved(during));
    EXPECT_EQ(balance.GuardedBlocks(), guarded - 1);
}

TEST_F(GuardedSimulation, SupportsAllAllocationFunctionsOfTheRuntime) {
    const BalanceSnapshot before = balance.Take();
    balance.Guard({});
    auto *cleared = static_cast<unsigned char *>(std::calloc(3, 33));
    ASSERT_NE(cleared, nullptr);
    EXPECT_EQ(cleared[0] + cleared[98], 0);
    EXPECT_EQ(_msize(cleared), 99U);
    char *text = _strdup("abcdef");
    text = static_cast<char *>(Resize(text, 3));
    EXPECT_EQ(std::memcmp(text, "abc", 3), 0);
    text = static_cast<char *>(Resize(text, 50'000));
    EXPECT_EQ(std::memcmp(text, "abc", 3), 0);
    void *aligned = _aligned_malloc(50, 128);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(aligned) % 128, 0U);
    aligned = _aligned_realloc(aligned, 300, 128);
    {
        const wxString wide = wxString(wxS('x'), 1'000) + wxS("y");
        EXPECT_EQ(wide.length(), 1'001U);
        const std::string narrow(1'000, 'x');
        EXPECT_EQ(narrow.size(), 1'000U);
    }
    balance.StopGuarding();
    Release(cleared);
    Release(text);
    _aligned_free(aligned);
    EXPECT_EQ(balance.Difference(before, balance.Take()), "");
}

TEST_F(GuardedSimulation, MovesAnUnguardedBlockThatGrows) {
    char *block = static_cast<char *>(Allocate(10));
    std::strcpy(block, "text");
    balance.Guard({});
    block = static_cast<char *>(Resize(block, 32));
    balance.StopGuarding();
    EXPECT_STREQ(block, "text");
    EXPECT_FALSE(IsOpen(block + 32));
    Release(block);
}

TEST_F(GuardedSimulation, CanStillBeFreedWhenTheSimulationHasEnded) {
    balance.Guard({});
    void *block = Allocate(64);
    balance.StopGuarding();
    simulation.reset();
    ASSERT_TRUE(IsOpen(block));
    Release(block);
    EXPECT_TRUE(IsReserved(block));
}

TEST(GuardedHeapSpeed, HandlesTensOfThousandsOfBlocksInSeconds) {
    GuardedHeap heap;
    const double begin = ProcessorMs();
    std::vector<void *> blocks(1'000);
    for (std::size_t i = 0; i < 30'000; ++i) {
        if (void *old = blocks[i % blocks.size()])
            heap.Free(old, 100);
        blocks[i % blocks.size()] = heap.Allocate(100, 0);
    }
    for (void *block : blocks)
        heap.Free(block, 100);
    const double took = ProcessorMs() - begin;
    EXPECT_GT(took, 0);
    EXPECT_LT(took, 5'000);
}
