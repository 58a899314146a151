#include "CallPlaces.h"

#include <algorithm>
#include <array>
#include <set>
#include <stdexcept>
#include <utility>

#include "Balance.h"
#include "ComLibrary.h"
#include "DeviceManager.h"

namespace {

namespace Kind = Simulator::Kind;
using Simulator::JournalEntry;

constexpr char kLogsALine[] = "GetSystemTimeAsFileTime";
constexpr char kEndsAStep[] = "SetEvent";
constexpr char kSleeps[] = "Sleep";

/// A step that logs no line, and the call that it begins with.
struct SilentStep {
    std::string_view call;
    std::string_view below;  ///< The enclosing step; empty for any.
    std::string_view name;
};
constexpr std::array<SilentStep, 4> kSilentSteps{{
    {"CoCreateInstance", "", "GettingInetCfg"},
    {"INetCfg::QueryInterface", "GettingInetCfg", "GettingNetworkConfigLock"},
    {"INetCfg::Uninitialize", "", "ReleasingInetCfg"},
    {"INetCfgLock::ReleaseWriteLock", "ReleasingInetCfg", "ReleasingNetworkConfigLock"},
}};

/// A function that creates a resource, or releases it.
struct Effect {
    std::string_view function;
    std::string_view kind;
    int change;
};
constexpr std::array<Effect, 23> kEffects{{
    {"CreateFileW", Kind::kHandle, 1},
    {"CreateFileMappingW", Kind::kHandle, 1},
    {"OpenProcessToken", Kind::kHandle, 1},
    {"CloseHandle", Kind::kHandle, -1},
    {"FindFirstFileW", Kind::kFind, 1},
    {"FindClose", Kind::kFind, -1},
    {"MapViewOfFile", Kind::kView, 1},
    {"UnmapViewOfFile", Kind::kView, -1},
    {"LoadLibraryW", Kind::kLibrary, 1},
    {"FreeLibrary", Kind::kLibrary, -1},
    {"OpenSCManagerW", Kind::kService, 1},
    {"OpenServiceW", Kind::kService, 1},
    {"CloseServiceHandle", Kind::kService, -1},
    {"CoInitializeEx", Kind::kComInitialisation, 1},
    {"CoUninitialize", Kind::kComInitialisation, -1},
    {"SetupDiGetClassDevsW", Kind::kDeviceList, 1},
    {"SetupDiDestroyDeviceInfoList", Kind::kDeviceList, -1},
    {"RegOpenKeyExW", Kind::kKey, 1},
    {"RegCloseKey", Kind::kKey, -1},
    {"AllocateAndInitializeSid", Kind::kSid, 1},
    {"FreeSid", Kind::kSid, -1},
    {"SetEntriesInAclW", Kind::kLocalMemory, 1},
    {"LocalFree", Kind::kLocalMemory, -1},
}};

/// Reads the work of one thread from beginning to end.
class Reader {
public:
    Reader(const std::vector<JournalEntry> &journal, DWORD worker, const std::vector<std::string> &lines,
           const StepLimits &limits)
        : m_journal(journal), m_numbers(NumbersOf(journal)), m_worker(worker), m_lines(lines), m_limits(limits) {
        StartStep("ThreadRunning");  // by its creator
    }

    std::vector<Place> Read() {
        for (std::size_t i = 0; i < m_journal.size(); ++i) {
            if (m_journal[i].thread == m_worker)
                ReadCall(i);
        }
        for (const auto &[kind, count] : m_open) {
            if (count != 0)
                throw std::logic_error("not all was given back: " + kind);
        }
        if (!m_steps.empty() || m_locked || m_line != m_lines.size())
            throw std::logic_error("a step, the write lock or the log has no end");
        return m_places;
    }

private:
    struct Step {
        std::string name;
        std::uint64_t deadlineMs;
    };

    void ReadCall(std::size_t index) {
        const std::string &function = m_journal[index].function;
        if (function == kLogsALine)
            return ReadLine();
        if (function == kEndsAStep)
            return EndStep();
        for (const SilentStep &silent : kSilentSteps) {
            if (function == silent.call && (silent.below.empty() || Top().name == silent.below))
                StartStep(std::string(silent.name));
        }
        m_places.push_back({NameOfCall(m_journal[index]), m_numbers[index], Top().name, Top().deadlineMs, m_open,
                            m_locked, m_line, index});
        Count(index);
        if (function == kSleeps)
            m_nowMs += std::stoul(m_journal[index].arguments);
    }

    void ReadLine() {
        if (m_line == m_lines.size())
            throw std::logic_error("the worker has logged lines that the log has not");
        const std::string &line = m_lines[m_line++];
        const std::size_t begin = line.find_first_not_of(' ');
        if (begin != line.npos && line[begin] == '>')
            StartStep(line.substr(begin + 1, line.find('.') - begin - 1));
    }

    void StartStep(const std::string &name) { m_steps.push_back({name, m_nowMs + m_limits.at(name)}); }

    void EndStep() {
        (void)Top();
        m_steps.pop_back();
    }

    const Step &Top() const {
        if (m_steps.empty())
            throw std::logic_error("the worker goes on behind its last step");
        return m_steps.back();
    }

    void Count(std::size_t index) {
        const std::string &function = m_journal[index].function;
        for (const Effect &effect : kEffects) {
            if (effect.function == function && !FailsToOpen(index))
                m_open[std::string(effect.kind)] += effect.change;
        }
        if (function == "INetCfgLock::AcquireWriteLock")
            m_locked = true;
        else if (function == "INetCfgLock::ReleaseWriteLock")
            m_locked = false;
    }

    /// A service that no longer exists: the next handle that is closed is the manager's.
    bool FailsToOpen(std::size_t index) const {
        const JournalEntry &opening = m_journal[index];
        if (opening.function != "OpenServiceW")
            return false;
        const auto closing =
            std::find_if(m_journal.begin() + static_cast<std::ptrdiff_t>(index), m_journal.end(),
                         [](const JournalEntry &entry) { return entry.function == "CloseServiceHandle"; });
        return closing != m_journal.end() && opening.arguments.starts_with(closing->arguments + ",");
    }

    const std::vector<JournalEntry> &m_journal;
    const std::vector<unsigned> m_numbers;
    const DWORD m_worker;
    const std::vector<std::string> &m_lines;
    const StepLimits &m_limits;
    std::size_t m_line = 0;
    std::uint64_t m_nowMs = 0;
    std::vector<Step> m_steps;
    std::map<std::string, int> m_open;
    bool m_locked = false;
    std::vector<Place> m_places;
};

}  // namespace

const StepLimits &LimitsOfRemoval() {
    static const StepLimits limits{
        {"ThreadRunning", 3'600'000},
        {"ApplyingInetCfgChanges", 300'000},
        {"CheckingIfStillInstalled", 60'000},
        {"CleaningUpOrphans", 180'000},
        {"FindingComponent", 15'000},
        {"GettingClassGUID", 10'000},
        {"GettingInetCfg", 10'000},
        {"GettingINetCfgClass", 10'000},
        {"GettingINetCfgClassSetup", 10'000},
        {"GettingNetworkConfigLock", 30'000},
        {"ReleasingInetCfg", 10'000},
        {"ReleasingNetworkConfigLock", 10'000},
        {"RemovingInfFiles", 300'000},
        {"UninstallingDriver", 600'000},
        {"UninstallingWfpCalloutDriver", 300'000},
    };
    return limits;
}

const StepLimits &LimitsOfInstallation() {
    static const StepLimits limits = [] {
        StepLimits all{
            {"CopyingInfFiles", 600'000},  {"EnsuringDriverUnloaded", 60'000},      {"GettingAdapterInfo", 10'000},
            {"InstallingDriver", 600'000}, {"InstallingWfpCalloutDriver", 300'000},
        };
        all.insert(LimitsOfRemoval().begin(), LimitsOfRemoval().end());
        return all;
    }();
    return limits;
}

std::string NameOfCall(const JournalEntry &entry) {
    return entry.function == kSleeps ? entry.function + "(" + entry.arguments + ")" : entry.function;
}

std::vector<unsigned> NumbersOf(const std::vector<JournalEntry> &journal) {
    std::map<std::pair<DWORD, std::string>, unsigned> calls;
    std::vector<unsigned> numbers;
    for (const JournalEntry &entry : journal)
        numbers.push_back(++calls[{entry.thread, NameOfCall(entry)}]);
    return numbers;
}

bool CannotHang(const std::string &function) {
    return function == kLogsALine || function == kEndsAStep;
}

std::vector<std::string_view> KindsInJournals() {
    std::set<std::string_view> kinds;
    for (const Effect &effect : kEffects)
        kinds.insert(effect.kind);
    return {kinds.begin(), kinds.end()};
}

std::vector<std::string> LinesOf(const std::vector<JournalEntry> &journal, DWORD thread,
                                 const std::vector<LogLine> &log) {
    const auto logged = std::count_if(journal.begin(), journal.end(), [thread](const JournalEntry &entry) {
        return entry.thread == thread && entry.function == kLogsALine;
    });
    if (log.size() < static_cast<std::size_t>(logged))
        throw std::logic_error("the thread has logged lines that the log has not");
    std::vector<std::string> lines;
    for (auto line = log.end() - logged; line != log.end(); ++line)
        lines.push_back(line->text);
    return lines;
}

std::vector<Place> PlacesOf(const std::vector<JournalEntry> &journal, DWORD worker,
                            const std::vector<std::string> &lines, const StepLimits &limits) {
    return Reader(journal, worker, lines, limits).Read();
}
