// Moves the clock for a thread that watches a driver thread, and knows when that one waits: so the clock does not move
// while the watcher computes how long to wait.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "Simulation.h"

/// The watcher is the thread that last began a wait of a second or less.
class WatcherClock {
public:
    explicit WatcherClock(Simulator::Simulation &simulation);

    /// Moves the clock whenever the watcher waits, far enough to end the wait. Whoever follows the clock sleeps then.
    /// @param leapMs    the largest single move.
    /// @param returned  whether the script's call has come back.
    /// @return false if it came back before, or the watcher never waited.
    [[nodiscard]] bool AdvanceTo(std::uint64_t tick, std::uint64_t leapMs, const std::atomic<bool> &returned);
    /// Waits until the watcher waits again: it has read the new time, and has not acted.
    /// @return false if the script's call came back, or the watcher never waited.
    [[nodiscard]] bool AwaitWait(const std::atomic<bool> &returned);

private:
    class State;

    /// @return false if the watcher does not wait, or the follower does not sleep; the clock then stays.
    bool AdvanceWhileItWaits(std::uint64_t tick);

    Simulator::Clock &m_clock;
    const std::shared_ptr<State> m_state;
};
