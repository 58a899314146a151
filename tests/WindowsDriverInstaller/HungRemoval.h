// A removal that hangs in one call, and the outcome when the limit of the top step has passed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "CallPlaces.h"
#include "HungCall.h"
#include "RemovalFixture.h"

/// The threads of a removal as fault plans number them, created on the caller's thread.
inline constexpr unsigned kCallerThread = 0;
inline constexpr unsigned kRemovingThread = 1;

/// The outcome; the thread is the worker.
struct Hang : HangResult {
    Removal removal;

    /// The lines of the log that show a stack.
    [[nodiscard]] std::vector<std::string> Stacks() const { return StacksIn(removal.log); }
};

/// Holds the caller in its first sleep until the worker hangs, so that the watcher's first poll finds the step in which
/// that happens, and the clock stands still up to there.
class HungRemoval : public RemovalFixture {
protected:
    /// What should become of the worker and its object, which decides how long to wait for their end.
    enum class Fate { Killed, KilledButKept, LivesOn };

    /// Hangs the call, moves the clock to the last millisecond before the deadline and then to it. A call whose thread
    /// survives is released in the end. No fault is left.
    /// @param nth         among the worker's calls.
    /// @param deadlineMs  simulated milliseconds from the beginning of the removal.
    Hang HangIn(const std::string &function, unsigned nth, std::uint64_t deadlineMs, Fate fate = Fate::Killed);

    /// For `meanwhile`: waits until the worker of the current removal has ended, for some real seconds at most.
    [[nodiscard]] bool AwaitEndOfWorker();

    /// Restores both drivers, without orphans.
    void PutRight();

    /// The calls of the worker of the last removal; none if there was no worker.
    [[nodiscard]] std::vector<Place> PlacesOf(const Removal &removal);

    HungCall hung{simulation(), returned};

    static constexpr wchar_t kMiniportKey[] = L"SYSTEM\\CurrentControlSet\\Enum\\Root\\QBIMVTA_MP";

private:
    /// The thread of the current removal; 0 before its first call.
    DWORD Worker();
    void PassTheTime(Hang &hang, const Simulator::BalanceSnapshot &before, std::uint64_t deadline);
    /// What was logged and reported after the return.
    void ForgetTheRest();

    const DWORD m_caller = GetCurrentThreadId();
};
