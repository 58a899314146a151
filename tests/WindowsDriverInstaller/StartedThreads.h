// The threads that the module starts, to wait for their real ends: a detached thread still gives back its own when the
// object that it ran is gone.
#pragma once

#include <memory>

#include "Simulation.h"

/// A thread that is asked whether it still runs has ended if only its last instructions are left: how far it has come
/// in them must not make a difference. One that hangs by a fault plan runs.
void LetEndingThreadsEnd(Simulator::Simulation &simulation);

class StartedThreads {
public:
    explicit StartedThreads(Simulator::Simulation &simulation);
    ~StartedThreads();
    StartedThreads(const StartedThreads &) = delete;
    StartedThreads &operator=(const StartedThreads &) = delete;

    /// Until all have ended that were started since the last time.
    /// @return false if one has not within so many real milliseconds.
    [[nodiscard]] bool AwaitEnds(DWORD realMs);

private:
    class Handles;
    const std::shared_ptr<Handles> m_handles;
};
