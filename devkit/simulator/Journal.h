// The record of redirected calls.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "Lock.h"

namespace Simulator {

struct JournalEntry {
    std::string function;
    std::string arguments;  ///< As ArgumentText prints them, in UTF-8.
    DWORD thread = 0;
};

/// Every redirected call in the order in which the calls began. Any thread.
class Journal {
public:
    void Add(std::string function, std::string arguments);

    /// The calls since the last Take, oldest first; clears the record.
    [[nodiscard]] std::vector<JournalEntry> Take();
    [[nodiscard]] std::vector<JournalEntry> Entries() const;
    /// How often the record contains the function.
    [[nodiscard]] std::size_t Count(const std::string &function) const;
    /// The functions in the record, in the order of the calls, with repetitions.
    [[nodiscard]] std::vector<std::string> Names() const;
    /// One line per call: thread, function(arguments).
    [[nodiscard]] std::string Text() const;

    /// Excludes a function from now on: for those that are called endlessly.
    void Mute(const std::string &function);
    /// Excludes everything from now on: for a program that does not read it.
    void MuteAll();
    [[nodiscard]] bool Wants(const std::string &function) const;

private:
    mutable Lock m_lock;
    std::vector<JournalEntry> m_entries;
    std::set<std::string> m_muted;
    bool m_mutesAll = false;
};

}  // namespace Simulator
