// The calls that a removal makes, and for each of them: which step is on top of the stack then, and what is open.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

#include "Journal.h"
#include "RemovalFixture.h"

/// A call of a removal.
struct Place {
    std::string function;
    unsigned nth = 0;                 ///< Among the calls of the function since the removal began; from 1.
    std::string step;                 ///< The one on top of the stack.
    std::uint64_t limitMs = 0;        ///< What that step may take.
    std::map<std::string, int> open;  ///< How many things the worker has open, by kinds of the balance.
    bool holdsLock = false;           ///< Whether it has the write lock.
};

/// The limit of each step of a removal, in milliseconds.
[[nodiscard]] const std::map<std::string, std::uint64_t> &LimitsOfRemoval();

/// The kinds of things that a journal tells both the making and the end of.
[[nodiscard]] std::vector<std::string_view> KindsInJournals();

/// The calls of the worker in a removal that ended well. Left out are those that cannot hang: they tell the time, log
/// or signal.
/// @param journal  of the whole removal, with SetEvent in it.
/// @param log      all of its lines, the verbose ones too: the caller's, then the worker's.
/// @param caller   the thread that watched.
/// @throws std::logic_error  if the journal and the log don't fit each other, or a step or a thing has no end.
[[nodiscard]] std::vector<Place> PlacesOf(const std::vector<Simulator::JournalEntry> &journal,
                                          const std::vector<LogLine> &log, DWORD caller);
