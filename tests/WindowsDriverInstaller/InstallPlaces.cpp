#include "InstallPlaces.h"

#include <algorithm>
#include <stdexcept>

#include "Balance.h"

namespace {

using Simulator::JournalEntry;

constexpr char kWaits[] = "WaitForSingleObject";
constexpr char kSleepAtStart[] = "Sleep(100)";
constexpr char kSleepOfCheck[] = "Sleep(2000)";
constexpr char kSleepOfRebinding[] = "Sleep(1000)";

std::size_t LastWaitOf(const std::vector<JournalEntry> &journal, DWORD thread) {
    for (std::size_t i = journal.size(); i != 0; --i) {
        if (journal[i - 1].thread == thread && journal[i - 1].function == kWaits)
            return i - 1;
    }
    throw std::logic_error("the watchdog has never waited");
}

/// What the watchdog's sleeps say about its heartbeats. All other calls follow one closely.
class Heartbeats {
public:
    /// From the last heartbeat to the call's beginning.
    std::uint64_t BeforeCall(const std::string &name) {
        if (name == kSleepOfCheck && m_lastSleep == kSleepOfRebinding)
            m_sinceMs = 0;  // the second recovery begins with one
        const std::uint64_t before = m_sinceMs;
        if (name == kSleepOfCheck || name == kSleepOfRebinding) {
            // The check begins with one, after the first of its sleeps.
            m_sinceMs = m_lastSleep.empty() ? 0 : before + (name == kSleepOfCheck ? 2'000 : 1'000);
            m_lastSleep = name;
        }
        return before;
    }

private:
    std::string m_lastSleep;
    std::uint64_t m_sinceMs = 0;
};

std::vector<InstallPlace> PlacesOfWatchdog(const std::vector<JournalEntry> &journal, const InstallThreads &threads) {
    const auto firstOfWorker = static_cast<std::size_t>(
        std::find_if(journal.begin(), journal.end(),
                     [&threads](const JournalEntry &entry) { return entry.thread == threads.worker; }) -
        journal.begin());
    const std::vector<unsigned> numbers = NumbersOf(journal);
    const std::size_t lastWait = LastWaitOf(journal, threads.watchdog);
    std::vector<InstallPlace> places;
    Heartbeats heartbeats;
    for (std::size_t i = 0; i < journal.size(); ++i) {
        const std::string name = NameOfCall(journal[i]);
        if (journal[i].thread != threads.watchdog || CannotHang(name) || name == kWaits || name == kSleepAtStart)
            continue;
        InstallPlace place;
        place.thread = i < lastWait ? InstallPlace::Thread::Watchdog : InstallPlace::Thread::EndedWatchdog;
        place.function = name;
        place.nth = numbers[i];
        place.entry = i;
        place.beforeWork = i < firstOfWorker;
        place.sinceHeartbeatMs = heartbeats.BeforeCall(name);
        places.push_back(place);
    }
    return places;
}

bool HasCallBefore(const std::vector<JournalEntry> &journal, const std::string &function, std::size_t entry) {
    return std::any_of(journal.begin(), journal.begin() + static_cast<std::ptrdiff_t>(entry),
                       [&function](const JournalEntry &call) { return call.function == function; });
}

/// A removal ends by freeing the setup library, which it holds all the time.
bool EndsARemoval(const Place &place) {
    const auto libraries = place.open.find(Simulator::Kind::kLibrary);
    return place.function == "FreeLibrary" && libraries != place.open.end() && libraries->second == 1;
}

std::vector<InstallPlace> PlacesOfWorker(const std::vector<JournalEntry> &journal, DWORD worker,
                                         const std::vector<std::string> &lines) {
    std::vector<InstallPlace> places;
    bool succeeded = false;
    for (const Place &call : PlacesOf(journal, worker, lines, LimitsOfInstallation())) {
        InstallPlace place;
        static_cast<Place &>(place) = call;
        place.succeeded = succeeded;
        place.removed = HasCallBefore(journal, "INetCfgClassSetup::DeInstall", call.entry);
        place.installed = HasCallBefore(journal, "INetCfgClassSetup::Install", call.entry);
        places.push_back(place);
        succeeded = succeeded || EndsARemoval(call);
    }
    return places;
}

}  // namespace

InstallThreads ThreadsOf(const std::vector<JournalEntry> &journal, DWORD caller) {
    InstallThreads threads;
    for (const JournalEntry &entry : journal) {
        if (entry.thread == caller || entry.thread == threads.watchdog)
            continue;
        // The thread that would resume a paused one makes only these calls.
        if (entry.function == "SetEvent" || entry.function == kWaits)
            continue;
        if (threads.watchdog != 0)
            return {threads.watchdog, entry.thread};
        threads.watchdog = entry.thread;
    }
    return threads;
}

std::vector<std::string> WorkersLines(const std::string &eventText) {
    std::size_t begin = eventText.find('|', eventText.find('|') + 1) + 1;
    std::vector<std::string> lines;
    for (std::size_t end = 0; (end = eventText.find('\n', begin)) != eventText.npos; begin = end + 1)
        lines.push_back(eventText.substr(begin, end - begin));
    return lines;
}

std::vector<InstallPlace> PlacesOfInstallation(const std::vector<JournalEntry> &journal, DWORD caller,
                                               std::vector<std::string> workersLines) {
    const InstallThreads threads = ThreadsOf(journal, caller);
    if (threads.worker == 0)
        throw std::logic_error("nothing was installed");
    workersLines.emplace_back("<ThreadRunning");  // counts for the whole log, since it comes after the work
    std::vector<InstallPlace> places = PlacesOfWatchdog(journal, threads);
    for (const InstallPlace &place : PlacesOfWorker(journal, threads.worker, workersLines))
        places.push_back(place);
    std::sort(places.begin(), places.end(), [](const auto &one, const auto &other) { return one.entry < other.entry; });
    return places;
}
