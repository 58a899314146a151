#include "FastForward.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <utility>

#include "Function.h"

namespace {

/// How many times faster than real time the clock runs, in addition to its own speed.
constexpr unsigned kSpeed = 300;
/// So that a thread that has been waiting for a processor does not leap over what others do meanwhile.
constexpr std::chrono::milliseconds kLongestLeap{10'000};

}  // namespace

FastForward::FastForward(std::shared_ptr<Simulator::Core> core) : m_core(std::move(core)) {}

void FastForward::WhenHit(std::shared_ptr<Simulator::FaultPlan> plan, unsigned long milliseconds) {
    m_waiting.remove_if([](const Waiting &waiting) { return waiting.hasEnded.load(); });
    Waiting &waiting = m_waiting.emplace_back();
    waiting.thread = std::jthread([this, &waiting, milliseconds, plan = std::move(plan)] {
        if (plan->WaitUntilHit(INFINITE))
            PassTime(milliseconds);
        waiting.hasEnded = true;
    });
}

/// By as much as real time requires, and exactly to the end: a watcher notices the end soon, however busy the machine
/// is.
void FastForward::PassTime(unsigned long milliseconds) const {
    using std::chrono::steady_clock;
    const Simulator::InsideSimulator inside;
    Simulator::Clock &clock = m_core->clock;
    const std::uint64_t end = clock.TickMs() + milliseconds;
    for (auto last = steady_clock::now(); !m_core->ended && clock.TickMs() < end;) {
        Sleep(1);
        const auto now = steady_clock::now();
        const auto passes = std::chrono::floor<std::chrono::milliseconds>((now - last) * kSpeed);
        const std::chrono::milliseconds left(end - std::min(end, clock.TickMs()));
        clock.Advance(std::min({passes, left, kLongestLeap}));
        last = now;
    }
}
