#include "HungRemoval.h"

#include <algorithm>
#include <chrono>
#include <type_traits>

#include <dbghelp.h>

#include "CallScope.h"
#include "WindowsFunctions.h"

namespace Kind = Simulator::Kind;
using Simulator::InsideSimulator;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

/// Real milliseconds in which a watcher that looks at the wrong time would do so, and a killed thread ends.
constexpr DWORD kUntilNoticedMs = 3;
constexpr DWORD kUntilKilledMs = 100;
constexpr DWORD kPatienceMs = 20'000;  ///< Whoever waits longer fails the test.

namespace System {

// They tell where a step ends, and that a file is removed by the C runtime.
SIMULATOR_FUNCTION(SetEvent, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(_wremove, Simulator::kCRuntime, CannotFail);
SIMULATOR_FUNCTION(SymInitializeW, "dbghelp.dll", ReturnsZero);
SIMULATOR_FUNCTION(SymCleanup, "dbghelp.dll", ReturnsZero);

}  // namespace System

struct CloseThread {
    void operator()(HANDLE thread) const {
        const InsideSimulator inside;
        CloseHandle(thread);
    }
};
using Thread = std::unique_ptr<std::remove_pointer_t<HANDLE>, CloseThread>;

bool AwaitEnd(const Thread &thread, DWORD realMs) {
    const InsideSimulator inside;
    return thread && WaitForSingleObject(thread.get(), realMs) == WAIT_OBJECT_0;
}

/// Asks again every millisecond.
template <class Condition>
bool Await(DWORD realMs, Condition condition) {
    const InsideSimulator inside;
    const steady_clock::time_point end = steady_clock::now() + milliseconds(realMs);
    while (!condition()) {
        if (steady_clock::now() > end)
            return false;
        Sleep(1);
    }
    return true;
}

/// Without blocks of memory.
std::vector<Simulator::BalanceItem> NewThings(const Simulator::BalanceSnapshot &before) {
    const InsideSimulator inside;
    auto items = Simulator::Balance::Left(before, Simulator::Balance::Instance().Take());
    std::erase_if(items, [](const auto &item) { return item.kind == std::string_view(Kind::kBlock); });
    return items;
}

bool IsThread(const Simulator::BalanceItem &item) {
    return item.function == std::string_view("_beginthreadex");
}

bool HasThread(const std::vector<Simulator::BalanceItem> &items) {
    return std::any_of(items.begin(), items.end(), IsThread);
}

/// The thread that has called the function last; 0 if none has.
DWORD LastCallerOf(const std::string &function, const Simulator::Journal &journal) {
    const auto calls = journal.Entries();
    const auto last = std::find_if(calls.rbegin(), calls.rend(),
                                   [&function](const auto &entry) { return entry.function == function; });
    return last == calls.rend() ? 0 : last->thread;
}

}  // namespace

/// Knows when the watcher waits, so that the clock is not moved while it works out how long to wait.
class WatcherSight {
public:
    explicit WatcherSight(Simulator::Clock &clock) : m_clock(clock), m_watcher(GetCurrentThreadId()) {}

    void SetLooking(bool looking) {
        if (GetCurrentThreadId() != m_watcher)
            return;
        const Simulator::LockGuard guard(m_lock);
        m_looking = looking;
    }
    /// @return false if it does not wait; the clock then stays.
    bool AdvanceWhileItWaits(std::uint64_t untilTick) {
        const Simulator::LockGuard guard(m_lock);
        if (m_looking || m_clock.Waiting() != 1)
            return false;
        m_clock.Advance(milliseconds(untilTick - std::min(untilTick, m_clock.TickMs())));
        return true;
    }

private:
    Simulator::Clock &m_clock;
    const DWORD m_watcher;
    Simulator::Lock m_lock;
    bool m_looking = false;  ///< Has read the ticks, and not begun to wait.
};

std::vector<std::string> Hang::Stacks() const {
    std::vector<std::string> lines = removal.Lines(wxLOG_Info);
    std::erase_if(lines, [](const std::string &line) { return !line.starts_with("Stack trace:\n"); });
    return lines;
}

HungRemoval::HungRemoval() : m_sight(std::make_shared<WatcherSight>(simulation().GetClock())) {
    wxLog::SetVerbose(true);
    Simulator::FunctionSet &functions = simulation().Functions();
    functions.PassThrough<System::SetEvent>();
    functions.PassThrough<System::_wremove>();
    functions.PassThrough<System::SymInitializeW>();
    functions.PassThrough<System::SymCleanup>();
    functions.Put<Simulator::System::GetTickCount>(
        [sight = m_sight](const auto &next) {
            sight->SetLooking(true);
            return next();
        },
        Simulator::Depth::Watch);
    functions.Put<Simulator::System::WaitForSingleObject>(
        [sight = m_sight](const auto &next, HANDLE handle, DWORD ms) {
            sight->SetLooking(false);
            return next(handle, ms);
        },
        Simulator::Depth::Watch);
}

HungRemoval::~HungRemoval() {
    const InsideSimulator inside;
    if (m_hasModules)
        SymCleanup(GetCurrentProcess());
    wxLog::SetVerbose(false);
}

void HungRemoval::KeepModulesForStacks() {
    simulation().Functions().Put<System::SymInitializeW>(
        [this](const auto &next, HANDLE process, PCWSTR path, BOOL invade) -> BOOL {
            if (!m_hasModules)
                m_hasModules = next(process, path, invade) != FALSE;
            return m_hasModules;
        });
    simulation().Functions().Put<System::SymCleanup>([](const auto &, HANDLE) { return TRUE; });
}

void HungRemoval::PutRight() {
    InstallDrivers();
    simulation().GetDevices().Remove(L"ROOT\\QBIMVTA_MP\\0001");
    simulation().GetRegistry().Remove(HKEY_LOCAL_MACHINE, kMiniportKey);
}

Hang HungRemoval::HangIn(const std::string &function, unsigned nth, std::uint64_t deadlineMs) {
    const Simulator::FaultPlanHandle sleep = simulation().GetFaults().HangNth("Sleep", 1);
    const Simulator::FaultPlanHandle call = simulation().GetFaults().HangNth(function, nth);
    const int objects = VtaCore::Control::LiveObjects();
    const Simulator::BalanceSnapshot before = balance().Take();
    const std::uint64_t deadline = simulation().GetClock().TickMs() + deadlineMs;
    Hang hang;
    Thread worker;
    hang.removal = UninstallWhile([&] {
        const InsideSimulator inside;
        hang.met = call->WaitUntilHit(kPatienceMs);
        worker.reset(OpenThread(SYNCHRONIZE, FALSE, LastCallerOf(function, simulation().GetJournal())));
        sleep->Release();
        if (hang.met)
            PassTheTime(hang, before, deadline);
        if (!AwaitReturn())
            call->Release();
    });
    hang.killed = AwaitEnd(worker, kUntilKilledMs);
    simulation().GetFaults().Clear();
    hang.ended = AwaitEnd(worker, kPatienceMs);
    hang.destroyed =
        Await(kPatienceMs, [&] { return VtaCore::Control::LiveObjects() == objects && !HasThread(NewThings(before)); });
    hang.left = NewThings(before);
    ForgetTheRest();
    return hang;
}

void HungRemoval::PassTheTime(Hang &hang, const Simulator::BalanceSnapshot &before, std::uint64_t deadline) {
    const auto advance = [this](std::uint64_t tick) {
        return Await(kPatienceMs, [&] { return returned || m_sight->AdvanceWhileItWaits(tick); }) && !returned;
    };
    const bool waited = advance(deadline - 1);
    Sleep(kUntilNoticedMs);
    hang.inFlight = NewThings(before);
    std::erase_if(hang.inFlight, IsThread);
    hang.waitedToTheEnd = waited && advance(deadline);
    const steady_clock::time_point timeUp = steady_clock::now();
    if (AwaitReturn())
        hang.returnedAfterMs = std::chrono::duration<double, std::milli>(steady_clock::now() - timeUp).count();
}

bool HungRemoval::AwaitEndOfWorker() {
    return Await(kPatienceMs, [this] {
        const auto calls = simulation().GetJournal().Entries();
        const auto others =
            std::find_if(calls.begin(), calls.end(), [this](const auto &entry) { return entry.thread != m_caller; });
        return others != calls.end() && AwaitEnd(Thread(OpenThread(SYNCHRONIZE, FALSE, others->thread)), 0);
    });
}

bool HungRemoval::AwaitReturn() const {
    return Await(kPatienceMs, [this] { return returned.load(); });
}

void HungRemoval::ForgetTheRest() {
    wxLog::FlushActive();
    (void)log.Take();
    (void)VtaCore::Control::TakeEvents();
    (void)VtaCore::Control::TakeNotifications();
}

void HungRemoval::ClearAway(const std::vector<Simulator::BalanceItem> &left) {
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
            simulation().GetServices().Close(static_cast<SC_HANDLE>(handle));
        balance().Closed(item.kind, item.value);
    }
}
