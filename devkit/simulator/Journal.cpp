#include "Journal.h"

#include <algorithm>
#include <utility>

#include "CallScope.h"

namespace Simulator {

void Journal::Add(std::string function, std::string arguments) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_entries.push_back({std::move(function), std::move(arguments), GetCurrentThreadId()});
}

std::vector<JournalEntry> Journal::Take() {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    return std::exchange(m_entries, {});
}

std::vector<JournalEntry> Journal::Entries() const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    return m_entries;
}

std::size_t Journal::Count(const std::string &function) const {
    const LockGuard guard(m_lock);
    const auto isIt = [&](const JournalEntry &entry) { return entry.function == function; };
    return static_cast<std::size_t>(std::count_if(m_entries.begin(), m_entries.end(), isIt));
}

std::vector<std::string> Journal::Names() const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    std::vector<std::string> names;
    names.reserve(m_entries.size());
    for (const JournalEntry &entry : m_entries)
        names.push_back(entry.function);
    return names;
}

std::string Journal::Text() const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    std::string text;
    for (const JournalEntry &entry : m_entries)
        text += std::to_string(entry.thread) + ": " + entry.function + "(" + entry.arguments + ")\n";
    return text;
}

void Journal::Mute(const std::string &function) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_muted.insert(function);
}

void Journal::MuteAll() {
    const LockGuard guard(m_lock);
    m_mutesAll = true;
}

bool Journal::Wants(const std::string &function) const {
    const LockGuard guard(m_lock);
    return !m_mutesAll && m_muted.find(function) == m_muted.end();
}

}  // namespace Simulator
