// Puts the simulated clock forward for those who wait for a call that hangs.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <thread>

namespace Simulator {
struct Core;
class FaultPlan;
}  // namespace Simulator

/// Must end after the core's plans and its clock: it waits for its threads. Functions of one thread.
class FastForward {
public:
    explicit FastForward(std::shared_ptr<Simulator::Core> core);

    /// As soon as a call has met the plan, so much time passes, in leaps of ten seconds at most and exactly to the end:
    /// those who work out a deadline at that very time are not to miss it by much.
    /// @param milliseconds  of simulated time.
    void WhenHit(std::shared_ptr<Simulator::FaultPlan> plan, unsigned long milliseconds);

private:
    /// A thread that waits for a plan. Its end waits for the thread.
    struct Waiting {
        std::atomic<bool> hasEnded = false;
        std::jthread thread;
    };

    void PassTime(unsigned long milliseconds) const;

    const std::shared_ptr<Simulator::Core> m_core;
    std::list<Waiting> m_waiting;
};
