// The agent's thread: its start, its waits, and all the ways in which it ends.
#include <atomic>
#include <bit>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "FunctionSet.h"
#include "WindowsFunctions.h"
#include "vta_core_control.h"

namespace {

using namespace VtaCore;
using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr DWORD kLongMs = 60'000;
constexpr unsigned kNormalPriority = 50;

/// Waits until the condition holds, at most kLongMs.
bool Eventually(const std::function<bool()> &condition) {
    for (DWORD waited = 0; waited < kLongMs; waited += 5) {
        if (condition())
            return true;
        Sleep(5);
    }
    return false;
}

/// What a thread did; survives a detached object.
struct Record {
    std::atomic<int> bodies{0};
    std::atomic<int> exits{0};
    std::atomic<int> kills{0};
    std::atomic<bool> runningInBody{false};
    std::atomic<bool> destroyed{false};
    std::atomic<DWORD> threadId{0};
};

class Worker : public CRunnable {
public:
    Worker(std::shared_ptr<Record> record, std::function<void(Worker &)> body, bool detached, bool suspended = false,
           int processor = -1)
        : CRunnable(suspended, processor, detached), m_record(std::move(record)), m_body(std::move(body)) {}
    ~Worker() override { m_record->destroyed = true; }

    const char *Name() const override { return "worker"; }

protected:
    void Run() override {
        m_record->threadId = GetCurrentThreadId();
        m_record->runningInBody = isRunning();
        ++m_record->bodies;
        m_body(*this);
    }
    void OnExit() override {
        ++m_record->exits;
        CRunnable::OnExit();
    }
    void OnKill() override {
        ++m_record->kills;
        CRunnable::OnKill();
    }

private:
    std::shared_ptr<Record> m_record;
    std::function<void(Worker &)> m_body;
};

class Runnable : public testing::Test {
protected:
    std::unique_ptr<Worker> Joinable(std::function<void(Worker &)> body, bool suspended = false) {
        return std::make_unique<Worker>(m_record, std::move(body), false, suspended);
    }

    void TearDown() override { EXPECT_EQ(Control::LiveObjects(), m_liveBefore) << "an object stayed"; }

    std::shared_ptr<Record> m_record = std::make_shared<Record>();
    int m_liveBefore = Control::LiveObjects();
};

void ReturnAtOnce(Worker &) {}

void WaitForTheEnd(Worker &worker) {
    while (!worker.TestDestroy(INFINITE, nullptr)) {
    }
}

void SleepForEver(Worker &) {
    Sleep(INFINITE);
}

/// Counts the waits for several events, which are those of its threads, while it lives.
class WaitsOfTheLibrary {
public:
    WaitsOfTheLibrary() {
        m_functions.PassThrough<Simulator::System::WaitForMultipleObjects>();
        EXPECT_EQ(m_functions.Attach(GetModuleHandleW(L"vta_core.dll"), {"WaitForMultipleObjects"}), 1U);
    }
    [[nodiscard]] std::size_t Begun() const { return m_core->journal.Count("WaitForMultipleObjects"); }

private:
    const std::shared_ptr<Simulator::Core> m_core = std::make_shared<Simulator::Core>();
    Simulator::FunctionSet m_functions{m_core};
};

TEST_F(Runnable, AJoinableThreadRunsItsBodyOnceAndStaysUntilItsOwnerDeletesIt) {
    auto worker = Joinable(&ReturnAtOnce);
    EXPECT_FALSE(worker->isRunning());
    EXPECT_FALSE(worker->IsDetached());
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    worker->Wait();
    EXPECT_FALSE(worker->isRunning());
    EXPECT_FALSE(m_record->destroyed);
    EXPECT_TRUE(m_record->runningInBody);
    EXPECT_EQ(m_record->bodies, 1);
    EXPECT_EQ(m_record->exits, 1);
    EXPECT_NE(m_record->threadId, GetCurrentThreadId());
    worker.reset();
    EXPECT_TRUE(m_record->destroyed);
}

TEST_F(Runnable, ADetachedThreadFreesItself) {
    auto *worker = new Worker(m_record, &ReturnAtOnce, true);
    EXPECT_TRUE(worker->IsDetached());
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    EXPECT_TRUE(Eventually([this] { return m_record->destroyed.load(); }));
    EXPECT_TRUE(Eventually([this] { return Control::LiveObjects() == m_liveBefore; }));
    EXPECT_EQ(m_record->bodies, 1);
    EXPECT_EQ(m_record->exits, 1);
}

TEST_F(Runnable, ManyDetachedThreadsEndCleanly) {
    constexpr int kThreads = 100;
    for (int i = 0; i < kThreads; ++i)
        ASSERT_TRUE((new Worker(m_record, &ReturnAtOnce, true))->start(kNormalPriority, true, 0));
    EXPECT_TRUE(Eventually([this] { return Control::LiveObjects() == m_liveBefore; }));
    EXPECT_EQ(m_record->bodies, kThreads);
}

TEST_F(Runnable, AnOwnerMayDeleteTheObjectAsSoonAsItIsNotRunning) {
    for (int i = 0; i < 100; ++i) {
        auto worker = Joinable(&ReturnAtOnce);
        ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
        while (worker->isRunning())
            std::this_thread::yield();
        worker.reset();
    }
    EXPECT_EQ(m_record->exits, 100);
}

TEST_F(Runnable, IsRunningFromItsStartUntilItsBodyReturns) {
    auto worker = Joinable(&WaitForTheEnd);
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    EXPECT_TRUE(worker->isRunning());
    worker->requestExit();
    worker->Wait();
    EXPECT_FALSE(worker->isRunning());
}

TEST_F(Runnable, CannotBeStartedTwice) {
    auto worker = Joinable(&WaitForTheEnd);
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    EXPECT_FALSE(worker->start(kNormalPriority, true, 0));
    EXPECT_TRUE(worker->isRunning());
    worker->Delete();
    EXPECT_EQ(m_record->bodies, 1);
}

TEST_F(Runnable, StartsAThreadThatWasCreatedBefore) {
    auto worker = Joinable(&ReturnAtOnce);
    ASSERT_EQ(worker->Create(0), wxTHREAD_NO_ERROR);
    ASSERT_TRUE(worker->start(kNormalPriority, false, 0));
    worker->Wait();
    EXPECT_EQ(m_record->bodies, 1);
}

TEST_F(Runnable, HasTheRequestedPriorityUpToTheHighest) {
    const std::pair<unsigned, int> priorities[] = {{0, THREAD_PRIORITY_LOWEST},
                                                   {50, THREAD_PRIORITY_NORMAL},
                                                   {100, THREAD_PRIORITY_HIGHEST},
                                                   {1000, THREAD_PRIORITY_HIGHEST}};
    for (const auto &[asked, expected] : priorities) {
        SCOPED_TRACE(asked);
        int found = -1;
        auto worker = Joinable([&found](Worker &) { found = GetThreadPriority(GetCurrentThread()); });
        ASSERT_TRUE(worker->start(asked, true, 0));
        worker->Wait();
        EXPECT_EQ(found, expected);
    }
}

TEST_F(Runnable, ReservesTheRequestedStack) {
    constexpr unsigned kStack = 8 * 1024 * 1024;
    constexpr std::size_t kUsed = 6 * 1024 * 1024;
    bool reached = false;
    auto worker = Joinable([&reached](Worker &) {
        volatile char block[kUsed];
        for (std::size_t i = 0; i < kUsed; i += 4096)
            block[i] = 1;
        reached = block[0] == 1;
    });
    ASSERT_TRUE(worker->start(kNormalPriority, true, kStack));
    worker->Wait();
    EXPECT_TRUE(reached);
}

TEST_F(Runnable, NamesItsThread) {
    using GetDescription = HRESULT(WINAPI *)(HANDLE, PWSTR *);
    const auto getDescription = reinterpret_cast<GetDescription>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"kernelbase.dll"), "GetThreadDescription")));
    if (getDescription == nullptr)
        GTEST_SKIP() << "this Windows keeps no names of threads";
    wxString name;
    HRESULT result = E_FAIL;
    auto worker = Joinable([&](Worker &) {
        PWSTR text = nullptr;
        result = getDescription(GetCurrentThread(), &text);
        if (SUCCEEDED(result))
            name = text;
        LocalFree(text);
    });
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    worker->Wait();
    if (result == E_NOTIMPL)
        GTEST_SKIP() << "this Wine keeps no names of threads";
    EXPECT_TRUE(SUCCEEDED(result));
    EXPECT_EQ(name, "worker");
}

TEST_F(Runnable, IsBoundToItsProcessor) {
    // The test program may itself be bound to one.
    DWORD_PTR ours = 0;
    DWORD_PTR all = 0;
    ASSERT_TRUE(GetProcessAffinityMask(GetCurrentProcess(), &ours, &all));
    ASSERT_TRUE(SetProcessAffinityMask(GetCurrentProcess(), all));
    const int processor = std::countr_zero(all);
    DWORD_PTR mask = 0;
    Worker worker(
        m_record,
        [&](Worker &) {
            mask = SetThreadAffinityMask(GetCurrentThread(), all);  // returns the previous mask
        },
        false, false, processor);
    ASSERT_TRUE(worker.start(kNormalPriority, true, 0));
    worker.Wait();
    EXPECT_EQ(mask, DWORD_PTR{1} << processor);
    EXPECT_TRUE(SetProcessAffinityMask(GetCurrentProcess(), ours));
}

TEST_F(Runnable, ASuspendedThreadWaitsForAwaken) {
    const WaitsOfTheLibrary waits;
    auto worker = Joinable(&ReturnAtOnce, true);
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    const auto hasBegunWaits = [&](std::size_t count) { return waits.Begun() == count || m_record->bodies != 0; };
    ASSERT_TRUE(Eventually([&] { return hasBegunWaits(1); }));
    worker->interrupt();
    ASSERT_TRUE(Eventually([&] { return hasBegunWaits(2); })) << "an interruption does not end the suspension";
    EXPECT_EQ(m_record->bodies, 0);
    EXPECT_TRUE(worker->isRunning());
    worker->Awaken();
    worker->Wait();
    EXPECT_EQ(m_record->bodies, 1);
    EXPECT_EQ(waits.Begun(), 2U);
}

TEST_F(Runnable, ASuspendedThreadThatIsToldToEndNeverRunsItsBody) {
    auto worker = Joinable(&ReturnAtOnce, true);
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    worker->Delete();
    EXPECT_EQ(m_record->bodies, 0);
    EXPECT_EQ(m_record->exits, 1);
    EXPECT_FALSE(worker->isRunning());
}

TEST_F(Runnable, RequestExitEndsTheWaitAndStaysInForce) {
    std::atomic<bool> before{true};
    std::atomic<bool> waiting{false};
    std::atomic<bool> asked{false};
    std::atomic<bool> interrupted{true};
    auto worker = Joinable([&](Worker &self) {
        before = self.TestDestroy();
        waiting = true;
        bool cut = true;
        asked = self.TestDestroy(INFINITE, &cut);
        interrupted = cut;
        EXPECT_TRUE(self.TestDestroy());
        EXPECT_TRUE(self.TestDestroy(INFINITE, nullptr)) << "no second wait";
    });
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    ASSERT_TRUE(Eventually([&waiting] { return waiting.load(); }));
    worker->requestExit();
    worker->Wait();
    EXPECT_FALSE(before);
    EXPECT_TRUE(asked);
    EXPECT_FALSE(interrupted);
}

/// The result of one wait of a thread.
struct WaitResult {
    bool destroy = true;
    bool interrupted = false;
};

TEST_F(Runnable, AwakenEndsOneWaitUninterrupted) {
    WaitResult first{true, true};
    WaitResult second{true, true};
    auto worker = Joinable([&](Worker &self) {
        first.destroy = self.TestDestroy(INFINITE, &first.interrupted);
        second.destroy = self.TestDestroy(20, &second.interrupted);
    });
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    worker->Awaken();
    worker->Wait();
    EXPECT_FALSE(first.destroy);
    EXPECT_FALSE(first.interrupted);
    EXPECT_FALSE(second.destroy);
    EXPECT_FALSE(second.interrupted);
}

TEST_F(Runnable, InterruptEndsOneWaitInterrupted) {
    WaitResult first;
    WaitResult second{true, true};
    auto worker = Joinable([&](Worker &self) {
        first.destroy = self.TestDestroy(INFINITE, &first.interrupted);
        second.destroy = self.TestDestroy(20, &second.interrupted);
    });
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    worker->interrupt();
    worker->Wait();
    EXPECT_FALSE(first.destroy);
    EXPECT_TRUE(first.interrupted);
    EXPECT_FALSE(second.destroy);
    EXPECT_FALSE(second.interrupted);
}

TEST_F(Runnable, AWaitThatNothingEndsLastsAsLongAsRequested) {
    milliseconds waited{0};
    bool destroy = true;
    auto worker = Joinable([&](Worker &self) {
        const auto start = steady_clock::now();  // the ticks of a busy system may be late
        destroy = self.TestDestroy(200, nullptr);
        waited = duration_cast<milliseconds>(steady_clock::now() - start);
    });
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    worker->Wait();
    EXPECT_FALSE(destroy);
    EXPECT_GE(waited.count(), 180);
}

TEST_F(Runnable, DeleteEndsAJoinableThread) {
    auto worker = Joinable(&WaitForTheEnd);
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    worker->Delete();
    EXPECT_FALSE(worker->isRunning());
    EXPECT_EQ(m_record->exits, 1);
    EXPECT_FALSE(m_record->destroyed);
}

TEST_F(Runnable, DeleteEndsADetachedThreadAndTheObject) {
    auto *worker = new Worker(m_record, &WaitForTheEnd, true);
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    worker->Delete();
    EXPECT_TRUE(m_record->destroyed);
    EXPECT_EQ(m_record->exits, 1);
}

TEST_F(Runnable, TheDeleteOfWxThreadEndsAWaitToo) {
    auto worker = Joinable(&WaitForTheEnd);
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    static_cast<wxThread &>(*worker).Delete();
    EXPECT_FALSE(worker->isRunning());
}

TEST_F(Runnable, AKilledJoinableThreadIsNotRunningAndCanBeDeleted) {
    auto worker = Joinable(&SleepForEver);
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    ASSERT_TRUE(Eventually([this] { return m_record->bodies == 1; }));
    EXPECT_EQ(worker->Kill(), wxTHREAD_NO_ERROR);
    EXPECT_FALSE(worker->isRunning());
    EXPECT_EQ(m_record->kills, 1);
    EXPECT_EQ(m_record->exits, 0);
    EXPECT_FALSE(m_record->destroyed);
}

TEST_F(Runnable, AKilledDetachedThreadIsFreed) {
    auto *worker = new Worker(m_record, &SleepForEver, true);
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    ASSERT_TRUE(Eventually([this] { return m_record->bodies == 1; }));
    EXPECT_EQ(worker->Kill(), wxTHREAD_NO_ERROR);
    EXPECT_EQ(m_record->kills, 1);
    EXPECT_TRUE(m_record->destroyed);
}

TEST_F(Runnable, CanBeKilledInTheMiddleOfItsWait) {
    auto worker = Joinable(&WaitForTheEnd);
    ASSERT_TRUE(worker->start(kNormalPriority, true, 0));
    ASSERT_TRUE(Eventually([this] { return m_record->bodies == 1; }));
    EXPECT_EQ(worker->Kill(), wxTHREAD_NO_ERROR);
    worker->Awaken();
    worker->requestExit();
    EXPECT_TRUE(worker->TestDestroy());
    EXPECT_FALSE(worker->isRunning());
}

#ifdef __GNUC__
/// Records which of its virtual functions is called.
class SlotProbe : public CRunnable {
public:
    SlotProbe() : CRunnable(false, -1, false) {}

    bool TestDestroy() override { return Note("TestDestroy()"); }
    void Delete() override { Note("Delete"); }
    const char *Name() const override { return called = "Name"; }
    void Awaken() override { Note("Awaken"); }
    void interrupt() override { Note("interrupt"); }
    void requestExit() override { Note("requestExit"); }
    bool TestDestroy(unsigned, bool *) override { return Note("TestDestroy(unsigned, bool *)"); }

    mutable const char *called = "nothing";

protected:
    void *Entry() override { return Note("Entry") ? this : nullptr; }
    void OnDelete() override { Note("OnDelete"); }
    void OnKill() override { Note("OnKill"); }
    void OnExit() override { Note("OnExit"); }
    void Run() override { Note("Run"); }

private:
    bool Note(const char *name) {
        called = name;
        return true;
    }
};

TEST_F(Runnable, ItsVirtualFunctionsHaveTheOrderOfTheCoreLibrary) {
    // This compiler gives a destructor two slots, 1 and 2 here.
    const std::pair<std::size_t, const char *> slots[] = {
        {0, "TestDestroy()"}, {3, "Entry"},        {4, "OnDelete"}, {5, "OnKill"},
        {6, "OnExit"},        {7, "Delete"},       {8, "Name"},     {9, "Awaken"},
        {10, "interrupt"},    {11, "requestExit"}, {13, "Run"},     {12, "TestDestroy(unsigned, bool *)"}};
    SlotProbe probe;
    using Operation = void *(*)(void *self, unsigned, bool *);
    const auto *table = *reinterpret_cast<const Operation *const *>(&probe);
    for (const auto &[slot, name] : slots) {
        probe.called = "nothing";
        table[slot](&probe, 0, nullptr);
        EXPECT_STREQ(probe.called, name) << "in slot " << slot;
    }
}
#endif

}  // namespace
