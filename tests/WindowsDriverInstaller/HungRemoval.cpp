#include "HungRemoval.h"

#include <algorithm>

using Simulator::InsideSimulator;
using std::chrono::steady_clock;

namespace {

/// Real milliseconds in which a worker that should survive would have ended if it had been killed.
constexpr DWORD kWorkerLivesOnMs = 100;

}  // namespace

void HungRemoval::PutRight() {
    InstallDrivers();
    simulation().GetDevices().Remove(L"ROOT\\QBIMVTA_MP\\0001");
    simulation().GetRegistry().Remove(HKEY_LOCAL_MACHINE, kMiniportKey);
}

Hang HungRemoval::HangIn(const std::string &function, unsigned nth, std::uint64_t deadlineMs, Fate fate) {
    EXPECT_TRUE(threads.AwaitEnds(kPatienceMs));
    const Simulator::FaultPlanHandle sleep = simulation().GetFaults().HangNth("Sleep", 1, kCallerThread);
    const Simulator::FaultPlanHandle call = simulation().GetFaults().HangNth(function, nth, kRemovingThread);
    const int objects = VtaCore::Control::LiveObjects();
    const Simulator::BalanceSnapshot before = balance().Take();
    const std::uint64_t deadline = simulation().GetClock().TickMs() + deadlineMs;
    Hang hang;
    SeenThread worker;
    hang.removal = UninstallWhile([&] {
        const InsideSimulator inside;
        hang.met = call->WaitUntilHit(kPatienceMs);
        worker = SeenThread(Worker());
        sleep->Release();
        if (hang.met)
            PassTheTime(hang, before, deadline);
        if (!hung.AwaitReturn())
            call->Release();
    });
    hang.killed = worker.AwaitEnd(fate == Fate::LivesOn ? kWorkerLivesOnMs : kPatienceMs);
    simulation().GetFaults().Clear();
    hang.ended = worker.AwaitEnd(kPatienceMs);
    const int kept = fate == Fate::KilledButKept ? 1 : 0;
    hang.destroyed = HungCall::AwaitObjects(objects + kept, before) && kept == 0;
    hang.left = NewThings(before);
    ForgetTheRest();
    return hang;
}

void HungRemoval::PassTheTime(Hang &hang, const Simulator::BalanceSnapshot &before, std::uint64_t deadline) {
    const bool waited = hung.AdvanceTo(deadline - 1) && hung.AwaitWait();
    hang.inFlight = NewThings(before);
    std::erase_if(hang.inFlight, IsThread);
    hang.waitedToTheEnd = waited && hung.AdvanceTo(deadline);
    const steady_clock::time_point timeUp = steady_clock::now();
    if (hung.AwaitReturn())
        hang.returnedAfterMs = std::chrono::duration<double, std::milli>(steady_clock::now() - timeUp).count();
}

bool HungRemoval::AwaitEndOfWorker() {
    return Await(kPatienceMs, [this] {
        const DWORD worker = Worker();
        return worker != 0 && SeenThread(worker).AwaitEnd(0);
    });
}

std::vector<Place> HungRemoval::PlacesOf(const Removal &removal) {
    const DWORD worker = Worker();
    if (worker == 0)
        return {};
    const std::vector<Simulator::JournalEntry> journal = simulation().GetJournal().Entries();
    return ::PlacesOf(journal, worker, LinesOf(journal, worker, removal.log), LimitsOfRemoval());
}

DWORD HungRemoval::Worker() {
    const auto calls = simulation().GetJournal().Entries();
    const auto others =
        std::find_if(calls.begin(), calls.end(), [this](const auto &entry) { return entry.thread != m_caller; });
    return others == calls.end() ? 0 : others->thread;
}

void HungRemoval::ForgetTheRest() {
    wxLog::FlushActive();
    (void)log.Take();
    (void)VtaCore::Control::TakeEvents();
    (void)VtaCore::Control::TakeNotifications();
}
