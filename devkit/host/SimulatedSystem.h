// The system as the module, its libraries, the script and the host see it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Machine.h"

class Installation;

namespace Simulator {
class FaultPlan;
class Faults;
}  // namespace Simulator

/// The real one, until a part of it is simulated. Call it from one thread.
class SimulatedSystem {
public:
    SimulatedSystem();
    ~SimulatedSystem();

    /// Attaches a simulated clock to the loaded libraries, and to fc.dll once it is loaded.
    /// @param factor  how many times faster than real time it runs, from 1.
    void StartFastClock(unsigned factor);
    bool HasClock() const { return m_hasClock; }
    /// Advances the simulated clock; does nothing in real time.
    void Advance(double seconds);
    /// Sets the time of day of the simulated clock, even backwards; sleeps and waits are not affected.
    /// @param seconds  since 1970, UTC.
    void SetWallClock(std::int64_t seconds);
    /// See FastForward::WhenHit; does nothing in real time.
    void AdvanceWhenHit(std::shared_ptr<Simulator::FaultPlan> plan, unsigned long milliseconds);

    const Simulator::Machine &GetMachine() const { return m_machine; }
    /// The machine; from now on fc.dll runs on it.
    Simulator::Machine &UseMachine();

    /// The installation. From its first use on, fc.dll runs on it, and on the machine.
    /// @throws std::exception  if its registry or its folders can't be created.
    Installation &UseInstallation();
    /// The same for its faults. They affect the calls that CanFail knows.
    Simulator::Faults &UseFaults();
    /// Whether a simulated system has the call, whatever is simulated so far.
    /// @param call  a function, or a method such as "INetCfg::Apply".
    static bool CanFail(std::string_view call);
    /// Calls in the simulator's journal, which stays empty: a host may run for days.
    std::size_t RecordedCalls() const;

    /// From now on, maps what lies at or below the path to the folder, for fc.dll.
    void MapPath(const std::wstring &from, const std::wstring &folder);

    /// Back to the real one; everything simulated is gone, including its files.
    void End();

private:
    struct Parts;
    Parts &Use();
    void PutUnderModule();

    Simulator::Machine m_machine;  // used by the functions in m_parts until they are destroyed
    std::unique_ptr<Parts> m_parts;
    bool m_hasClock = false;
    bool m_hasMachine = false;
    bool m_hasPaths = false;
};
