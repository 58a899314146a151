// The system that the module, its libraries, the script and the host see.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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
    /// @param late    is told when the machine is too slow for that; see Simulator::Clock::OnLate.
    void StartFastClock(unsigned factor, std::function<void(double seconds)> late = {});
    /// The same with a clock that stands still unless all threads wait, and is the same in each run: see
    /// Simulator::Clock::TakeTurns. The calling thread is the script's.
    void StartSteppedClock();
    bool HasClock() const { return m_hasClock; }
    /// Puts the simulated clock forward; for real time there is none.
    void Advance(double seconds);
    /// Sets what of the simulated clock is read as the time of day, also backwards; sleeps and waits do not notice.
    /// @param seconds  since 1970, UTC.
    void SetWallClock(std::int64_t seconds);
    /// See FastForward::WhenHit; for real time there is none. A stepped clock moves by itself then.
    void AdvanceWhenHit(std::shared_ptr<Simulator::FaultPlan> plan, unsigned long milliseconds);

    const Simulator::Machine &GetMachine() const { return m_machine; }
    /// The same, and from now on fc.dll runs on it.
    Simulator::Machine &UseMachine();

    /// What is installed. From the first use on, fc.dll runs on it, and on the machine.
    /// @throws std::exception  if its registry or its folders can't be made.
    Installation &UseInstallation();
    /// Boots the machine anew. The module is not loaded then. Ticks begin at 0 if the clock is simulated.
    void Reboot();
    /// Kills the threads that hang in a call, and with a stepped clock all but the calling one.
    void KillThreads();
    /// The same for its faults, which concern Calls.
    Simulator::Faults &UseFaults();
    /// The calls that a simulated system has, whatever of it is simulated by now: functions, and methods such as
    /// "INetCfg::Apply". Sorted.
    static std::vector<std::string> Calls();
    /// The one of them that is meant by the name, which may be what the module's events call it: without the W at its
    /// end, and with arguments behind it. Nothing if there is none.
    static std::optional<std::string_view> FindCall(std::string_view name);
    /// Whether a plan can make it fail; others can only hang and be late.
    /// @param call  one of Calls.
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
    void PutClock();

    Simulator::Machine m_machine;  // the functions in m_parts look at it until they are gone
    std::unique_ptr<Parts> m_parts;
    bool m_hasClock = false;
    bool m_hasMachine = false;
    bool m_hasPaths = false;
};
