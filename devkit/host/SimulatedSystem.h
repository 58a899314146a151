// The system that the module, its libraries, the script and the host see.
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
    /// See FastForward::WhenHit; for real time there is none.
    void AdvanceWhenHit(std::shared_ptr<Simulator::FaultPlan> plan, unsigned long milliseconds);

    const Simulator::Machine &GetMachine() const { return m_machine; }
    /// The same, and from now on fc.dll runs on it.
    Simulator::Machine &UseMachine();

    /// What is installed. From the first use on, fc.dll runs on it, and on the machine.
    /// @throws std::exception  if its registry or its folders can't be made.
    Installation &UseInstallation();
    /// The same, without a first use; null before that.
    const Installation *FindInstallation() const;
    /// The same for its faults. They concern the calls that CanFail knows.
    Simulator::Faults &UseFaults();
    /// Whether a simulated system has the call, whatever of it is simulated by now.
    /// @param call  a function, or a method such as "INetCfg::Apply".
    static bool CanFail(std::string_view call);
    /// Calls in the simulator's journal, which stays empty: a host may run for days.
    std::size_t RecordedCalls() const;

    /// From now on, fc.dll finds in the folder what lies at or below the path.
    void MapPath(const std::wstring &from, const std::wstring &folder);

    /// Back to the real one; what was simulated is gone, its files too.
    void End();

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
