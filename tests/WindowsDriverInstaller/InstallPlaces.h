// The calls that the threads of an installation make, and what hangs on each of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "CallPlaces.h"

/// A call of an installation. The fields of Place beyond function, number and step are those of the worker's calls.
struct InstallPlace : Place {
    enum class Thread {
        Worker,
        Watchdog,       ///< While the script waits for it.
        EndedWatchdog,  ///< When it has said that it is done.
    };
    Thread thread = Thread::Worker;
    // Of the worker's:
    bool succeeded = false;  ///< Whether the part of the work that told its success last did succeed.
    bool removed = false;    ///< Whether the component that was there has gone.
    bool installed = false;  ///< Whether the new one is there.
    // Of the watchdog's:
    bool beforeWork = false;             ///< Whether the worker has not begun.
    std::uint64_t sinceHeartbeatMs = 0;  ///< By the clock.
};

/// The two threads in a journal of an installation; 0 if there is none.
struct InstallThreads {
    DWORD watchdog = 0;
    DWORD worker = 0;
};
/// @param caller  the thread that called from the script.
[[nodiscard]] InstallThreads ThreadsOf(const std::vector<Simulator::JournalEntry> &journal, DWORD caller);

/// The lines of the text of event 1007, which are the worker's.
[[nodiscard]] std::vector<std::string> WorkersLines(const std::string &eventText);

/// The calls of an installation that ended well, in their order. Left out are those that cannot hang, and the waits and
/// sleeps with which the watchdog follows the worker.
/// @param workersLines  all that the worker logged to the event.
/// @throws std::logic_error  if the journal is of another kind.
[[nodiscard]] std::vector<InstallPlace> PlacesOfInstallation(const std::vector<Simulator::JournalEntry> &journal,
                                                             DWORD caller, std::vector<std::string> workersLines);
