// The system as the module, its libraries, the script and the host see it.
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

/// The real one, until a part of it is simulated. Call it from one thread.
class SimulatedSystem {
public:
    SimulatedSystem();
    ~SimulatedSystem();

    /// Attaches a simulated clock to the loaded libraries, and to fc.dll once it is loaded.
    /// @param factor  how many times faster than real time it runs, from 1.
    /// @param late    is told when the machine is too slow for that; see Simulator::Clock::OnLate.
    void StartFastClock(unsigned factor, std::function<void(double seconds)> late = {});
    /// The same with a clock that stands still unless all threads wait, and is the same in each run: see
    /// Simulator::Clock::TakeTurns. The calling thread is the script's.
    void StartSteppedClock();
    bool HasClock() const { return m_hasClock; }
    /// Advances the simulated clock; does nothing in real time.
    void Advance(double seconds);
    /// Sets the time of day of the simulated clock, even backwards; sleeps and waits are not affected.
    /// @param seconds  since 1970, UTC.
    void SetWallClock(std::int64_t seconds);
    /// See FastForward::WhenHit; does nothing in real time. A stepped clock moves by itself then.
    void AdvanceWhenHit(std::shared_ptr<Simulator::FaultPlan> plan, unsigned long milliseconds);

    const Simulator::Machine &GetMachine() const { return m_machine; }
    /// The machine; from now on fc.dll runs on it.
    Simulator::Machine &UseMachine();

    /// The installation. From its first use on, fc.dll runs on it, and on the machine.
    /// @throws std::exception  if its registry or its folders can't be created.
    Installation &UseInstallation();
    /// The same without a first use; null before that.
    const Installation *FindInstallation() const;
    /// Boots the machine again. The module is not loaded then. Ticks begin at 0 if the clock is simulated.
    void Reboot();
    /// Kills the module's threads that hang in a call by a planned fault, and with a stepped clock all of its threads.
    void KillThreads();
    /// What the module's process held is free, as at its end. For its threads see KillThreads.
    void EndProcess();
    /// The same for its faults, which affect Calls.
    Simulator::Faults &UseFaults();
    /// The calls that a simulated system has, whatever is simulated so far: functions, and methods such as
    /// "INetCfg::Apply". Sorted.
    static std::vector<std::string> Calls();
    /// The call with this name, which may be the name in the module's events: without the W at its end, and followed by
    /// arguments. Nothing if there is none.
    static std::optional<std::string_view> FindCall(std::string_view name);
    /// Whether a plan can make it fail; others can only hang or be late.
    /// @param call  one of Calls.
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
    void PutClock();

    Simulator::Machine m_machine;  // used by the functions in m_parts until they are destroyed
    std::unique_ptr<Parts> m_parts;
    bool m_hasClock = false;
    bool m_hasMachine = false;
    bool m_hasPaths = false;
};
