// Rules for the outcome of an installation in which one call of the platform fails, by the call and its purpose. They
// share nothing with the product.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "InstallFaultPlaces.h"
#include "InstallScenarios.h"

/// The visible outcome of an installation, without the system's texts.
struct InstallResult {
    bool result = true;
    /// "3005 what failed (code)", "1004 step", "1007 installed|ours"; the others as they are.
    std::vector<std::string> events;
    unsigned reboots = 0;  ///< Notifications that request one.
    unsigned notices = 0;  ///< Other notifications.
    std::vector<std::string>
        unwritten;             ///< Values of the filter's service that could not be written, according to the log.
    bool isInstalled = false;  ///< The filter's component.
    std::array<bool, 3> bindings{};  ///< The filter's, by adapter.
    bool calloutRuns = false;
    bool isLocked = false;            ///< The network configuration.
    bool isDisconnected = false;      ///< The first adapter has no address.
    std::map<std::string, int> left;  ///< What is not released, by its kind in the balance.
    std::uint64_t sleptMs = 0;        ///< By the watchdog and the worker, without polling.
};

/// One call that fails.
struct InstallFault {
    const FaultPlace *place = nullptr;  ///< Null: none fails.
    DWORD code = 0;
};

/// Folders that reports name, each with a trailing backslash.
struct InstallFolders {
    std::string ndis;
    std::string windows;
};

[[nodiscard]] InstallResult ExpectInstallation(Scenario scenario, const InstallFault &fault,
                                               const InstallFolders &folders);
