// The threads that the module starts. How far the last instructions of one have come when others ask for it depends on
// the system's load, and must not make a difference in a test: they take no time.
#pragma once

#include <cstddef>
#include <memory>

#include "Simulation.h"

/// While it lives:
/// - a thread that is asked whether it still runs has ended if only its last instructions are left.
/// - the sleeps of 100 ms in which a thread waits for those of one that it has started move no clock: all but the
/// first. A thread that hangs by a fault plan is another matter.
class StartedThreads {
public:
    explicit StartedThreads(Simulator::Simulation &simulation);
    ~StartedThreads();
    StartedThreads(const StartedThreads &) = delete;
    StartedThreads &operator=(const StartedThreads &) = delete;

    /// Until all have really ended: a detached thread still gives back its own when the object that it ran is gone.
    /// @param living  so many may live on.
    /// @return false if one has not within so many real milliseconds.
    [[nodiscard]] bool AwaitEnds(DWORD realMs, std::ptrdiff_t living = 0);

private:
    class Threads;
    const std::shared_ptr<Threads> m_threads;
};
