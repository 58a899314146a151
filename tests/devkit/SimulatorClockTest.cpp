#include "Clock.h"

#include <atomic>
#include <chrono>
#include <ctime>
#include <memory>

#include <gtest/gtest.h>
#include <wx/stopwatch.h>
#include <wx/thread.h>
#include <wx/time.h>
#include <wx/utils.h>

#include "FunctionSet.h"
#include "SimulatorTestSupport.h"
#include "WindowsFunctions.h"

using namespace Simulator;
using namespace SimulatorTest;
using namespace std::chrono_literals;

namespace {

/// Reads and waits with the real functions.
class RealTime {
public:
    [[nodiscard]] double ElapsedMs() const { return double(Now() - m_begin) / 1e4; }

private:
    static std::int64_t Now() {
        const InsideSimulator inside;
        LARGE_INTEGER counter{};
        LARGE_INTEGER frequency{};
        QueryPerformanceCounter(&counter);
        QueryPerformanceFrequency(&frequency);
        return counter.QuadPart * 10'000'000 / frequency.QuadPart;
    }
    std::int64_t m_begin = Now();
};

std::uint64_t FileTimeNow(void(WINAPI *read)(FILETIME *)) {
    FILETIME time{};
    read(&time);
    return std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

std::uint64_t FileTimeNow() {
    FILETIME time{};
    GetSystemTimeAsFileTime(&time);
    return std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

/// What the real clocks report.
struct RealReadings {
    static RealReadings Now() {
        const InsideSimulator inside;
        return {double(GetTickCount64()), double(FileTimeNow(&GetSystemTimeAsFileTime)) / 1e4};
    }
    double tickMs;
    double wallMs;
};

/// The time functions of this program and of wxWidgets are redirected.
class SimulatedClock : public ::testing::Test {
protected:
    SimulatedClock() {
        // Below the clock: how long and how often it really waits. The sums are rounded up, wait by wait.
        set.Put<System::Sleep>([this](const auto &next, DWORD ms) {
            realMs += ms;
            ++realWaits;
            next(ms);
        });
        set.Put<System::WaitForSingleObject>([this](const auto &next, HANDLE handle, DWORD ms) {
            realMs += ms;
            ++realWaits;
            return next(handle, ms);
        });
        InstallClock(set, clock);
        const std::set<std::string> names = set.Names();
        set.Attach(ThisProgram(), names);
        set.Attach(WxLibrary());
    }

    /// Whether the thread's wait goes on with the time that the stepped clock has now. No other thread may wait.
    bool WaitsOn(const TestThread &thread) {
        // One real wait may have been decided on before, and the next may be the last, which ends at once.
        const unsigned enough = realWaits + 3;
        return Eventually([&] { return realWaits >= enough || thread.Join(0); }) && realWaits >= enough;
    }

    const RealReadings realBefore = RealReadings::Now();
    const RealTime real;  ///< Since before the clock was created.
    std::atomic<DWORD> realMs{0};
    std::atomic<unsigned> realWaits{0};
    std::shared_ptr<Core> core = std::make_shared<Core>();
    Clock &clock = core->clock;
    FunctionSet set{core};
};

std::int64_t CounterMs() {
    LARGE_INTEGER counter{};
    LARGE_INTEGER frequency{};
    QueryPerformanceCounter(&counter);
    QueryPerformanceFrequency(&frequency);
    return counter.QuadPart * 1000 / frequency.QuadPart;
}

class TestEvent {
public:
    TestEvent() : m_event(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {}
    ~TestEvent() { CloseHandle(m_event); }
    TestEvent(const TestEvent &) = delete;
    TestEvent &operator=(const TestEvent &) = delete;
    [[nodiscard]] HANDLE Handle() const { return m_event; }

private:
    HANDLE m_event;
};

}  // namespace

TEST_F(SimulatedClock, StartsAtTheRealTime) {
    const auto tick = double(GetTickCount64());
    const double wall = double(FileTimeNow()) / 1e4;
    const auto seconds = double(_time64(nullptr));
    // The system may update its clocks late, but it does not set them back.
    const double elapsed = real.ElapsedMs();
    const RealReadings after = RealReadings::Now();
    EXPECT_GE(tick, realBefore.tickMs - 1);
    EXPECT_LE(tick, after.tickMs + elapsed + 1);
    EXPECT_GE(wall, realBefore.wallMs - 1);
    EXPECT_LE(wall, after.wallMs + elapsed + 1);
    EXPECT_GE(seconds, realBefore.wallMs / 1e3 - 11644473600.0 - 1);
    EXPECT_LE(seconds, (after.wallMs + elapsed) / 1e3 - 11644473600.0);
    const RealTime sleeping;
    Sleep(50);
    EXPECT_GE(sleeping.ElapsedMs(), 49);
    EXPECT_EQ(core->journal.Count("Sleep"), 1U);
}

TEST_F(SimulatedClock, SleepsLessInFastMode) {
    clock.RunFast(50);
    const RealTime sleeping;
    const std::uint64_t begin = GetTickCount64();
    Sleep(10'000);
    const std::uint64_t slept = GetTickCount64() - begin;
    EXPECT_GE(sleeping.ElapsedMs(), 190);
    EXPECT_LE(realMs, 210U);
    EXPECT_GE(slept, 9'999U);
}

TEST_F(SimulatedClock, KeepsTheRatioOfAllItsReadingsInFastMode) {
    clock.RunFast(20);
    const RealTime outer;  // from before the first readings to after the last
    const std::uint64_t tick = GetTickCount64();
    const std::uint64_t wall = FileTimeNow();
    const std::int64_t counter = CounterMs();
    const RealTime inner;
    {
        const InsideSimulator inside;
        Sleep(100);
    }
    const double least = inner.ElapsedMs() * 20 - 2;
    const double passed[] = {double(GetTickCount64() - tick), double(FileTimeNow() - wall) / 1e4,
                             double(CounterMs() - counter)};
    const double most = outer.ElapsedMs() * 20 + 2;
    for (const double ms : passed) {
        EXPECT_GE(ms, least);
        EXPECT_LE(ms, most);
    }
}

TEST_F(SimulatedClock, TimesOutSoonerInFastMode) {
    clock.RunFast(50);
    const TestEvent event;
    const RealTime waiting;
    EXPECT_EQ(WaitForSingleObject(event.Handle(), 5'000), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_GE(waiting.ElapsedMs(), 95);
    EXPECT_LE(realMs, 110U);
}

TEST_F(SimulatedClock, EndsAWaitWhenTheHandleIsSignalled) {
    const TestEvent event;
    SetEvent(event.Handle());
    EXPECT_EQ(WaitForSingleObject(event.Handle(), 60'000), static_cast<DWORD>(WAIT_OBJECT_0));
    SetEvent(event.Handle());
    EXPECT_EQ(WaitForSingleObjectEx(event.Handle(), 60'000, FALSE), static_cast<DWORD>(WAIT_OBJECT_0));
    const TestEvent other;
    const HANDLE both[] = {other.Handle(), event.Handle()};
    SetEvent(event.Handle());
    EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 60'000), WAIT_OBJECT_0 + 1);
    SetEvent(event.Handle());
    EXPECT_EQ(WaitForMultipleObjectsEx(2, both, FALSE, 60'000, FALSE), WAIT_OBJECT_0 + 1);
}

TEST_F(SimulatedClock, StandsStillWhenStepped) {
    clock.Step();
    const std::uint64_t tick = GetTickCount64();
    const std::uint64_t wall = FileTimeNow();
    const std::int64_t counter = CounterMs();
    {
        const InsideSimulator inside;
        Sleep(30);
    }
    EXPECT_EQ(GetTickCount64(), tick);
    EXPECT_EQ(FileTimeNow(), wall);
    EXPECT_EQ(CounterMs(), counter);
}

TEST_F(SimulatedClock, AdvancesAllReadingsTogether) {
    clock.Step();
    const std::uint64_t tick = GetTickCount64();
    const DWORD tick32 = GetTickCount();
    const std::uint64_t wall = FileTimeNow();
    const __time64_t seconds = _time64(nullptr);
    const std::int64_t counter = CounterMs();
    clock.Advance(3h);
    EXPECT_EQ(GetTickCount64() - tick, 10'800'000U);
    EXPECT_EQ(GetTickCount() - tick32, 10'800'000U);
    EXPECT_EQ(FileTimeNow() - wall, 108'000'000'000U);
    EXPECT_EQ(_time64(nullptr) - seconds, 10'800);
    EXPECT_NEAR(double(CounterMs() - counter), 10'800'000, 1);
}

TEST_F(SimulatedClock, WakesASteppedSleepWhenItsTimeHasCome) {
    clock.Step();
    const TestThread thread([] { Sleep(60'000); });
    ASSERT_TRUE(clock.AwaitWaiting(1, kPatienceMs));
    clock.Advance(59'999ms);
    EXPECT_TRUE(WaitsOn(thread));
    clock.Advance(1ms);
    EXPECT_TRUE(thread.Join(kPatienceMs));
    EXPECT_EQ(clock.Waiting(), 0U);
}

TEST_F(SimulatedClock, DecidesTheTimeoutOfASteppedWait) {
    clock.Step();
    const TestEvent event;
    std::atomic<DWORD> result{99};
    const TestThread thread([&] { result = WaitForSingleObject(event.Handle(), 30'000); });
    ASSERT_TRUE(clock.AwaitWaiting(1, kPatienceMs));
    EXPECT_TRUE(WaitsOn(thread));
    clock.Advance(30s);
    ASSERT_TRUE(thread.Join(kPatienceMs));
    EXPECT_EQ(result, static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST_F(SimulatedClock, EndsASteppedWaitWhenTheHandleIsSignalled) {
    clock.Step();
    const TestEvent event;
    std::atomic<DWORD> result{99};
    const TestThread thread([&] { result = WaitForSingleObject(event.Handle(), 30'000); });
    ASSERT_TRUE(clock.AwaitWaiting(1, kPatienceMs));
    SetEvent(event.Handle());
    ASSERT_TRUE(thread.Join(kPatienceMs));
    EXPECT_EQ(result, static_cast<DWORD>(WAIT_OBJECT_0));
}

TEST_F(SimulatedClock, PollsWithoutWaitingWhenTheTimeoutIsZero) {
    clock.Step();
    const TestEvent event;
    EXPECT_EQ(WaitForSingleObject(event.Handle(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
    Sleep(0);
    SetEvent(event.Handle());
    EXPECT_EQ(WaitForSingleObject(event.Handle(), INFINITE), static_cast<DWORD>(WAIT_OBJECT_0));
}

TEST_F(SimulatedClock, AdvancesBySleepsIfConfigured) {
    clock.Step(Clock::AutoAdvance::Sleeps);
    const std::uint64_t tick = GetTickCount64();
    for (int i = 0; i < 24; ++i)
        Sleep(3'600'000);
    EXPECT_EQ(SleepEx(1'000, FALSE), 0U);
    EXPECT_EQ(GetTickCount64() - tick, 86'401'000U);
    EXPECT_EQ(realMs, 0U);
}

TEST_F(SimulatedClock, AdvancesForAFollowerOnlyWhileItSleeps) {
    clock.Step();
    EXPECT_TRUE(clock.AdvanceIfFollowerSleeps(1s)) << "there is none";
    const std::uint64_t tick = GetTickCount64();
    std::atomic<bool> follows{false};
    std::atomic<bool> ends{false};
    const TestThread thread([&] {
        clock.SetFollower(GetCurrentThreadId());
        for (follows = true; !ends;)
            Sleep(250);
    });
    EXPECT_TRUE(Eventually([&] { return follows && clock.AdvanceIfFollowerSleeps(60s); }));
    EXPECT_EQ(GetTickCount64() - tick, 60'000U);
    ends = true;
    ASSERT_TRUE(thread.Join(kPatienceMs));
    EXPECT_FALSE(clock.AdvanceIfFollowerSleeps(60s));
    EXPECT_EQ(GetTickCount64() - tick, 60'000U) << "its sleeps have moved nothing";
}

TEST_F(SimulatedClock, AdvancesByWaitsIfConfigured) {
    clock.Step(Clock::AutoAdvance::SleepsAndWaits);
    const TestEvent event;
    const std::uint64_t tick = GetTickCount64();
    EXPECT_EQ(WaitForSingleObject(event.Handle(), 600'000), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(GetTickCount64() - tick, 600'000U);
    SetEvent(event.Handle());
    EXPECT_EQ(WaitForSingleObject(event.Handle(), 600'000), static_cast<DWORD>(WAIT_OBJECT_0));
    EXPECT_EQ(GetTickCount64() - tick, 600'000U) << "a signalled handle takes no time";
}

TEST_F(SimulatedClock, ReturnsFromAnAlertableSleepForACallback) {
    clock.Step();
    static std::atomic<bool> called;
    called = false;
    std::atomic<DWORD> result{99};
    const TestThread thread([&] { result = SleepEx(60'000, TRUE); });
    ASSERT_TRUE(clock.AwaitWaiting(1, kPatienceMs));
    ASSERT_NE(QueueUserAPC([](ULONG_PTR) { called = true; }, thread.Handle(), 0), 0U);
    ASSERT_TRUE(thread.Join(kPatienceMs));
    EXPECT_EQ(result, static_cast<DWORD>(WAIT_IO_COMPLETION));
    EXPECT_TRUE(called);
}

TEST_F(SimulatedClock, FailsAWaitOnABadHandle) {
    EXPECT_EQ(WaitForSingleObject(nullptr, 1'000), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

TEST_F(SimulatedClock, SetsTheWallClockBackWithoutTouchingTicks) {
    clock.Step();
    const std::uint64_t tick = GetTickCount64();
    const std::int64_t counter = CounterMs();
    clock.SetWallClockUnix(1'000'000'000);
    EXPECT_EQ(_time64(nullptr), 1'000'000'000);
    __time64_t stored = 0;
    (void)_time64(&stored);
    EXPECT_EQ(stored, 1'000'000'000);
    EXPECT_EQ(FileTimeNow(), (1'000'000'000U + 11'644'473'600U) * 10'000'000U);
    EXPECT_EQ(GetTickCount64(), tick);
    EXPECT_EQ(CounterMs(), counter);
    clock.SetWallClock(116'444'736'000'000'000U);
    EXPECT_EQ(_time64(nullptr), 0);
}

TEST_F(SimulatedClock, DoesNotWakeSleepersByTheWallClock) {
    clock.Step();
    const TestThread thread([] { Sleep(1'000); });
    ASSERT_TRUE(clock.AwaitWaiting(1, kPatienceMs));
    clock.SetWallClockUnix(4'000'000'000);
    EXPECT_TRUE(WaitsOn(thread));
    clock.Advance(1s);
    EXPECT_TRUE(thread.Join(kPatienceMs));
}

TEST_F(SimulatedClock, ReportsTheCalendarTime) {
    clock.Step();
    clock.SetWallClockUnix(1'000'000'000);
    SYSTEMTIME time{};
    GetSystemTime(&time);
    EXPECT_EQ(time.wYear, 2001);
    EXPECT_EQ(time.wMonth, 9);
    EXPECT_EQ(time.wDay, 9);
    EXPECT_EQ(time.wHour, 1);
    EXPECT_EQ(time.wMinute, 46);
    EXPECT_EQ(time.wSecond, 40);
    SYSTEMTIME local{};
    GetLocalTime(&local);
    SYSTEMTIME back{};
    ASSERT_TRUE(TzSpecificLocalTimeToSystemTime(nullptr, &local, &back));
    EXPECT_EQ(back.wHour, 1);
    EXPECT_EQ(back.wSecond, 40);
}

TEST_F(SimulatedClock, WrapsThe32BitTick) {
    clock.Step();
    clock.SetTick(0xFFFF'FFFFU - 500U);
    const DWORD before = GetTickCount();
    EXPECT_EQ(before, 0xFFFF'FFFFU - 500U);
    clock.Advance(1s);
    EXPECT_EQ(GetTickCount(), 499U);
    EXPECT_EQ(GetTickCount() - before, 1'000U);
    EXPECT_EQ(GetTickCount64(), 0x1'0000'01F3U);
}

TEST_F(SimulatedClock, NoticesAChangeOfModeWithinASleep) {
    clock.Step();
    const TestThread thread([] { Sleep(60'000); });
    ASSERT_TRUE(clock.AwaitWaiting(1, kPatienceMs));
    clock.RunFast(10'000);
    EXPECT_TRUE(thread.Join(kPatienceMs));
}

TEST_F(SimulatedClock, ContinuesFromTheSameTimeWhenTheModeChanges) {
    clock.RunFast(1'000);
    {
        const InsideSimulator inside;
        Sleep(20);
    }
    const RealTime sinceFast;
    const std::uint64_t fast = GetTickCount64();
    clock.Step();
    const double fastMs = sinceFast.ElapsedMs();
    const std::uint64_t stepped = GetTickCount64();
    EXPECT_GE(stepped, fast);
    EXPECT_LE(double(stepped - fast), fastMs * 1'000 + 1);
    const RealTime sinceOrdinary;
    clock.RunFast(1);
    const std::uint64_t ordinary = GetTickCount64();
    EXPECT_LE(double(ordinary - stepped), sinceOrdinary.ElapsedMs() + 1);
}

TEST_F(SimulatedClock, DoesNotCountAKilledThreadAsWaiting) {
    clock.Step();
    const TestThread thread([] { Sleep(60'000); });
    ASSERT_TRUE(clock.AwaitWaiting(1, kPatienceMs));
    ASSERT_TRUE(TerminateThread(thread.Handle(), 0));
    ASSERT_TRUE(thread.Join(kPatienceMs));
    EXPECT_EQ(clock.Waiting(), 0U);
    const TestThread next([] { Sleep(1'000); });
    ASSERT_TRUE(clock.AwaitWaiting(1, kPatienceMs));
    clock.Advance(1s);
    EXPECT_TRUE(next.Join(kPatienceMs)) << "no lock was left taken";
}

TEST_F(SimulatedClock, ReportsWhenNobodyWaits) {
    EXPECT_FALSE(clock.AwaitWaiting(1, 10));
}

TEST_F(SimulatedClock, AppliesToWx) {
    clock.Step(Clock::AutoAdvance::Sleeps);
    clock.SetWallClockUnix(1'000'000'000);
    const wxStopWatch watch;
    wxSleep(3600);
    EXPECT_EQ(watch.Time(), 3'600'000);
    EXPECT_EQ(wxGetUTCTime(), 1'000'003'600);
    EXPECT_EQ(wxGetUTCTimeMillis(), wxLongLong(1'000'003'600) * 1000);
    wxThread::Sleep(5'000);
    EXPECT_EQ(watch.Time(), 3'605'000);
}

TEST_F(SimulatedClock, EndsTheWaitOfAWxSemaphore) {
    clock.Step();
    wxSemaphore semaphore;
    std::atomic<int> result{-1};
    const TestThread thread([&] { result = semaphore.WaitTimeout(30'000); });
    ASSERT_TRUE(clock.AwaitWaiting(1, kPatienceMs));
    clock.Advance(30s);
    ASSERT_TRUE(thread.Join(kPatienceMs));
    EXPECT_EQ(result, wxSEMA_TIMEOUT);
}

TEST(Clock, EndsAllWaitsWithTheSimulation) {
    auto core = std::make_shared<Core>();
    auto set = std::make_unique<FunctionSet>(core);
    InstallClock(*set, core->clock);
    set->Attach(ThisProgram(), set->Names());
    core->clock.Step();
    const TestThread thread([] { Sleep(60'000); });
    ASSERT_TRUE(core->clock.AwaitWaiting(1, kPatienceMs));
    set.reset();
    EXPECT_TRUE(thread.Join(kPatienceMs));
}

TEST(Clock, AppliesToTheCRuntimeForModulesThatAreNotAttached) {
    __time64_t (*volatile now)() = [] { return _time64(nullptr); };
    const __time64_t real = now();
    {
        const auto core = std::make_shared<Core>();
        FunctionSet set(core);
        InstallClock(set, core->clock);
        core->clock.Step();
        core->clock.SetWallClockUnix(1'000'000'000);
        ASSERT_GT(set.Attach(GetModuleHandleA(kCRuntime), {"GetSystemTimeAsFileTime"}), 0U);
        EXPECT_EQ(now(), 1'000'000'000);
    }
    EXPECT_NEAR(double(now()), double(real), 5);
}
