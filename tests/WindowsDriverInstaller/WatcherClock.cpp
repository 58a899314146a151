#include "WatcherClock.h"

#include <algorithm>
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "Patience.h"
#include "WindowsFunctions.h"

namespace {

/// A watcher with a longer wait waits for the end of a thread that it has killed.
constexpr DWORD kLongestWatchMs = 1'000;

}  // namespace

/// The watcher's state, shared with the layers of the functions.
class WatcherClock::State {
public:
    void SetWorks() {
        const Simulator::LockGuard guard(m_lock);
        if (GetCurrentThreadId() == m_watcher)
            m_waits = false;
    }
    void SetWaits() {
        const Simulator::LockGuard guard(m_lock);
        m_watcher = GetCurrentThreadId();
        m_waits = true;
    }
    bool Waits(const Simulator::Clock &clock) const {
        const Simulator::LockGuard guard(m_lock);
        return m_waits && clock.Waiting() == 1;
    }
    /// @param advance  returns whether it did.
    template <class Advance>
    bool AdvanceOnceInAWait(const Simulator::Clock &clock, Advance advance) {
        const Simulator::LockGuard guard(m_lock);
        if (!m_waits || clock.Waiting() != 1 || !advance())
            return false;
        m_waits = false;
        return true;
    }
    std::string Describe(const Simulator::Clock &clock) const {
        const Simulator::LockGuard guard(m_lock);
        return "the watcher, thread " + std::to_string(m_watcher) + ", " + (m_waits ? "waits" : "does not wait") +
               "; timed waits: " + std::to_string(clock.Waiting()) + "; tick " + std::to_string(clock.TickMs());
    }

private:
    mutable Simulator::Lock m_lock;
    DWORD m_watcher = 0;
    bool m_waits = false;  ///< From the beginning of a wait to its end, but at most until the clock was moved.
};

WatcherClock::WatcherClock(Simulator::Simulation &simulation)
    : m_clock(simulation.GetClock()), m_state(std::make_shared<State>()) {
    simulation.Functions().Put<Simulator::System::WaitForSingleObject>(
        [state = m_state](const auto &next, HANDLE handle, DWORD ms) {
            if (ms <= kLongestWatchMs)
                state->SetWaits();
            const DWORD result = next(handle, ms);
            state->SetWorks();
            return result;
        },
        Simulator::Depth::Watch);
}

bool WatcherClock::AdvanceTo(std::uint64_t tick, std::uint64_t leapMs, const std::atomic<bool> &returned) {
    do {
        const std::uint64_t now = std::min(m_clock.TickMs(), tick);
        const std::uint64_t next = now + std::min(tick - now, leapMs);
        bool advanced = false;
        (void)Await(kPatienceMs, [&] { return returned || (advanced = AdvanceWhileItWaits(next)); });
        if (!advanced) {
            EXPECT_TRUE(returned) << "the clock could not be moved: " << m_state->Describe(m_clock);
            return false;
        }
    } while (m_clock.TickMs() < tick);
    return true;
}

bool WatcherClock::AwaitWait(const std::atomic<bool> &returned) {
    bool waits = false;
    (void)Await(kPatienceMs, [&] { return returned || (waits = m_state->Waits(m_clock)); });
    return waits;
}

bool WatcherClock::AdvanceWhileItWaits(std::uint64_t tick) {
    return m_state->AdvanceOnceInAWait(m_clock, [&] {
        return m_clock.AdvanceIfFollowerSleeps(std::chrono::milliseconds(tick - std::min(tick, m_clock.TickMs())));
    });
}
