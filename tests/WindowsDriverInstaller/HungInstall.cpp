#include "HungInstall.h"

#include <algorithm>
#include <climits>

#include "Lock.h"
#include "WindowsFunctions.h"
#include "vti.h"

using Simulator::FaultPlanHandle;
using Simulator::InsideSimulator;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

/// Real milliseconds in which a thread that should survive would have ended if it had been killed.
constexpr DWORD kLivesOnMs = 100;
/// So that the watchdog polls before the caller warns of a minute without a heartbeat.
constexpr std::uint64_t kLeapMs = 50'000;
constexpr std::uint64_t kCallersPatienceMs = 3'600'000;

namespace System {

SIMULATOR_FUNCTION(vti_open, "vti.dll", ReturnsZero);
SIMULATOR_FUNCTION(vti_get_version, "vti.dll", CannotFail);

}  // namespace System

}  // namespace

/// Records when events are sent.
class HungInstall::EventTimes : public VtaCore::Control::Observer {
public:
    explicit EventTimes(const Simulator::Clock &clock) : m_clock(clock) { VtaCore::Control::SetObserver(this); }
    ~EventTimes() override { VtaCore::Control::SetObserver(nullptr); }
    EventTimes(const EventTimes &) = delete;
    EventTimes &operator=(const EventTimes &) = delete;

    void OnEvent(const VtaCore::Control::Event &event) override {
        const InsideSimulator inside;
        const Simulator::LockGuard guard(m_lock);
        m_events.push_back({event.number, m_clock.TickMs()});
    }
    void Forget() {
        const Simulator::LockGuard guard(m_lock);
        m_events.clear();
    }
    [[nodiscard]] std::vector<TimedEvent> Since(std::uint64_t begin) const {
        const Simulator::LockGuard guard(m_lock);
        std::vector<TimedEvent> events = m_events;
        for (TimedEvent &event : events)
            event.atMs -= begin;
        return events;
    }

private:
    const Simulator::Clock &m_clock;
    mutable Simulator::Lock m_lock;
    std::vector<TimedEvent> m_events;
};

HungInstall::HungInstall() : m_events(std::make_unique<EventTimes>(simulation().GetClock())) {
    simulation().Functions().PassThrough<System::vti_open>();
    simulation().Functions().PassThrough<System::vti_get_version>();
}

HungInstall::~HungInstall() = default;

GoodInstall HungInstall::InstallOn(Scenario scenario) {
    Take(scenario);
    GoodInstall good{Install(), {}, {}};
    const std::vector<std::string> texts = good.installation.EventTexts(1007);
    if (texts.size() == 1) {
        good.workersLines = WorkersLines(texts[0]);
        good.places = PlacesOfInstallation(simulation().GetJournal().Entries(), m_caller, good.workersLines);
    }
    return good;
}

HungOutcome HungInstall::HangAt(const InstallPlace &place) {
    HungOutcome outcome;
    const int objects = VtaCore::Control::LiveObjects();
    m_events->Forget();
    m_before = balance().Take();
    m_begin = simulation().GetClock().TickMs();
    if (place.thread == InstallPlace::Thread::Worker)
        HangWorker(place, outcome);
    else
        HangWatchdog(place, outcome);
    simulation().GetFaults().Clear();
    outcome.destroyed = HungCall::AwaitObjects(objects, m_before);
    outcome.left = NewThings(m_before);
    return outcome;
}

/// Holds the watchdog in its first sleep until the worker hangs, so that its first poll finds the step in which that
/// happens, and only the worker's sleeps move the clock up to there.
void HungInstall::HangWorker(const InstallPlace &place, HungOutcome &outcome) {
    const FaultPlanHandle sleep = simulation().GetFaults().HangNth("Sleep(100)", 1, kWatchdogThread);
    const FaultPlanHandle call = simulation().GetFaults().HangNth(place.function, place.nth, kWorkerThread);
    const std::uint64_t deadline = m_begin + place.deadlineMs;
    SeenThread worker;
    outcome.installation = InstallWhile([&] {
        const InsideSimulator inside;
        outcome.met = call->WaitUntilHit(kPatienceMs);
        worker = SeenThread(ThreadsOf(simulation().GetJournal().Entries(), m_caller).worker);
        sleep->Release();
        const bool waited =
            outcome.met && hung.AdvanceTo(deadline - 1, kLeapMs) && AwaitPollsOfCaller() && hung.AwaitWait();
        outcome.inFlight = NewThings(m_before);
        std::erase_if(outcome.inFlight, IsThread);
        outcome.waitedToTheEnd = waited && hung.AdvanceTo(deadline);
        AwaitAnswer(outcome);
        outcome.killed = worker.AwaitEnd(place.step == "ThreadRunning" ? kLivesOnMs : kPatienceMs);
        call->Release();
    });
    outcome.ended = worker.AwaitEnd(kPatienceMs);
}

/// Work that begins after the hour has used up its own limit. So the watchdog is held back until it is done; else it
/// would give it up.
void HungInstall::HangWatchdog(const InstallPlace &place, HungOutcome &outcome) {
    const FaultPlanHandle sleep =
        simulation().GetFaults().HangNth("Sleep(100)", place.beforeWork ? 1 : UINT_MAX, kWatchdogThread);
    const FaultPlanHandle call = simulation().GetFaults().HangNth(place.function, place.nth, kWatchdogThread);
    SeenThread watchdog;
    outcome.installation = InstallWhile([&] {
        const InsideSimulator inside;
        Simulator::Clock &clock = simulation().GetClock();
        outcome.met = call->WaitUntilHit(kPatienceMs);
        watchdog = SeenThread(ThreadsOf(simulation().GetJournal().Entries(), m_caller).watchdog);
        if (outcome.met && place.thread == InstallPlace::Thread::Watchdog) {
            outcome.waitedToTheEnd =
                AdvanceBetweenPolls(kCallersPatienceMs - place.sinceHeartbeatMs) && AwaitPollsOfCaller();
            clock.Advance(milliseconds(1));
            outcome.watchdogsDeadlineMs = clock.TickMs() - m_begin;
        }
        AwaitAnswer(outcome);
        outcome.killed = watchdog.AwaitEnd(0);
        call->Release();
        if (place.beforeWork) {
            EXPECT_TRUE(AwaitEndOfWorker());
        }
        sleep->Release();
    });
    outcome.ended = watchdog.AwaitEnd(kPatienceMs);
}

void HungInstall::AwaitAnswer(HungOutcome &outcome) {
    const steady_clock::time_point timeUp = steady_clock::now();
    if (hung.AwaitReturn())
        outcome.returnedAfterMs = std::chrono::duration<double, std::milli>(steady_clock::now() - timeUp).count();
    outcome.answeredAtMs = simulation().GetClock().TickMs() - m_begin;
    outcome.events = m_events->Since(m_begin);
    outcome.bindings = Bindings();
    outcome.holdsLock = network().Read().lock.has_value();
}

bool HungInstall::AwaitEndOfWorker() {
    return Await(kPatienceMs, [this] {
        const DWORD worker = ThreadsOf(simulation().GetJournal().Entries(), m_caller).worker;
        return worker != 0 && SeenThread(worker).AwaitEnd(0);
    });
}

bool HungInstall::AdvanceBetweenPolls(std::uint64_t ms) {
    bool advanced = false;
    (void)Await(kPatienceMs, [&] {
        return returned || (advanced = simulation().GetClock().AdvanceIfFollowerSleeps(milliseconds(ms)));
    });
    return advanced;
}

bool HungInstall::AwaitPollsOfCaller() {
    const unsigned before = simulation().GetFaults().Calls("Sleep(250)");
    return Await(kPatienceMs, [&] { return returned || simulation().GetFaults().Calls("Sleep(250)") >= before + 2; }) &&
           !returned;
}
