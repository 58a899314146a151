// Threads that take turns, so that what they do depends on the simulated time alone, and not on how busy the real
// machine is.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include <windows.h>

#include "Lock.h"
#include "SimulatedTime.h"

namespace Simulator {

/// One of the threads that take part has the turn, and runs; the others wait. It gives the turn away when it waits, and
/// when it ends: to the youngest thread whose wait is over by then, or that has yet to begin. If there is none, time
/// moves on to the end of the wait that ends first. So the same program does the same things at the same times in each
/// run.
///
/// While one has the turn, all others that take part are within one call of the system, or not yet begun: they hold no
/// lock of the system, so that they may be killed, and the stack of one that is paused is the same in each run.
///
/// A thread that is suspended, or was killed, gets no turn. Others than those that take part run as they like.
class Turns {
public:
    /// Whether the wait is over, be it that its handle is signalled. Called in the thread that waits.
    using Probe = std::function<bool()>;
    /// Moves time forward to the end of a wait; not backwards.
    using MoveTime = std::function<void(Interval)>;

    Turns() = default;
    ~Turns();
    Turns(const Turns &) = delete;
    Turns &operator=(const Turns &) = delete;

    /// The calling thread takes part from now on, and has the turn.
    void Begin(MoveTime moveTime);
    [[nodiscard]] bool TakesPart() const;

    /// A thread that the calling thread has made, suspended.
    void Add(HANDLE thread);
    /// In that thread, before it does anything else.
    void AwaitFirst();
    /// In that thread, when it has nothing left to do. Whoever gets the turn awaits its end.
    void Leave();
    void NoteSuspended(HANDLE thread);
    /// Waits until a thread that begins is ready for its first turn. Don't hold the loader's lock.
    void NoteResumed(HANDLE thread);

    /// @param until  nothing for a wait that only the probe ends.
    /// @param probe  empty if only the time ends it.
    /// @param sign   spares the thread the turns for its probe until it is set; null for none. Must outlive the wait,
    ///   also that of a thread that is killed.
    /// @return false when its time has come.
    bool Wait(std::optional<Interval> until, const Probe &probe, const std::atomic<bool> *sign = nullptr);

    /// Kills the other threads that take part.
    void KillOthers();
    /// All run as they like from now on.
    void End();

private:
    struct Thread;
    using ThreadHandle = std::shared_ptr<Thread>;

    [[nodiscard]] ThreadHandle Mine() const;
    [[nodiscard]] ThreadHandle Find(HANDLE thread) const;
    void ForgetEnded();
    void ProbeAllAgain();
    [[nodiscard]] ThreadHandle YoungestThatWantsTurn() const;
    [[nodiscard]] ThreadHandle FirstWhoseTimeComes() const;
    [[nodiscard]] ThreadHandle PickAlive();
    [[nodiscard]] ThreadHandle PickNext();
    [[nodiscard]] bool IsEmpty() const;
    void AwaitTurn(HANDLE toSignal, const Thread &self);

    mutable Lock m_lock;  ///< Held for no wait: a thread that waits may be killed.
    std::map<DWORD, ThreadHandle> m_threads;
    unsigned m_added = 0;
    MoveTime m_moveTime;
    ThreadHandle m_leaving;  ///< Has given the turn away, and is about to end.
    std::atomic<bool> m_ended{true};
};

}  // namespace Simulator
