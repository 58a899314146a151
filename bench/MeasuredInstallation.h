// A simulated machine that installs the drivers by a script's call, for measurements.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>

/// What one installation took.
struct InstallTimes {
    double ownSeconds = 0;     ///< Real ones from the call to its return, while no wait takes any.
    double waitedSeconds = 0;  ///< By the simulated clock.
    std::size_t calls = 0;     ///< Of the system.
    std::map<std::string, double> ownSecondsOfSteps{};  ///< Of a fresh one; without the steps within.
};

/// Ends the program if an installation does not do what it is measured for.
class MeasuredInstallation {
public:
    /// @param adapters  besides the two that every machine has.
    explicit MeasuredInstallation(std::size_t adapters);
    ~MeasuredInstallation();
    MeasuredInstallation(const MeasuredInstallation &) = delete;
    MeasuredInstallation &operator=(const MeasuredInstallation &) = delete;

    /// Fresh: what an earlier one has left is removed before.
    InstallTimes Install();
    /// From version 1.0.0.0, bound to all adapters.
    InstallTimes Upgrade();
    /// Hangs the worker, and lets the time of its step pass.
    /// @return real seconds from the end of that time to the end of the worker.
    double SecondsToKill();

private:
    class Machine;
    std::unique_ptr<Machine> m_machine;
};
