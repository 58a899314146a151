// Simulated time: a steady clock, and a wall clock that can be set apart from it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "Lock.h"
#include "SimulatedTime.h"
#include "Turns.h"

namespace Simulator {

class Event;
class FunctionSet;
struct Core;

/// Starts with the real time and speed. It replaces the ticks, the performance counter, the wall clock, the sleeps, and
/// the waits with a timeout (see InstallClock). Any thread.
class Clock {
public:
    /// What makes a stepped clock advance by itself.
    enum class AutoAdvance {
        None,            ///< Only Advance.
        Sleeps,          ///< A sleep advances the clock to its end, and returns at once.
        SleepsAndWaits,  ///< So does a wait with a timeout whose handles stay unsignalled for kGraceMs.
    };
    static constexpr DWORD kGraceMs = 20;
    static constexpr DWORD kFollowerMs = 5;

    Clock();

    /// Time runs so many times faster than real time, from 1; sleeps and timeouts are shortened accordingly.
    void RunFast(unsigned factor);
    /// Time stands still until it is advanced.
    void Step(AutoAdvance autoAdvance = AutoAdvance::None);
    /// Time stands still until it is advanced, or until all threads that take turns wait; it is the same in
    /// each run. The calling thread takes part, and so do those that it makes: see Turns and InstallTurns.
    /// @param unixSeconds  the initial time of day.
    void TakeTurns(std::int64_t unixSeconds);
    [[nodiscard]] Turns &GetTurns() { return m_turns; }
    /// Advances time, in any mode. Threads whose wait is over wake up within some real milliseconds.
    void Advance(Interval by);

    /// The thread follows what others do by polling: its sleeps don't advance a stepped clock. They end at their time,
    /// or after kFollowerMs of real time.
    /// @param threadId  0 for none, the default.
    void SetFollower(DWORD threadId);
    /// Advances time if the follower sleeps, or if there is none: so it does not change between two of the follower's
    /// readings.
    /// @return whether it did.
    [[nodiscard]] bool AdvanceIfFollowerSleeps(Interval by);

    /// Sets the wall clock, even backwards; ticks and waits are not affected.
    /// @param fileTime  100 ns units since 1601, UTC.
    void SetWallClock(std::uint64_t fileTime);
    /// @param seconds  since 1970, UTC.
    void SetWallClockUnix(std::int64_t seconds);
    /// Sets the result of GetTickCount64; GetTickCount returns its lower half.
    void SetTick(std::uint64_t milliseconds);

    [[nodiscard]] std::uint64_t TickMs() const;
    [[nodiscard]] std::uint64_t WallFileTime() const;
    [[nodiscard]] std::int64_t WallUnix() const;
    [[nodiscard]] std::int64_t PerformanceCounter() const;

    /// Waits for simulated milliseconds, on behalf of a delayed call.
    void SleepFor(DWORD milliseconds);

    enum class Purpose { Sleep, Wait };
    /// Waits according to the mode.
    /// @param timeoutMs  simulated milliseconds. 0 and INFINITE are passed to `real` unchanged.
    /// @param real       waits for some real milliseconds; WAIT_TIMEOUT if nothing else ended the wait.
    DWORD Wait(DWORD timeoutMs, Purpose purpose, const std::function<DWORD(DWORD)> &real);

    /// Waits until the event is set, or until the clock ends if the thread takes turns. The event must outlive the
    /// wait, also that of a thread that is killed.
    void WaitFor(const Event &event);

    /// Is called once, when a wait on a fast clock has ended so late that the program must take the delay for one of
    /// its own: the real machine is too slow for that speed.
    /// @param tell  gets the delay in simulated time; any thread. Set before anybody waits.
    void OnLate(std::function<void(Interval)> tell) { m_tellLate = std::move(tell); }
    static constexpr Interval kTooLate = std::chrono::seconds(10);

    /// Number of living threads in a timed wait.
    [[nodiscard]] std::size_t Waiting() const;
    /// Waits until there are at least so many, so that a test knows for whom it advances the clock.
    /// @return false after so many real milliseconds.
    [[nodiscard]] bool AwaitWaiting(std::size_t threads, DWORD realTimeoutMs) const;

    /// Ends all waits, as if they had timed out. For the end of a simulation.
    void End();

private:
    struct Slice {
        DWORD realMs;
        bool last;
    };
    /// Copied before it is used: the lock is held only for the copy, since a waiting thread may be killed.
    struct State {
        unsigned factor = 1;  ///< 0 when stepped.
        AutoAdvance autoAdvance = AutoAdvance::None;
        bool ended = false;
        Interval realBase{};
        Interval base{};
        Interval wallOffset{};
        Interval tickOffset{};

        [[nodiscard]] Interval Now() const;
        void Rebase();
    };
    [[nodiscard]] State Read() const;
    [[nodiscard]] Interval Now() const { return Read().Now(); }
    void AdvanceTo(Interval time);
    [[nodiscard]] Slice SliceUntil(Interval deadline) const;
    DWORD WaitUntil(Interval deadline, const std::function<DWORD(DWORD)> &real) const;
    void FollowUntil(Interval deadline);
    DWORD WaitInTurn(DWORD timeoutMs, Purpose purpose, const std::function<DWORD(DWORD)> &real);
    void NoteLateness(Interval deadline);
    void SetFollowerSleeps(bool sleeps);

    mutable Lock m_lock;
    State m_state;
    std::atomic<DWORD> m_follower{0};
    bool m_followerSleeps = false;
    std::multiset<DWORD> m_waiting;
    Turns m_turns;
    std::function<void(Interval)> m_tellLate;
    std::atomic<bool> m_wasLate{false};
};

/// Puts the clock under these functions: Sleep, SleepEx, WaitForSingleObject, WaitForSingleObjectEx,
/// WaitForMultipleObjects, WaitForMultipleObjectsEx, GetTickCount, GetTickCount64, GetSystemTimeAsFileTime,
/// GetSystemTimePreciseAsFileTime, GetSystemTime, GetLocalTime, QueryPerformanceCounter and _time64.
///
/// What a module's constructors read of the time while it is loaded passes by its own import table, unless
/// it was named to FunctionSet::AttachWhenLoaded. Otherwise redirect the C runtime, from which they have it:
/// Attach(GetModuleHandleW(L"msvcrt.dll"), {"GetSystemTimeAsFileTime"}). With Wine's msvcrt, too, this is an
/// import like any other. Name the function: all of the runtime's imports are not meant.
void InstallClock(FunctionSet &functions, Clock &clock);

/// Puts the turns of the core's clock under the functions that make, suspend and kill threads, and under
/// EnterCriticalSection: CreateThread, _beginthreadex, SuspendThread, ResumeThread, TerminateThread.
void InstallTurns(FunctionSet &functions, const std::shared_ptr<Core> &core);

}  // namespace Simulator
