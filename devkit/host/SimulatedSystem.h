// The system that the module, its libraries, the script and the host see.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Machine.h"

/// The real one, until a part of it is simulated. Functions of one thread.
class SimulatedSystem {
public:
    SimulatedSystem();
    ~SimulatedSystem();

    /// Puts a simulated clock under the libraries that are loaded, and under fc.dll when it is.
    /// @param factor  how many times faster than in reality it runs, from 1.
    void StartFastClock(unsigned factor);
    bool HasClock() const { return m_hasClock; }
    /// Puts the simulated clock forward; for real time there is none.
    void Advance(double seconds);
    /// Sets what of the simulated clock is read as the time of day, also backwards; sleeps and waits do not notice.
    /// @param seconds  since 1970, UTC.
    void SetWallClock(std::int64_t seconds);

    const Simulator::Machine &GetMachine() const { return m_machine; }
    /// The same, and from now on fc.dll runs on it.
    Simulator::Machine &UseMachine();

    /// From now on, fc.dll finds in the folder what lies at or below the path.
    void MapPath(const std::wstring &from, const std::wstring &folder);

private:
    struct Parts;
    Parts &Use();
    void PutUnderModule();

    Simulator::Machine m_machine;  // the functions in m_parts look at it until they are gone
    std::unique_ptr<Parts> m_parts;
    bool m_hasClock = false;
    bool m_hasMachine = false;
    bool m_hasPaths = false;
};
