// A simulated machine on which a script's call installs the drivers, for measurements.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>

/// What one installation took.
struct InstallTimes {
    double ownSeconds = 0;                              ///< Real seconds from the call to its return; waits take none.
    double waitedSeconds = 0;                           ///< By the simulated clock.
    std::size_t calls = 0;                              ///< Of the system.
    std::map<std::string, double> ownSecondsOfSteps{};  ///< Of a fresh installation; without inner steps.
};

/// Ends the program if an installation does not do what is measured.
class MeasuredInstallation {
public:
    /// @param adapters  in addition to the two that every machine has.
    explicit MeasuredInstallation(std::size_t adapters);
    ~MeasuredInstallation();
    MeasuredInstallation(const MeasuredInstallation &) = delete;
    MeasuredInstallation &operator=(const MeasuredInstallation &) = delete;

    /// Fresh: removes what an earlier one has left.
    InstallTimes Install();
    /// From version 1.0.0.0, bound to all adapters.
    InstallTimes Upgrade();
    /// Hangs the worker, and lets the limit of its step pass.
    /// @return real seconds from the end of the limit to the end of the worker.
    double SecondsToKill();

private:
    class Machine;
    std::unique_ptr<Machine> m_machine;
};
