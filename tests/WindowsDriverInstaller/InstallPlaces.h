// The calls that the threads of an installation make, and what depends on each of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "CallPlaces.h"

/// A call of an installation. The fields of Place other than function, number and step are set for the worker's calls
/// only.
struct InstallPlace : Place {
    enum class Thread {
        Worker,
        Watchdog,       ///< While the script waits for it.
        EndedWatchdog,  ///< When it has signalled its end.
    };
    Thread thread = Thread::Worker;
    // The worker's:
    bool succeeded = false;  ///< Whether the part of the work that last reported its result succeeded.
    bool removed = false;    ///< Whether the component that was present is gone.
    bool installed = false;  ///< Whether the new one is present.
    // The watchdog's:
    bool beforeWork = false;             ///< Whether the worker has not begun.
    std::uint64_t sinceHeartbeatMs = 0;  ///< By the simulated clock.
};

/// The two threads in the journal of an installation; 0 if there is none.
struct InstallThreads {
    DWORD watchdog = 0;
    DWORD worker = 0;
};
/// @param caller  the thread that called from the script.
[[nodiscard]] InstallThreads ThreadsOf(const std::vector<Simulator::JournalEntry> &journal, DWORD caller);

/// The lines of the text of event 1007, which are the worker's.
[[nodiscard]] std::vector<std::string> WorkersLines(const std::string &eventText);

/// The calls of a successful installation, in order. Left out are those that cannot hang, and the waits and sleeps with
/// which the watchdog polls the worker.
/// @param workersLines  all that the worker logged to the event.
/// @throws std::logic_error  if the journal is of another kind.
[[nodiscard]] std::vector<InstallPlace> PlacesOfInstallation(const std::vector<Simulator::JournalEntry> &journal,
                                                             DWORD caller, std::vector<std::string> workersLines);
