// The calls that a driver thread makes, and for each of them: which step is on top of the stack then, and what is open.
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
    std::string function;             ///< As NameOfCall has it.
    unsigned nth = 0;                 ///< Among its thread's calls of that name since the script's; from 1.
    std::string step;                 ///< The one on top of the stack.
    std::uint64_t deadlineMs = 0;     ///< When that step's time is up, if nothing but the thread's sleeps takes time.
    std::map<std::string, int> open;  ///< How many things the thread has open, by kinds of the balance.
    bool holdsLock = false;           ///< Whether it has the write lock.
    std::size_t lines = 0;            ///< How many it has logged.
    std::size_t entry = 0;            ///< The call's in the journal.
};

using StepLimits = std::map<std::string, std::uint64_t>;
/// The limit of each step of a removal, in milliseconds.
[[nodiscard]] const StepLimits &LimitsOfRemoval();
/// The same of an installation, whose steps are those of a removal and more.
[[nodiscard]] const StepLimits &LimitsOfInstallation();

/// The function; a sleep's with its milliseconds, such as "Sleep(500)".
[[nodiscard]] std::string NameOfCall(const Simulator::JournalEntry &entry);
/// For each entry of a journal, which call of that name it is among those of its thread; from 1.
[[nodiscard]] std::vector<unsigned> NumbersOf(const std::vector<Simulator::JournalEntry> &journal);
/// Whether it tells the time, logs or signals, and so cannot hang.
[[nodiscard]] bool CannotHang(const std::string &function);

/// The kinds of things that a journal tells both the making and the end of.
[[nodiscard]] std::vector<std::string_view> KindsInJournals();

/// The lines that the thread has logged, which are the last ones of the log.
/// @throws std::logic_error  if there are fewer.
[[nodiscard]] std::vector<std::string> LinesOf(const std::vector<Simulator::JournalEntry> &journal, DWORD thread,
                                               const std::vector<LogLine> &log);

/// The calls of a worker whose work ended well, without those that cannot hang.
/// @param journal  of the whole work, with SetEvent in it.
/// @param worker   its thread.
/// @param lines    all that it has logged, the verbose ones too.
/// @throws std::logic_error  if the journal and the lines don't fit each other, or a step or a thing has no end.
[[nodiscard]] std::vector<Place> PlacesOf(const std::vector<Simulator::JournalEntry> &journal, DWORD worker,
                                          const std::vector<std::string> &lines, const StepLimits &limits);
