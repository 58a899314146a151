#include "InstallFaultPlaces.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <map>
#include <set>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "FaultCodes.h"

namespace {

using Part = FaultPlace::Part;

/// Reads the calls of one thread from its first to its last.
class ThreadReader {
public:
    explicit ThreadReader(std::vector<FaultPlace *> calls) : m_calls(std::move(calls)) {}
    virtual ~ThreadReader() = default;
    ThreadReader(const ThreadReader &) = delete;
    ThreadReader &operator=(const ThreadReader &) = delete;

    void Read() {
        for (m_at = 0; m_at < m_calls.size(); ++m_at) {
            FaultPlace &call = *m_calls[m_at];
            if (call.function == "CoInitializeEx")
                BeginSession();
            else if (!m_inSession)
                Place(call);
            CountItems(call);
            call.part = m_part;
            call.turn = m_turn;
            call.adapter = m_adapter;
            call.path = m_path;
            call.component = m_component;
            call.ordinal = ++m_counts[{m_part, m_turn, m_adapter, m_path, call.function}];
            Leave(call);
        }
    }

protected:
    /// Sets the part of a call outside sessions.
    virtual void Place(const FaultPlace &call) = 0;
    /// Sets the part of a session.
    virtual void PlaceSession(bool withLock) = 0;
    /// After the call.
    virtual void Leave(const FaultPlace &call) { (void)call; }

    void Be(Part part, unsigned turn) {
        m_part = part;
        m_turn = turn;
    }
    void BeNext(Part part) { Be(part, ++m_turns[part]); }
    [[nodiscard]] Part Now() const { return m_part; }

private:
    void BeginSession() {
        m_inSession = true;
        m_adapter = m_path = 0;
        m_component.clear();
        const auto begin = m_calls.begin() + static_cast<std::ptrdiff_t>(m_at);
        const auto end = std::find_if(begin, m_calls.end(),
                                      [](const FaultPlace *call) { return call->function == "CoUninitialize"; });
        PlaceSession(std::any_of(
            begin, end, [](const FaultPlace *call) { return call->function == "INetCfgLock::AcquireWriteLock"; }));
    }

    void CountItems(const FaultPlace &call) {
        if (call.function == "IEnumNetCfgComponent::Next") {
            ++m_adapter;
            m_path = 0;
        } else if (call.function == "IEnumNetCfgBindingPath::Next") {
            ++m_path;
        } else if (call.function == "INetCfg::FindComponent") {
            m_component = call.arguments.substr(1, call.arguments.find('"', 1) - 1);
        } else if (call.function == "CoUninitialize") {
            m_inSession = false;
        }
    }

    const std::vector<FaultPlace *> m_calls;
    std::size_t m_at = 0;
    bool m_inSession = false;
    Part m_part = Part::Start;
    unsigned m_turn = 1;
    unsigned m_adapter = 0;
    unsigned m_path = 0;
    std::string m_component;
    std::map<Part, unsigned> m_turns;
    std::map<std::tuple<Part, unsigned, unsigned, unsigned, std::string>, unsigned> m_counts;
};

class CallerReader : public ThreadReader {
public:
    using ThreadReader::ThreadReader;

private:
    void Place(const FaultPlace &) override {}
    void PlaceSession(bool) override { throw std::logic_error("the script's thread has no session"); }
};

class WatchdogReader : public ThreadReader {
public:
    explicit WatchdogReader(std::vector<FaultPlace *> calls) : ThreadReader(std::move(calls)) { Be(Part::Decision, 1); }

private:
    void Place(const FaultPlace &call) override {
        static const std::set<std::string> network{"GetIpNetTable", "DeleteIpNetEntry", "SendARP"};
        if (call.function == "CreateEventW")
            Be(Part::Worker, 1);
        else if (call.function == "GetVersionExW")
            Be(Part::Workaround, 1);
        else if (call.function == "SetupDiGetClassDevsW")
            BeNext(Part::Restart);
        else if (network.count(call.function) != 0)
            Be(Part::Network, 1);
        else if (call.function == "VerifyVersionInfoW" || call.function == "CloseHandle")
            Be(Part::Rest, 1);
    }
    void PlaceSession(bool withLock) override { BeNext(withLock ? Part::Bindings : Part::Records); }
};

class WorkerReader : public ThreadReader {
public:
    using ThreadReader::ThreadReader;

private:
    void Place(const FaultPlace &call) override {
        if (call.function == "LoadLibraryW" && ++m_libraries == 1 && !m_installs)
            Be(Part::Removal, ++m_removal);
        if (m_libraries == 0 && !m_installs) {  // after the last removal
            m_installs = true;
            m_removal = 0;
            Be(Part::Callout, 0);
        } else if (call.function.starts_with("SetupDi")) {
            Be(Part::Orphans, m_removal);
        } else if (m_installs) {
            PlaceInInstallation(call.function);
        } else if (call.function == "SHGetFolderPathW") {
            Be(Part::InfRemoval, m_removal);
        } else if (call.function == "FreeLibrary" && m_libraries == 1) {
            Be(Part::Removal, m_removal);
        }
    }

    void PlaceInInstallation(const std::string &function) {
        if (function.starts_with("Reg"))
            Be(Part::Values, 0);
        else if (function == "GetFileAttributesW" && Now() != Part::Callout)
            Be(Part::Copying, 0);
    }

    void PlaceSession(bool withLock) override {
        if (!withLock)
            Be(Part::Presence, m_removal);
        else
            Be(m_installs ? Part::Installation : Part::Uninstallation, m_removal);
    }

    void Leave(const FaultPlace &call) override { m_libraries -= call.function == "FreeLibrary" ? 1 : 0; }

    int m_libraries = 0;     ///< Currently loaded.
    unsigned m_removal = 0;  ///< The current one; 0 after the last.
    bool m_installs = false;
};

std::vector<DWORD> ThreadsInOrder(const std::vector<Simulator::JournalEntry> &journal, DWORD caller) {
    std::vector<DWORD> threads{caller};
    for (const Simulator::JournalEntry &entry : journal) {
        if (std::find(threads.begin(), threads.end(), entry.thread) == threads.end())
            threads.push_back(entry.thread);
    }
    if (threads.size() != 3)
        throw std::logic_error("an installation takes two threads beside the script's");
    return threads;
}

std::vector<FaultPlace> CallsOf(const std::vector<Simulator::JournalEntry> &journal, DWORD thread, unsigned number) {
    std::vector<FaultPlace> calls;
    std::map<std::string, unsigned> counts;
    for (const Simulator::JournalEntry &entry : journal) {
        if (entry.thread != thread || HasNoOrder(entry.function))
            continue;
        FaultPlace call;
        call.function = entry.function;
        call.thread = number;
        call.nth = ++counts[entry.function];
        call.arguments = entry.arguments;
        calls.push_back(call);
    }
    return calls;
}

template <class Reader>
void Read(std::vector<FaultPlace> &calls) {
    std::vector<FaultPlace *> pointers;
    for (FaultPlace &call : calls)
        pointers.push_back(&call);
    Reader(std::move(pointers)).Read();
}

}  // namespace

const char *NameOf(FaultPlace::Part part) {
    static const std::map<Part, const char *> names{
        {Part::Start, "start"},
        {Part::Decision, "decision"},
        {Part::Worker, "worker"},
        {Part::Workaround, "workaround"},
        {Part::Records, "records"},
        {Part::Bindings, "bindings"},
        {Part::Network, "network"},
        {Part::Restart, "restart"},
        {Part::Rest, "rest"},
        {Part::Removal, "removal"},
        {Part::Uninstallation, "uninstallation"},
        {Part::InfRemoval, "INF removal"},
        {Part::Presence, "presence"},
        {Part::Orphans, "orphans"},
        {Part::Callout, "callout"},
        {Part::Copying, "copying"},
        {Part::Installation, "installation"},
        {Part::Values, "values"},
    };
    return names.at(part);
}

std::string NameOf(const FaultPlace &place) {
    static constexpr std::array<const char *, 3> threads{"script", "watchdog", "worker"};
    return std::string(threads.at(place.thread)) + ":" + place.function + "#" + std::to_string(place.nth);
}

std::vector<FaultPlace> FaultPlacesOf(const std::vector<Simulator::JournalEntry> &journal, DWORD caller) {
    const std::vector<DWORD> threads = ThreadsInOrder(journal, caller);
    std::vector<FaultPlace> all;
    for (unsigned number = 0; number < threads.size(); ++number) {
        std::vector<FaultPlace> calls = CallsOf(journal, threads[number], number);
        if (number == 0)
            Read<CallerReader>(calls);
        else if (number == 1)
            Read<WatchdogReader>(calls);
        else
            Read<WorkerReader>(calls);
        all.insert(all.end(), calls.begin(), calls.end());
    }
    std::erase_if(all, [](const FaultPlace &call) { return NeverFails(call.function); });
    return all;
}
