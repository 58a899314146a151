// Puts the simulated clock forward for those who wait for a call that hangs.
#pragma once

#include <future>
#include <memory>
#include <mutex>
#include <vector>

namespace Simulator {
struct Core;
class FaultPlan;
}  // namespace Simulator

/// Must end after the core's plans and its clock: it waits for its threads. Functions of one thread.
class FastForward {
public:
    /// @param speed  that of the core's clock when nothing is put forward.
    FastForward(std::shared_ptr<Simulator::Core> core, unsigned speed);

    /// As soon as a call has met the plan, time runs fast until so much of it has passed. It does not leap: those who
    /// work out a deadline at that very time are not to miss it.
    /// @param milliseconds  of simulated time.
    void WhenHit(std::shared_ptr<Simulator::FaultPlan> plan, unsigned long milliseconds);

private:
    void PassTime(unsigned long milliseconds);
    void Count(int change);

    const std::shared_ptr<Simulator::Core> m_core;
    const unsigned m_speed;
    std::mutex m_lock;
    int m_running = 0;                         ///< Of those that time runs fast for.
    std::vector<std::future<void>> m_threads;  ///< The end of one waits for its thread.
};
