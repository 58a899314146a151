#include "MeasuredInstallation.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <utility>
#include <vector>

#include "AdapterMachine.h"
#include "Bench.h"
#include "Failure.h"
#include "WindowsDriverInstaller/threads/Steps.h"
#include "WindowsFunctions.h"

using Simulator::InsideSimulator;
using std::chrono::milliseconds;

namespace {

namespace System {
SIMULATOR_FUNCTION(SetEvent, "KERNEL32.dll", ReturnsZero);  // marks the end of a step
}

constexpr char kInstall[] = "INetCfgClassSetup::Install";

/// The program itself reads the performance counter in simulated time.
double RealNow() {
    const InsideSimulator inside;
    return Now();
}

void Require(bool condition, const char *what) {
    if (!condition)
        NoteFailure(what);
}

/// What the worker's calls show about its steps.
struct Stamp {
    enum class What { Line, StepBegins, StepEnds };
    What what;
    DWORD thread;
    double seconds;
    std::uint64_t tickMs;
};

/// Any thread.
class Stamps {
public:
    void Add(const Stamp &stamp) {
        const Simulator::LockGuard guard(m_lock);
        m_stamps.push_back(stamp);
    }
    /// Those of one thread.
    [[nodiscard]] std::vector<Stamp> Of(DWORD thread) const {
        const Simulator::LockGuard guard(m_lock);
        std::vector<Stamp> stamps = m_stamps;
        std::erase_if(stamps, [thread](const Stamp &stamp) { return stamp.thread != thread; });
        return stamps;
    }
    void Clear() {
        const Simulator::LockGuard guard(m_lock);
        m_stamps.clear();
    }

private:
    mutable Simulator::Lock m_lock;
    std::vector<Stamp> m_stamps;
};

/// Computes how long each step took from the time stamps and the log of a worker.
class StepReader {
public:
    explicit StepReader(const std::string &log) : m_log(log) {}

    void Read(const Stamp &stamp) {
        if (!m_steps.empty())
            m_seconds[m_steps.back()] += stamp.seconds - m_last;
        m_last = stamp.seconds;
        if (stamp.what == Stamp::What::Line)
            (void)std::getline(m_log, m_line);
        else if (stamp.what == Stamp::What::StepBegins)
            m_steps.push_back(NameInLine());
        else if (!m_steps.empty())
            m_steps.pop_back();
    }

    std::map<std::string, double> Seconds() && {
        Require(m_steps.empty() && !std::getline(m_log, m_line), "its log and its steps don't fit each other");
        return std::move(m_seconds);
    }

private:
    /// Some steps log no line.
    std::string NameInLine() {
        const std::size_t begin = m_line.find_first_not_of(' ');
        if (begin == m_line.npos || m_line[begin] != '>')
            return "the lock and the object of the network configuration";
        std::string name = m_line.substr(begin + 1, m_line.find('.') - begin - 1);
        m_line.clear();
        return name;
    }

    std::istringstream m_log;
    std::string m_line;
    std::vector<std::string> m_steps;
    std::map<std::string, double> m_seconds;
    double m_last = 0;
};

}  // namespace

void NoteFailure(const std::string &what) {
    (void)std::fprintf(stderr, "bench: the installation that is measured has failed: %s\n", what.c_str());
    std::exit(2);
}

class MeasuredInstallation::Machine : protected AdapterMachine {
public:
    explicit Machine(std::size_t adapters) {
        for (std::size_t i = 0; i < adapters; ++i)
            PutAdapter(i);
        Watch<Simulator::System::GetSystemTimeAsFileTime>(Stamp::What::Line);
        Watch<Simulator::System::GetTickCount>(Stamp::What::StepBegins);
        Watch<System::SetEvent>(Stamp::What::StepEnds);
    }

    InstallTimes Measure() {
        m_stamps->Clear();
        InstallTimes times;
        const double begin = RealNow();
        const InstallOutcome outcome = InstallWhile([&] {
            while (!returned)
                Simulator::System::Sleep::Real(1);
            times.ownSeconds = RealNow() - begin;
        });
        Require(outcome.EventTexts(1007).size() == 1, "the event of a success is missing");
        times.waitedSeconds = static_cast<double>(outcome.tookMs) / 1000;
        times.calls = CallsOfTheWork();
        m_text = outcome.EventTexts(1007)[0];
        return times;
    }

    /// From the last installation. One that stops a service reads the time between its steps, too, and can't be
    /// evaluated.
    std::map<std::string, double> SecondsOfSteps() {
        StepReader reader(m_text.substr(m_text.find('|', m_text.find('|') + 1) + 1));
        for (const Stamp &stamp : m_stamps->Of(CallerOf(kInstall)))
            reader.Read(stamp);
        return std::move(reader).Seconds();
    }

    void RemoveDriver() {
        if (network().Has(L"qbimvta"))
            Require(Uninstall().result, "the drivers can't be removed");
    }

    void PutOldDriver() {
        InstallOldDriver({1, 0, 0, 0});
        for (const std::wstring &node : m_nodes)
            network().Bind(node, L"qbimvta");
    }

    double MeasureKill() {
        const Simulator::FaultPlanHandle plan = simulation().GetFaults().HangNth(kInstall, 1);
        double seconds = 0;
        const InstallOutcome outcome = InstallWhile([&] {
            const InsideSimulator inside;
            Require(plan->WaitUntilHit(kPatienceMs), "it does not come to the call that is to hang");
            const HANDLE worker = OpenThread(SYNCHRONIZE, FALSE, CallerOf(kInstall));
            PassTheTime();
            const double timeUp = Now();
            simulation().GetClock().Advance(milliseconds(1));
            Require(WaitForSingleObject(worker, kPatienceMs) == WAIT_OBJECT_0, "the hung worker is not ended");
            seconds = Now() - timeUp;
            (void)CloseHandle(worker);
        });
        Require(outcome.EventTexts(1004).size() == 1, "the event of a failure is missing");
        simulation().GetFaults().Clear();
        return seconds;
    }

private:
    template <class F>
    void Watch(Stamp::What what) {
        simulation().Functions().Put<F>(
            [what, stamps = m_stamps, &clock = simulation().GetClock()](const auto &next, auto... arguments) {
                stamps->Add({what, GetCurrentThreadId(), Now(), clock.TickMs()});
                return next(arguments...);
            },
            Simulator::Depth::Watch);
    }

    static std::wstring Number(std::size_t number) { return std::to_wstring(100'000 + number); }

    void PutAdapter(std::size_t number) {
        const std::wstring node = L"PCI\\VEN_1000&DEV_" + Number(number) + L"\\1";
        network().PutAdapter({.id = L"PCI\\VEN_1000&DEV_" + Number(number),
                              .bindName = L"{33333333-0000-0000-0000-000000" + Number(number) + L"}",
                              .pnpDevNodeId = node,
                              .displayName = L"Adapter " + Number(number),
                              .mac = {2, 0, 0, 0, static_cast<BYTE>(number >> 8), static_cast<BYTE>(number)},
                              .ip = "10.1.0.10",
                              .gateway = "10.1.0.1",
                              .frames = 1});
        network().Bind(node, L"ms_tcpip");
        simulation().GetDevices().Put({.instanceId = node, .description = L"Network adapter"});
        m_nodes.push_back(node);
    }

    /// Of both threads. The caller only watches, as often as there is time for.
    std::size_t CallsOfTheWork() {
        const auto calls = simulation().GetJournal().Entries();
        const DWORD caller = GetCurrentThreadId();
        return static_cast<std::size_t>(
            std::count_if(calls.begin(), calls.end(), [caller](const auto &call) { return call.thread != caller; }));
    }

    DWORD CallerOf(const std::string &function) {
        for (const Simulator::JournalEntry &entry : simulation().GetJournal().Entries())
            if (entry.function == function)
                return entry.thread;
        return 0;
    }

    /// To the last millisecond of the worker's current step.
    void PassTheTime() {
        std::uint64_t begin = 0;
        for (const Stamp &stamp : m_stamps->Of(CallerOf(kInstall)))
            if (stamp.what == Stamp::What::StepBegins)
                begin = stamp.tickMs;
        const std::uint64_t limitMs = StepLimitSeconds(InstallingDriver) * std::uint64_t{1'000};
        Simulator::Clock &clock = simulation().GetClock();
        Require(clock.AwaitWaiting(1, kPatienceMs), "nobody waits for the hung worker");
        Sleep(kSettleMs);
        const std::size_t polls = Polls();
        clock.Advance(milliseconds(begin + limitMs - 1 - clock.TickMs()));
        for (DWORD waitedMs = 0; Polls() == polls; ++waitedMs) {
            Require(waitedMs < kPatienceMs, "the watchdog does not poll the hung worker");
            Sleep(1);
        }
        Sleep(kSettleMs);
        Require(clock.AwaitWaiting(1, kPatienceMs), "the hung worker was given up too early");
    }

    /// Each ends in a wait.
    std::size_t Polls() { return simulation().GetJournal().Count("WaitForSingleObject"); }

    static constexpr DWORD kSettleMs = 20;  ///< Real ones, in which a thread that begins to wait gets there.

    std::vector<std::wstring> m_nodes;
    std::string m_text;                                                   ///< Of the event of the last success.
    const std::shared_ptr<Stamps> m_stamps = std::make_shared<Stamps>();  ///< Extended by the simulation's end.
};

MeasuredInstallation::MeasuredInstallation(std::size_t adapters) : m_machine(std::make_unique<Machine>(adapters)) {}
MeasuredInstallation::~MeasuredInstallation() = default;

InstallTimes MeasuredInstallation::Install() {
    m_machine->RemoveDriver();
    InstallTimes times = m_machine->Measure();
    times.ownSecondsOfSteps = m_machine->SecondsOfSteps();
    return times;
}

InstallTimes MeasuredInstallation::Upgrade() {
    m_machine->RemoveDriver();
    m_machine->PutOldDriver();
    return m_machine->Measure();
}

double MeasuredInstallation::SecondsToKill() {
    return m_machine->MeasureKill();
}
