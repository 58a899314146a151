// Plans that fail, hang or delay chosen calls of redirected functions.
#pragma once

#include <atomic>
#include <climits>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Event.h"
#include "Lock.h"
#include "UniqueHandle.h"

namespace Simulator {

class Clock;
class FaultPlan;

/// A plan counts the calls of all threads, or those of one thread, which it names by its number: threads are numbered
/// in the order of their first calls after the creation of the plan, and thread 0 is the one that creates the plan. So
/// its count does not depend on which of several threads comes first.
inline constexpr unsigned kAnyThread = UINT_MAX;

/// What to do with one call.
struct Verdict {
    bool fails = false;
    DWORD code = 0;
    DWORD delayMs = 0;                              ///< By the simulated clock.
    std::vector<std::shared_ptr<FaultPlan>> hangs;  ///< Each hangs the call.
};

/// One plan, as a test sees it. Any thread.
class FaultPlan : public std::enable_shared_from_this<FaultPlan> {
public:
    /// Whether a call has met the plan. A hanging call meets it when it no longer holds any lock: from then on its
    /// thread may be killed.
    [[nodiscard]] bool Hit() const { return Hits() != 0; }
    [[nodiscard]] unsigned Hits() const { return m_hits; }
    /// The function of the first call that met the plan; empty before.
    [[nodiscard]] std::string HitFunction() const;
    /// Waits until a call meets the plan, or until the plan is released.
    /// @param timeoutMs  real milliseconds, or INFINITE.
    /// @return whether a call has met it.
    [[nodiscard]] bool WaitUntilHit(DWORD timeoutMs) const { return m_hit.WaitUnless(m_released, timeoutMs); }
    /// Hangs the calling thread until the plan is released.
    void Hang();
    /// The same as a wait of the clock, so that others get their turns.
    void Hang(Clock &clock);
    /// Kills the threads that hang.
    void KillHung();
    /// Ends the plan, and releases the calls that hang: those then do their work.
    void Release();

private:
    friend class Faults;

    /// Registers the calling thread. @return whether the plan counts its calls.
    bool IsForThisThread();
    void Apply(const std::string &function, Verdict &verdict);
    void Meet();
    void BeginHanging();

    enum class Kind { Fail, Hang, Delay };
    Kind m_kind = Kind::Fail;
    std::set<std::string> m_functions;  ///< Empty for all that can fail.
    unsigned m_nth = 0;                 ///< From 1; 0 for every call.
    DWORD m_value = 0;                  ///< Code, or milliseconds.
    unsigned m_thread = kAnyThread;
    std::vector<DWORD> m_threads;  ///< By their numbers; empty for a plan of any thread.
    unsigned m_seen = 0;
    mutable Lock m_lock;
    std::string m_hitFunction;
    std::atomic<unsigned> m_hits{0};
    std::atomic<DWORD> m_hangingThread{0};  ///< The last one that hung.
    std::vector<UniqueHandle> m_hung;       ///< A thread's id may be reused once it has ended.
    Event m_hit;
    Event m_released;
};
using FaultPlanHandle = std::shared_ptr<FaultPlan>;

/// The plans of one simulation. A plan counts calls from its creation on and stays until Clear or its Release. All
/// plans see each call; the first that fails it decides the code. Any thread.
class Faults {
public:
    /// Fails the n-th call, n from 1. How a function fails is part of its description (FailureValues.h).
    /// @param code  an error of Windows, an HRESULT or an errno, as the function has it.
    /// @param thread  whose calls count.
    FaultPlanHandle FailNth(const std::string &function, unsigned nth, DWORD code, unsigned thread = kAnyThread);
    FaultPlanHandle FailEvery(const std::string &function, DWORD code);
    /// The n-th call among these functions.
    FaultPlanHandle FailNthOf(const std::set<std::string> &functions, unsigned nth, DWORD code);
    /// The n-th call among all functions that can fail.
    FaultPlanHandle FailNthOfAny(unsigned nth, DWORD code);
    /// Hangs the call until its thread is killed or the plan is released.
    FaultPlanHandle HangNth(const std::string &function, unsigned nth, unsigned thread = kAnyThread);
    FaultPlanHandle HangEvery(const std::string &function);
    /// Delays the call by so many milliseconds of the simulated clock.
    FaultPlanHandle DelayNth(const std::string &function, unsigned nth, DWORD delayMs);
    FaultPlanHandle DelayEvery(const std::string &function, DWORD delayMs);

    /// Releases every plan that hangs calls.
    void ReleaseHung();
    /// Kills the threads that hang. The plans stay.
    void KillHung();
    /// Releases and forgets all plans. Counts stay.
    void Clear();

    /// Whether the thread hangs because of a plan.
    [[nodiscard]] bool Hangs(DWORD thread) const;

    /// Calls since the beginning.
    [[nodiscard]] unsigned Calls(const std::string &function) const;
    /// Calls since the beginning, of functions that can fail.
    [[nodiscard]] unsigned FailableCalls() const;

    /// Counts a call and decides what happens to it.
    [[nodiscard]] Verdict Ask(const std::string &function, bool canFail);

private:
    FaultPlanHandle Add(FaultPlan::Kind kind, const std::set<std::string> &functions, unsigned nth, DWORD value,
                        unsigned thread = kAnyThread);

    mutable Lock m_lock;
    std::vector<FaultPlanHandle> m_plans;
    std::map<std::string, unsigned> m_calls;
    unsigned m_failableCalls = 0;
};

}  // namespace Simulator
