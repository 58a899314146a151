// The time that the module, its libraries, the script and the host see.
#pragma once

#include <memory>

/// Real time, until a simulated clock is started. Functions of one thread.
class Clock {
public:
    Clock();
    ~Clock();

    /// Puts a simulated clock under the libraries that are loaded, and under fc.dll when it is.
    /// @param factor  how many times faster than in reality it runs, from 1.
    void StartFast(unsigned factor);
    bool IsSimulated() const { return m_simulation != nullptr; }

    /// Puts the simulated clock forward; for real time there is none.
    void Advance(double seconds);

private:
    struct Simulation;
    std::unique_ptr<Simulation> m_simulation;
};
