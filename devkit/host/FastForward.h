// Advances the simulated clock for those who wait for a hanging call.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <thread>

namespace Simulator {
struct Core;
class FaultPlan;
}  // namespace Simulator

/// Must be destroyed after the core's plans and its clock: it waits for its threads. Call it from one thread.
class FastForward {
public:
    explicit FastForward(std::shared_ptr<Simulator::Core> core);

    /// As soon as a call has met the plan, that much time passes, in leaps of ten seconds at most and exactly to the
    /// end, so that a thread that computes a deadline just then misses it by little.
    /// @param milliseconds  of simulated time.
    void WhenHit(std::shared_ptr<Simulator::FaultPlan> plan, unsigned long milliseconds);

private:
    /// A thread that waits for a plan. The destructor waits for the thread.
    struct Waiting {
        std::atomic<bool> hasEnded = false;
        std::jthread thread;
    };

    void PassTime(unsigned long milliseconds) const;

    const std::shared_ptr<Simulator::Core> m_core;
    std::list<Waiting> m_waiting;
};
