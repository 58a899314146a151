#include "FastForward.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "Function.h"

namespace {

/// How many times faster than in reality time runs, unless the clock is that fast anyway.
constexpr unsigned kSpeed = 300;

}  // namespace

FastForward::FastForward(std::shared_ptr<Simulator::Core> core, unsigned speed)
    : m_core(std::move(core)), m_speed(speed) {}

void FastForward::WhenHit(std::shared_ptr<Simulator::FaultPlan> plan, unsigned long milliseconds) {
    const auto hasEnded = [](const std::future<void> &thread) {
        return thread.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    };
    std::erase_if(m_threads, hasEnded);
    m_threads.push_back(std::async(std::launch::async, [this, milliseconds, plan = std::move(plan)] {
        if (plan->WaitUntilHit(INFINITE))
            PassTime(milliseconds);
    }));
}

void FastForward::PassTime(unsigned long milliseconds) {
    Count(1);
    m_core->clock.SleepFor(milliseconds);
    Count(-1);
}

void FastForward::Count(int change) {
    const std::lock_guard guard(m_lock);
    m_running += change;
    m_core->clock.RunFast(m_running == 0 ? m_speed : std::max(m_speed, kSpeed));
}
