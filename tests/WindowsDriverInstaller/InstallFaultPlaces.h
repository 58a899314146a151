// The calls of the platform that an installation makes, and the purpose of each.
#pragma once

#include <string>
#include <vector>

#include "Journal.h"

/// A call of an installation that can be made to fail.
struct FaultPlace {
    /// What the call is part of.
    enum class Part {
        // On the script's thread and the watchdog's
        Start,       ///< Health-check files and the watchdog's thread.
        Decision,    ///< The versions of both drivers.
        Worker,      ///< The worker's object and thread.
        Workaround,  ///< For interrupts, in the registry.
        Records,     ///< A session with the network configuration that reads the adapters.
        Bindings,    ///< One that binds and unbinds the filter.
        Network,     ///< Clearing the ARP cache and sending the traffic.
        Restart,     ///< Disabling or enabling adapters.
        Rest,
        // On the worker's thread
        Removal,         ///< Libraries, health-check files and the callout.
        Uninstallation,  ///< A session that removes a component.
        InfRemoval,
        Presence,  ///< A session that looks for the filter.
        Orphans,
        Callout,       ///< Its installation and its start.
        Copying,       ///< The filter's INF files.
        Installation,  ///< The session that installs the filter.
        Values,        ///< Of the filter's service, in the registry.
    };

    std::string function;
    unsigned thread = 0;    ///< As fault plans number them: the script's, the watchdog's, the worker's.
    unsigned nth = 0;       ///< Counted from 1 among the thread's calls of the function.
    std::string arguments;  ///< As in the journal.
    Part part = Part::Start;
    /// Of the worker's calls: the number of the removal, 0 after the last. Otherwise the number among the parts of the
    /// kind.
    unsigned turn = 0;
    unsigned adapter = 0;   ///< How many components the session has asked the enumeration for, including this call.
    unsigned path = 0;      ///< The same for the adapter's binding paths.
    unsigned ordinal = 0;   ///< Counted from 1 among the function's calls of the same part, turn, adapter and path.
    std::string component;  ///< The one that the session searched for last.
};

[[nodiscard]] const char *NameOf(FaultPlace::Part part);
/// Such as "watchdog:CloseHandle#3".
[[nodiscard]] std::string NameOf(const FaultPlace &place);

/// The places of an installation in which nothing failed, by thread in the order of the calls. Calls whose order
/// varies, or that cannot fail, are left out.
/// @param caller  the script's thread.
/// @throws std::logic_error  if there is no watchdog and no worker.
[[nodiscard]] std::vector<FaultPlace> FaultPlacesOf(const std::vector<Simulator::JournalEntry> &journal, DWORD caller);
