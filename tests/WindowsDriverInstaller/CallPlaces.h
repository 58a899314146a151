// The calls that a driver thread makes, and for each of them: which step is on top of the stack, and which resources
// are open.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

#include "Journal.h"
#include "LogCollector.h"

/// A call.
struct Place {
    std::string function;             ///< As NameOfCall returns it.
    unsigned nth = 0;                 ///< Counted from 1 among its thread's calls of that name since the script's call.
    std::string step;                 ///< The one on top of the stack.
    std::uint64_t deadlineMs = 0;     ///< When that step's limit ends, if nothing but the thread's sleeps takes time.
    std::map<std::string, int> open;  ///< How many resources the thread has open, by the kinds of the balance.
    bool holdsLock = false;           ///< Whether it holds the write lock.
    std::size_t lines = 0;            ///< How many lines it has logged.
    std::size_t entry = 0;            ///< The index of the call in the journal.
};

using StepLimits = std::map<std::string, std::uint64_t>;
/// The limit of each step of a removal, in milliseconds.
[[nodiscard]] const StepLimits &LimitsOfRemoval();
/// The same for an installation, which has the steps of a removal and more.
[[nodiscard]] const StepLimits &LimitsOfInstallation();

/// The function; for a sleep with its milliseconds, such as "Sleep(500)".
[[nodiscard]] std::string NameOfCall(const Simulator::JournalEntry &entry);
/// For each entry of a journal, its number among its thread's calls of that name, from 1.
[[nodiscard]] std::vector<unsigned> NumbersOf(const std::vector<Simulator::JournalEntry> &journal);
/// Whether it queries the time, logs or signals, and so cannot hang.
[[nodiscard]] bool CannotHang(const std::string &function);

/// The kinds of resources whose creation and release both appear in a journal.
[[nodiscard]] std::vector<std::string_view> KindsInJournals();

/// The lines that the thread has logged, which are the last ones of the log.
/// @throws std::logic_error  if there are fewer.
[[nodiscard]] std::vector<std::string> LinesOf(const std::vector<Simulator::JournalEntry> &journal, DWORD thread,
                                               const std::vector<LogLine> &log);

/// The calls of a worker that succeeded, without those that cannot hang.
/// @param journal  of all the work, including SetEvent.
/// @param worker   its thread.
/// @param lines    all that it has logged, including verbose lines.
/// @throws std::logic_error  if the journal and the lines don't match, or a step or a resource has no end.
[[nodiscard]] std::vector<Place> PlacesOf(const std::vector<Simulator::JournalEntry> &journal, DWORD worker,
                                          const std::vector<std::string> &lines, const StepLimits &limits);
