// The threads that the module starts, and the work that it queues. Whether the last instructions of a thread have run
// when others check it depends on the system's load, and must not affect a test: they take no time.
#pragma once

#include <cstddef>
#include <memory>

#include "Simulation.h"

/// While it exists:
/// - a thread whose state is queried has ended if only its last instructions are left.
/// - the 100 ms sleeps in which a thread waits for those of one that it has started do not move the clock, except the
/// first. A thread that hangs by a fault plan is excluded.
class StartedThreads {
public:
    explicit StartedThreads(Simulator::Simulation &simulation);
    ~StartedThreads();
    StartedThreads(const StartedThreads &) = delete;
    StartedThreads &operator=(const StartedThreads &) = delete;

    /// Waits until all have really ended: a detached thread still releases its own resources when its object is gone.
    /// What was queued has been done then, too. It runs on a thread of the system, which a journal or a fault plan
    /// would count if it began earlier.
    /// @param living  how many may live on, with as much queued work that waits for them.
    /// @return false if one has not ended within so many real milliseconds.
    [[nodiscard]] bool AwaitEnds(DWORD realMs, std::ptrdiff_t living = 0);

private:
    class Threads;
    const std::shared_ptr<Threads> m_threads;
};
