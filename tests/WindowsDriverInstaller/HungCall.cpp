#include "HungCall.h"

#include <algorithm>

#include <dbghelp.h>

#include "WindowsFunctions.h"
#include "vta_core_control.h"

namespace Kind = Simulator::Kind;
using Simulator::InsideSimulator;
using std::chrono::milliseconds;

namespace {

/// Real milliseconds in which a watcher that looks at the wrong time would do so.
constexpr DWORD kUntilNoticedMs = 3;
/// A watcher that waits for longer waits for the end of a thread that it has killed.
constexpr DWORD kLongestWatchMs = 1'000;

namespace System {

// They tell where a step ends, and that a file is removed by the C runtime.
SIMULATOR_FUNCTION(SetEvent, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(_wremove, Simulator::kCRuntime, CannotFail);
SIMULATOR_FUNCTION(SymInitializeW, "dbghelp.dll", ReturnsZero);
SIMULATOR_FUNCTION(SymCleanup, "dbghelp.dll", ReturnsZero);

}  // namespace System

}  // namespace

/// Knows when the watcher waits, so that the clock is not moved while it works out how long to wait.
class WatcherSight {
public:
    explicit WatcherSight(Simulator::Clock &clock) : m_clock(clock), m_watcher(GetCurrentThreadId()) {}

    void SetWatcher(DWORD watcher, DWORD poller) {
        const Simulator::LockGuard guard(m_lock);
        m_watcher = watcher;
        m_poller = poller;
        m_phase = Phase::Works;
        m_pollerSleeps = false;
    }
    void SetSleeps(bool sleeps) {
        const Simulator::LockGuard guard(m_lock);
        if (GetCurrentThreadId() == m_poller)
            m_pollerSleeps = sleeps;
    }
    void SetLooks() {
        const Simulator::LockGuard guard(m_lock);
        if (GetCurrentThreadId() == m_watcher)
            m_phase = Phase::Looks;
    }
    void SetWaits() {
        const Simulator::LockGuard guard(m_lock);
        if (GetCurrentThreadId() == m_watcher)
            m_phase = Phase::Waits;
    }
    /// Once in a wait.
    /// @return false if it does not wait, or the poller does not sleep; the clock then stays.
    bool AdvanceWhileItWaits(std::uint64_t untilTick) {
        const Simulator::LockGuard guard(m_lock);
        if (m_phase != Phase::Waits || m_clock.Waiting() != 1 || (m_poller != 0 && !m_pollerSleeps))
            return false;
        m_phase = Phase::Works;
        m_clock.Advance(milliseconds(untilTick - std::min(untilTick, m_clock.TickMs())));
        return true;
    }

private:
    Simulator::Clock &m_clock;
    Simulator::Lock m_lock;
    DWORD m_watcher;
    enum class Phase { Works, Looks, Waits };  ///< It looks when it has read the ticks, and not begun to wait.
    Phase m_phase = Phase::Works;
    DWORD m_poller = 0;
    bool m_pollerSleeps = false;
};

SeenThread::SeenThread(DWORD id) {
    const InsideSimulator inside;
    m_handle.reset(OpenThread(SYNCHRONIZE, FALSE, id));
}

void SeenThread::Close::operator()(HANDLE thread) const {
    const InsideSimulator inside;
    CloseHandle(thread);
}

bool SeenThread::AwaitEnd(DWORD realMs) const {
    const InsideSimulator inside;
    return m_handle && WaitForSingleObject(m_handle.get(), realMs) == WAIT_OBJECT_0;
}

std::vector<std::string> StacksIn(const std::vector<LogLine> &log) {
    std::vector<std::string> stacks;
    for (const LogLine &line : log) {
        if (line.level == wxLOG_Info && line.text.starts_with("Stack trace:\n"))
            stacks.push_back(line.text);
    }
    return stacks;
}

std::vector<Simulator::BalanceItem> NewThings(const Simulator::BalanceSnapshot &before) {
    const InsideSimulator inside;
    auto items = Simulator::Balance::Left(before, Simulator::Balance::Instance().Take());
    std::erase_if(items, [](const auto &item) { return item.kind == std::string_view(Kind::kBlock); });
    return items;
}

bool IsThread(const Simulator::BalanceItem &item) {
    return item.function == std::string_view("_beginthreadex");
}

HungCall::HungCall(Simulator::Simulation &simulation, const std::atomic<bool> &returned)
    : m_simulation(simulation), m_returned(returned), m_sight(std::make_shared<WatcherSight>(simulation.GetClock())) {
    wxLog::SetVerbose(true);
    Simulator::FunctionSet &functions = simulation.Functions();
    functions.PassThrough<System::SetEvent>();
    functions.PassThrough<System::_wremove>();
    functions.PassThrough<System::SymInitializeW>();
    functions.PassThrough<System::SymCleanup>();
    functions.Put<Simulator::System::GetTickCount>(
        [sight = m_sight](const auto &next) {
            sight->SetLooks();
            return next();
        },
        Simulator::Depth::Watch);
    functions.Put<Simulator::System::WaitForSingleObject>(
        [sight = m_sight](const auto &next, HANDLE handle, DWORD ms) {
            if (ms <= kLongestWatchMs)
                sight->SetWaits();
            return next(handle, ms);
        },
        Simulator::Depth::Watch);
    functions.Put<Simulator::System::Sleep>(
        [&faults = simulation.GetFaults(), sight = m_sight](const auto &next, DWORD ms) {
            for (const auto &hang : faults.Ask("Sleep(" + std::to_string(ms) + ")", false).hangs)
                hang->Hang();
            sight->SetSleeps(true);
            next(ms);
            sight->SetSleeps(false);
        },
        Simulator::Depth::Watch);
}

HungCall::~HungCall() {
    const InsideSimulator inside;
    if (m_hasModules)
        SymCleanup(GetCurrentProcess());
    wxLog::SetVerbose(false);
}

void HungCall::KeepModulesForStacks() {
    m_simulation.Functions().Put<System::SymInitializeW>(
        [this](const auto &next, HANDLE process, PCWSTR path, BOOL invade) -> BOOL {
            if (!m_hasModules)
                m_hasModules = next(process, path, invade) != FALSE;
            return m_hasModules;
        });
    m_simulation.Functions().Put<System::SymCleanup>([](const auto &, HANDLE) { return TRUE; });
}

void HungCall::SetWatcher(DWORD watcher, DWORD poller) {
    m_sight->SetWatcher(watcher, poller);
}

bool HungCall::AdvanceTo(std::uint64_t tick, std::uint64_t leapMs) {
    const Simulator::Clock &clock = m_simulation.GetClock();
    do {
        const std::uint64_t now = std::min(clock.TickMs(), tick);
        const std::uint64_t next = now + std::min(tick - now, leapMs);
        bool advanced = false;
        (void)Await(kPatienceMs, [&] { return m_returned || (advanced = m_sight->AdvanceWhileItWaits(next)); });
        if (!advanced)
            return false;
    } while (clock.TickMs() < tick);
    return true;
}

void HungCall::LetLook() {
    const InsideSimulator inside;
    Sleep(kUntilNoticedMs);
}

bool HungCall::AwaitReturn() const {
    return Await(kPatienceMs, [this] { return m_returned.load(); });
}

bool HungCall::AwaitObjects(int objects, const Simulator::BalanceSnapshot &before) {
    return Await(kPatienceMs, [&] {
        const std::vector<Simulator::BalanceItem> items = NewThings(before);
        return VtaCore::Control::LiveObjects() == objects && std::none_of(items.begin(), items.end(), IsThread);
    });
}

void HungCall::ClearAway(const std::vector<Simulator::BalanceItem> &left) {
    const InsideSimulator inside;
    for (const Simulator::BalanceItem &item : left) {
        void *const handle = reinterpret_cast<void *>(item.value);
        const std::string_view kind = item.kind;
        if (kind == Kind::kView)
            UnmapViewOfFile(handle);
        else if (kind == Kind::kHandle)
            CloseHandle(handle);
        else if (kind == Kind::kFind)
            FindClose(handle);
        else if (kind == Kind::kKey)
            RegCloseKey(static_cast<HKEY>(handle));
        else if (kind == Kind::kService)
            m_simulation.GetServices().Close(static_cast<SC_HANDLE>(handle));
        m_simulation.GetBalance().Closed(item.kind, item.value);
    }
}
