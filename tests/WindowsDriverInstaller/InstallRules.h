// What has to come of an installation in which one call of the platform fails: rules by the call and what it is made
// for. They share nothing with the product.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "InstallFaultPlaces.h"
#include "InstallRoads.h"

/// What can be seen of an installation. Texts of the system are left out.
struct InstallResult {
    bool result = true;
    /// "3005 what failed (code)", "1004 step", "1007 installed|ours"; the others as they are.
    std::vector<std::string> events;
    unsigned reboots = 0;                ///< Notifications that ask for one.
    unsigned notices = 0;                ///< Others to the user.
    std::vector<std::string> unwritten;  ///< Values of the filter's service that could not be written, by the log.
    bool isInstalled = false;            ///< The filter's component.
    std::array<bool, 3> bindings{};      ///< Of the filter, by adapters.
    bool calloutRuns = false;
    bool isLocked = false;            ///< The network configuration.
    bool isDisconnected = false;      ///< The first adapter has no address.
    std::map<std::string, int> left;  ///< What is not given back, by its kind in the balance.
    std::uint64_t sleptMs = 0;        ///< By the watchdog and the worker, without watching each other.
};

/// One call that fails.
struct InstallFault {
    const FaultPlace *place = nullptr;  ///< Null: none does.
    DWORD code = 0;
};

/// Folders that reports name, with a backslash behind each.
struct InstallFolders {
    std::string ndis;
    std::string windows;
};

[[nodiscard]] InstallResult ExpectInstallation(Road road, const InstallFault &fault, const InstallFolders &folders);
