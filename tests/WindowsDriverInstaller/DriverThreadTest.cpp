// The machinery of the driver threads: steps, their supervision and their log, and the session with the network
// configuration.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <windows.h>

#include "CallInThread.h"
#include "ComObject.h"
#include "DriverThreadProbe.h"
#include "RemovalFixture.h"
#include "WindowsFunctions.h"

HINSTANCE moduleInstance = nullptr;

namespace {

using std::chrono::milliseconds;
using Texts = std::vector<std::string>;

class DriverThread : public RemovalFixture {
protected:
    DriverThread() {
        moduleInstance = GetModuleHandleW(L"fc.dll");  // its message table
        (void)log.Take();
        (void)simulation().GetJournal().Take();
        (void)VtaCore::Control::TakeEvents();
        (void)VtaCore::Control::TakeNotifications();
    }

    Texts LogAt(wxLogLevel level) {
        Removal of;
        of.log = log.Take();
        return of.Lines(level);
    }
    /// The lines of the thread's log.
    Texts ThreadLog() { return LogAt(wxLOG_Message); }
    /// The texts before the system's error text, with the number.
    static Texts Events() {
        Texts events;
        for (const VtaCore::Control::Event &event : VtaCore::Control::TakeEvents()) {
            const std::string text = event.text.utf8_string();
            events.push_back(std::to_string(event.number) + " " + text.substr(0, text.find('|')));
        }
        return events;
    }
    /// The arguments of each call of the function since the last time.
    Texts Arguments(const std::string &function) {
        Texts arguments;
        for (const Simulator::JournalEntry &entry : simulation().GetJournal().Take()) {
            if (entry.function == function)
                arguments.push_back(entry.arguments);
        }
        return arguments;
    }
    /// The timeouts of the waits since the last time, in milliseconds.
    Texts Timeouts() {
        Texts timeouts;
        for (const std::string &arguments : Arguments("WaitForSingleObject"))
            timeouts.push_back(arguments.substr(arguments.find(", ") + 2));
        return timeouts;
    }
    /// Watches until the top step has overrun. @return how long that took by the simulated clock.
    std::uint64_t WatchMs(Probe &thread) {
        simulation().GetClock().Step(Simulator::Clock::AutoAdvance::SleepsAndWaits);
        const std::uint64_t begin = simulation().GetClock().TickMs();
        int looks = 0;
        while (thread.WaitForStepToFinish() && ++looks < 100) {
        }
        EXPECT_LT(looks, 100);
        return simulation().GetClock().TickMs() - begin;
    }
    void AdvanceMs(int by) { simulation().GetClock().Advance(milliseconds(by)); }
};

// ---- The object

TEST_F(DriverThread, IsInStepZeroFromItsConstructionOn) {
    const Probe thread(dom);
    EXPECT_EQ(ThreadLog(), Texts{">ThreadRunning. 3600s max"});
    EXPECT_EQ(thread.failedStep, 0xFFFFFFFF);
    EXPECT_FALSE(thread.rebootRequired);
    EXPECT_FALSE(thread.succeeded);
    EXPECT_STREQ(thread.Name(), "CDriverUninstallerThread");
}

TEST_F(DriverThread, LeavesItsEventOpen) {
    const Simulator::BalanceSnapshot before = balance().Take();
    {
        const Probe thread(dom);
    }
    const Simulator::BalanceSnapshot after = balance().Take();
    EXPECT_EQ(after.Count(Simulator::Kind::kHandle), before.Count(Simulator::Kind::kHandle) + 1);
    EXPECT_EQ(Arguments("CreateEventW"), Texts{"null, 0, 0, null"}) << "auto-reset, not signalled, without a name";
}

TEST(StepRecordOfADriverThread, ConsistsOfThreeNumbersInThisOrder) {
    EXPECT_EQ(sizeof(StepRecord), 12U);
    EXPECT_EQ(offsetof(StepRecord, limitSeconds), 0U);
    EXPECT_EQ(offsetof(StepRecord, step), 4U);
    EXPECT_EQ(offsetof(StepRecord, startTick), 8U);
}

TEST(StepOfADriverThread, HasAName) {
    const Texts names{"ThreadRunning",
                      "ApplyingInetCfgChanges",
                      "CheckingIfStillInstalled",
                      "CleaningUpOrphans",
                      "CopyingInfFiles",
                      "EnsuringDriverUnloaded",
                      "FindingComponent",
                      "GettingAdapterInfo",
                      "GettingClassGUID",
                      "GettingInetCfg",
                      "GettingINetCfgClass",
                      "GettingINetCfgClassSetup",
                      "GettingNetworkConfigLock",
                      "InstallingDriver",
                      "ReleasingInetCfg",
                      "ReleasingNetworkConfigLock",
                      "RemovingInfFiles",
                      "UninstallingDriver",
                      "InstallingWfpCalloutDriver",
                      "UninstallingWfpCalloutDriver",
                      "StartingWfpCalloutDriver",
                      "StoppingWfpCalloutDriver"};
    for (std::uint32_t step = 0; step < names.size(); ++step)
        EXPECT_EQ(wxString(StepName(step)).utf8_string(), names[step]) << step;
}

TEST(StepOfADriverThread, IsCalledUnknownWithAnInvalidId) {
    for (const std::uint32_t step : {22U, 1000U, 0x7FFFFFFFU, 0xFFFFFFFFU})
        EXPECT_STREQ(StepName(step), L"<UnknownStep>") << step;
}

// ---- The stack of steps, and the log

TEST_F(DriverThread, LogsTheNestingOfItsSteps) {
    Probe thread(dom);
    thread.StartStep(3, 180);
    thread.StartStep(6, 15);
    thread.DbgPrint(L"%d of %s", 3, L"many");
    thread.EndStep(6);
    thread.EndStep(3);
    EXPECT_EQ(ThreadLog(),
              (Texts{">ThreadRunning. 3600s max", " >CleaningUpOrphans. 180s max", "  >FindingComponent. 15s max",
                     "   3 of many", "  <FindingComponent", " <CleaningUpOrphans"}));
}

TEST_F(DriverThread, WarnsWhenAStepThatIsNotOnTopEnds) {
    Probe thread(dom);
    thread.StartStep(6, 15);
    thread.EndStep(8);
    EXPECT_EQ(LogAt(wxLOG_Warning), Texts{"Consistency check - we just completed GettingClassGUID but FindingComponent "
                                          "was on top of the step stack."});
}

TEST_F(DriverThread, PopsTheTopStepWhicheverStepEnds) {
    Probe thread(dom);
    thread.StartStep(6, 15);
    thread.EndStep(8);
    EXPECT_EQ(thread.TopStep(), 0U);
    thread.EndStep(0xFFFFFFFF);
    EXPECT_EQ(thread.TopStep(), 0xFFFFFFFF);
    EXPECT_EQ(LogAt(wxLOG_Warning).back(),
              "Consistency check - we just completed <UnknownStep> but ThreadRunning was "
              "on top of the step stack.");
}

TEST_F(DriverThread, EndsAStepOnAnEmptyStackWithoutAWarning) {
    Probe thread(dom);
    thread.EndStep(0);
    thread.EndStep(6);
    const std::vector<LogLine> lines = log.Take();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[2].text, "<FindingComponent");
    EXPECT_EQ(lines[2].level, wxLogLevel{wxLOG_Message});
}

TEST_F(DriverThread, DoesNotLogFourSteps) {
    Probe thread(dom);
    (void)log.Take();
    for (const std::uint32_t step : {9U, 12U, 14U, 15U}) {
        SCOPED_TRACE(step);
        thread.StartStep(step, 10);
        EXPECT_EQ(thread.TopStep(), step);
        thread.EndStep(step);
        EXPECT_EQ(ThreadLog(), Texts{});
        EXPECT_TRUE(thread.WaitForStepToFinish()) << "but signals the watcher";
    }
}

TEST_F(DriverThread, IndentsUnderSilentSteps) {
    Probe thread(dom);
    (void)log.Take();
    thread.StartStep(14, 10);
    thread.DbgPrint(L"under it");
    EXPECT_EQ(ThreadLog(), Texts{"  under it"});
}

TEST_F(DriverThread, KeepsTheFirstStepThatFailed) {
    Probe thread(dom);
    thread.StartStep(17, 600);
    thread.NoteFailedStep();
    thread.EndStep(17);
    thread.NoteFailedStep();
    EXPECT_EQ(thread.failedStep, 17U);
}

TEST_F(DriverThread, RecordsNoFailedStepWhileNoneRuns) {
    Probe thread(dom);
    thread.EndStep(0);
    thread.NoteFailedStep();
    EXPECT_EQ(thread.failedStep, 0xFFFFFFFF);
    thread.StartStep(6, 15);
    thread.NoteFailedStep();
    EXPECT_EQ(thread.failedStep, 6U);
}

class RedirectedThread : public Probe {
public:
    using Probe::Probe;
    Texts lines;

protected:
    void DbgPrintV(const wchar_t *format, va_list arguments) override {
        lines.push_back(wxString::FormatV(format, arguments).utf8_string());
    }
};

TEST_F(DriverThread, PassesItsWholeLogToASubclass) {
    RedirectedThread thread(dom);
    (void)log.Take();  // that of the constructor, where the subclass did not exist yet
    thread.StartStep(3, 180);
    thread.StartStep(6, 15);
    thread.DbgPrint(L"%ls", L"a line");
    thread.EndStep(6);
    thread.EndStep(3);
    EXPECT_EQ(thread.lines, (Texts{" >CleaningUpOrphans. 180s max", "  >FindingComponent. 15s max", "   a line",
                                   "  <FindingComponent", " <CleaningUpOrphans"}));
    EXPECT_EQ(log.Take(), std::vector<LogLine>{});
}

// ---- The supervision

TEST_F(DriverThread, IsWaitedForAsLongAsTheTopStepHasLeft) {
    Probe thread(dom);
    thread.StartStep(6, 15);
    AdvanceMs(1'500);
    EXPECT_EQ(WatchMs(thread), 13'500U);
}

TEST_F(DriverThread, IsPolledEverySecondDuringOneWait) {
    Probe thread(dom);
    thread.StartStep(6, 15);
    AdvanceMs(11'900);
    simulation().GetClock().Step(Simulator::Clock::AutoAdvance::SleepsAndWaits);
    EXPECT_FALSE(thread.WaitForStepToFinish());
    EXPECT_EQ(Timeouts(), (Texts{"1000", "1000", "1000", "100"}));
}

TEST_F(DriverThread, EndsAWaitWhenAPollFindsAnotherStepOnTop) {
    Probe thread(dom);
    const CallInThread watcher([&] { return thread.WaitForStepToFinish(); });
    for (int poll = 0; poll < 3; ++poll) {
        EXPECT_TRUE(simulation().GetClock().AwaitWaiting(1, kPatienceMs));
        AdvanceMs(1'000);
        EXPECT_FALSE(watcher.EndsWithin(50)) << "the same step is on top";
    }
    thread.StartStep(6, 15);
    AdvanceMs(1'000);
    EXPECT_TRUE(watcher.Get());
}

TEST_F(DriverThread, GetsTheTimeOfAStepThatBeganWhileTheOneBelowRanOut) {
    Probe thread(dom);
    thread.StartStep(3, 180);
    AdvanceMs(179'500);
    const CallInThread watcher([&] { return thread.WaitForStepToFinish(); });
    EXPECT_TRUE(simulation().GetClock().AwaitWaiting(1, kPatienceMs));
    thread.StartStep(6, 15);
    AdvanceMs(500);
    EXPECT_TRUE(watcher.Get());
    EXPECT_EQ(WatchMs(thread), 14'500U);
}

TEST_F(DriverThread, IsNotWaitedForWhenTheStepHasUsedUpItsLimit) {
    Probe thread(dom);
    thread.StartStep(6, 15);
    for (const int ms : {15'000, 1, 3'600'000}) {
        AdvanceMs(ms);
        EXPECT_FALSE(thread.WaitForStepToFinish());
        EXPECT_EQ(Timeouts(), Texts{"0"});
    }
}

TEST_F(DriverThread, SurvivesAnOverrunIfAStepHasEndedSince) {
    Probe thread(dom);
    thread.StartStep(3, 180);
    thread.StartStep(6, 15);
    AdvanceMs(200'000);
    thread.EndStep(6);
    EXPECT_TRUE(thread.WaitForStepToFinish());
    EXPECT_EQ(Timeouts(), Texts{"0"});
}

TEST_F(DriverThread, MergesTheEndsOfTwoStepsIntoOneSignal) {
    Probe thread(dom);
    thread.StartStep(3, 180);
    thread.StartStep(6, 15);
    thread.EndStep(6);
    thread.EndStep(3);
    AdvanceMs(3'600'001);
    EXPECT_TRUE(thread.WaitForStepToFinish());
    EXPECT_FALSE(thread.WaitForStepToFinish());
}

TEST_F(DriverThread, IsWatchedOnlyForItsTopStep) {
    Probe thread(dom);
    thread.StartStep(3, 180);
    AdvanceMs(200'000);
    thread.StartStep(6, 15);
    EXPECT_EQ(WatchMs(thread), 15'000U) << "the inner step's, though the outer one is over its limit";
    (void)Timeouts();
    thread.EndStep(6);
    EXPECT_TRUE(thread.WaitForStepToFinish());
    EXPECT_FALSE(thread.WaitForStepToFinish()) << "the outer one's clock ran on";
    EXPECT_EQ(Timeouts(), (Texts{"0", "0"}));
}

TEST_F(DriverThread, IsWatchedAcrossAWrapOfTheTicks) {
    simulation().GetClock().SetTick(0x1'0000'0000 - 500);
    Probe thread(dom);
    thread.StartStep(6, 15);
    AdvanceMs(2'000);
    EXPECT_EQ(WatchMs(thread), 13'000U);
}

TEST_F(DriverThread, IsPolledEvery100MillisecondsWithoutAStep) {
    Probe thread(dom);
    thread.EndStep(0);
    const std::uint64_t begin = simulation().GetClock().TickMs();
    EXPECT_TRUE(thread.WaitForStepToFinish());
    EXPECT_EQ(simulation().GetClock().TickMs() - begin, 100U);
    EXPECT_EQ(Timeouts(), Texts{}) << "no wait, but a sleep";
}

TEST_F(DriverThread, CannotStartAStepWhileItIsPolledWithoutOne) {
    Probe thread(dom);
    thread.EndStep(0);
    simulation().GetClock().Step();
    const CallInThread watcher([&] { return thread.WaitForStepToFinish(); });
    EXPECT_TRUE(simulation().GetClock().AwaitWaiting(1, kPatienceMs));
    const CallInThread worker([&] {
        thread.StartStep(9, 10);
        return true;
    });
    EXPECT_FALSE(worker.EndsWithin(200));
    AdvanceMs(99);
    EXPECT_FALSE(worker.EndsWithin(200));
    AdvanceMs(1);
    EXPECT_TRUE(worker.EndsWithin(30'000));
    EXPECT_TRUE(watcher.Get());
    EXPECT_EQ(thread.TopStep(), 9U);
}

// ---- The end

TEST_F(DriverThread, IsNotKilledForAStepThatHasEndedMeanwhile) {
    Probe thread(dom);
    thread.StartStep(3, 180);
    thread.StartStep(6, 15);
    AdvanceMs(15'000);
    EXPECT_FALSE(thread.WaitForStepToFinish());
    thread.EndStep(6);
    const Overrun overrun = KillIfOverrun(thread);
    EXPECT_EQ(overrun.outcome, OverrunOutcome::GoesOn);
    EXPECT_EQ(overrun.step, NoStep);
}

TEST_F(DriverThread, IsNotKilledForAStepThatEndsWhileItsStackIsRead) {
    Probe thread(dom);
    thread.StartStep(3, 180);
    thread.StartStep(6, 15);
    AdvanceMs(15'000);
    EXPECT_FALSE(thread.WaitForStepToFinish());
    bool captures = false;
    simulation().Functions().Put<Simulator::System::DuplicateHandle>([&](const auto &next, auto... arguments) {
        if (!std::exchange(captures, true))
            thread.EndStep(6);
        return next(arguments...);
    });
    const Overrun overrun = KillIfOverrun(thread);
    EXPECT_EQ(overrun.outcome, OverrunOutcome::GoesOn);
    EXPECT_TRUE(captures);
    EXPECT_EQ(overrun.step, NoStep);
}

TEST_F(DriverThread, IsNotKilledOutsideOfAllInnerSteps) {
    Probe thread(dom);
    AdvanceMs(3'600'000);
    EXPECT_FALSE(thread.WaitForStepToFinish());
    EXPECT_EQ(KillIfOverrun(thread).outcome, OverrunOutcome::IsLeftAlone);
}

// ---- What it logs

TEST(GrabbedLogOfADriverThread, CanBeReadWhileTheThreadKeepsLogging) {
    GrabbedLog grabbed;
    std::atomic<bool> enough{false};
    std::jthread worker([&] {
        wxLog *const before = wxLog::SetThreadActiveTarget(grabbed.Target());
        while (!enough)
            wxLogMessage("one line");
        (void)wxLog::SetThreadActiveTarget(before);
    });
    std::size_t longest = 0;
    for (int time = 0; time < 300; ++time) {
        const wxString text = grabbed.TextSoFar();
        ASSERT_EQ(text.length() % 9, 0U) << "whole lines";
        ASSERT_TRUE(text.empty() || text.EndsWith("one line\n"));
        longest = std::max(longest, text.length());
    }
    enough = true;
    worker.join();
    EXPECT_GE(grabbed.WholeText().length(), longest);
}

TEST(GrabbedLogOfADriverThread, ContainsWhatItsGrabberHeldBackOnceThatHasEnded) {
    GrabbedLog grabbed;
    const wxLogRecordInfo info(__FILE__, __LINE__, __func__, "wx");
    grabbed.Target()->LogRecord(wxLOG_Message, "first", info);
    VtaCore::Control::SetGrabbersHoldBack(true);
    grabbed.Target()->LogRecord(wxLOG_Message, "second", info);
    VtaCore::Control::SetGrabbersHoldBack(false);
    EXPECT_EQ(grabbed.TextSoFar(), "first\n");
    EXPECT_EQ(grabbed.WholeText(), "first\nsecond\n");
}

// ---- The network configuration

class DriverThreadNetCfg : public DriverThread {
protected:
    DriverThreadNetCfg() {
        SCOPED_TRACE("the first trace of a thread opens a handle for good");
        m_before = balance().Take();
    }

    HRESULT Acquire(bool writeLock) { return thread.AcquireINetCfg(writeLock, &netCfg); }
    HRESULT Release(bool writeLock) { return thread.ReleaseINetCfg(writeLock, netCfg); }
    bool IsLocked() { return simulation().GetNetwork().Read().lock.has_value(); }
    /// What was created and not released, memory apart.
    Texts Left() {
        Texts left;
        for (const Simulator::BalanceItem &item : Simulator::Balance::Left(m_before, balance().Take())) {
            if (item.kind != std::string(Simulator::Kind::kBlock))
                left.push_back(item.kind);
        }
        return left;
    }

    Probe thread{dom};
    INetCfg *netCfg = reinterpret_cast<INetCfg *>(1);

private:
    Simulator::BalanceSnapshot m_before;
};

TEST_F(DriverThreadNetCfg, IsOpenedWithTheLockAndReleased) {
    EXPECT_EQ(Acquire(true), S_OK);
    ASSERT_NE(netCfg, nullptr);
    EXPECT_TRUE(IsLocked());
    EXPECT_EQ(Left(), (Texts{"COM initialisation", "COM reference"}));
    EXPECT_EQ(Release(true), S_OK);
    EXPECT_FALSE(IsLocked());
    EXPECT_EQ(Left(), Texts{});
    EXPECT_EQ(thread.failedStep, NoStep);
    EXPECT_EQ(Events(), Texts{});
}

TEST_F(DriverThreadNetCfg, IsOpenedWithoutTheLock) {
    simulation().GetNetwork().LockFromElsewhere(L"Somebody");
    EXPECT_EQ(Acquire(false), S_OK);
    EXPECT_EQ(Release(false), S_OK);
    EXPECT_EQ(Left(), Texts{});
    EXPECT_EQ(Events(), Texts{});
    EXPECT_EQ(VtaCore::Control::TakeNotifications().size(), 0U);
}

TEST_F(DriverThreadNetCfg, WaitsForTheLockFor15SecondsUnderTheModulesName) {
    EXPECT_EQ(Acquire(true), S_OK);
    const Texts calls = Arguments("INetCfgLock::AcquireWriteLock");
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_TRUE(calls[0].starts_with("15000, \"Quillon Vantry Agent Installer\", 0x")) << calls[0];
    EXPECT_EQ(Release(true), S_OK);
}

TEST_F(DriverThreadNetCfg, TreatsALockOfTheSameNameAsItsOwn) {
    simulation().GetNetwork().LockFromElsewhere(L"Quillon Vantry Agent Installer");
    EXPECT_EQ(Acquire(true), S_OK);
    ASSERT_NE(netCfg, nullptr);
    EXPECT_EQ(thread.failedStep, NoStep);
    EXPECT_EQ(Events(), Texts{});
    EXPECT_EQ(VtaCore::Control::TakeNotifications().size(), 0U);
    EXPECT_EQ(Left(), (Texts{"COM initialisation", "COM reference"})) << "the holder's name is freed";
    EXPECT_EQ(Release(true), NETCFG_E_NO_WRITE_LOCK);
    EXPECT_EQ(Left(), Texts{});
}

TEST_F(DriverThreadNetCfg, ReportsAnyOtherPositiveAnswerOfTheLockAndGoesOnWithoutIt) {
    for (const DWORD answer : {2UL, static_cast<DWORD>(NETCFG_S_REBOOT)}) {
        SCOPED_TRACE(answer);
        thread.failedStep = NoStep;
        const auto plan = simulation().GetFaults().FailNth("INetCfgLock::AcquireWriteLock", 1, answer);
        EXPECT_EQ(Acquire(true), S_OK);
        EXPECT_TRUE(plan->Hit());
        ASSERT_NE(netCfg, nullptr);
        EXPECT_FALSE(IsLocked());
        EXPECT_EQ(thread.failedStep, 12U);
        EXPECT_EQ(Events(), Texts{"3005 INetCfgLock::AcquireWriteLock"});
        EXPECT_EQ(VtaCore::Control::TakeNotifications().size(), 0U);
        EXPECT_EQ(Release(true), NETCFG_E_NO_WRITE_LOCK);
        EXPECT_EQ(Events(), Texts{"3005 INetCfgLock::ReleaseWriteLock"});
        EXPECT_EQ(Left(), Texts{});
    }
}

TEST_F(DriverThreadNetCfg, IsReleasedBehindItsLockAndBeforeCOM) {
    const Simulator::NotedReleases noted;
    EXPECT_EQ(Acquire(true), S_OK);
    EXPECT_EQ(Release(true), S_OK);
    Texts calls;
    for (const Simulator::JournalEntry &entry : simulation().GetJournal().Take()) {
        if (entry.function.ends_with("::Release"))
            calls.push_back(entry.function + " " + entry.arguments);
        else if (entry.function.starts_with("INetCfg") || entry.function.starts_with("Co"))
            calls.push_back(entry.function);
    }
    EXPECT_EQ(calls,
              (Texts{"CoInitializeEx", "CoCreateInstance", "INetCfg::QueryInterface", "INetCfgLock::AcquireWriteLock",
                     "INetCfg::Initialize", "INetCfgLock::Release 0", "INetCfg::Release 1", "INetCfg::Uninitialize",
                     "INetCfg::QueryInterface", "INetCfgLock::ReleaseWriteLock", "INetCfgLock::Release 0",
                     "INetCfg::Release 0", "CoUninitialize"}));
}

TEST_F(DriverThreadNetCfg, TellsTheUserWhoElseHoldsTheLock) {
    simulation().GetNetwork().LockFromElsewhere(L"Somebody");
    EXPECT_EQ(Acquire(true), NETCFG_E_NO_WRITE_LOCK);
    EXPECT_EQ(netCfg, nullptr);
    EXPECT_EQ(thread.failedStep, 12U);
    EXPECT_EQ(Events(), Texts{"3005 INetCfgLock::AcquireWriteLock"});
    const Texts errors = LogAt(wxLOG_Error);
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_TRUE(errors[0].ends_with(" (0x8004a024)")) << errors[0];
    const auto notices = VtaCore::Control::TakeNotifications();
    ASSERT_EQ(notices.size(), 1U);
    EXPECT_EQ(notices[0].code, 2);
    EXPECT_EQ(notices[0].text.utf8_string(),
              "Unable to proceed - the network configuration is currently locked by Somebody.");
    EXPECT_EQ(notices[0].detail.utf8_string(), "");
    EXPECT_EQ(Left(), Texts{});
}

TEST_F(DriverThreadNetCfg, AcceptsTheComModelThatTheThreadAlreadyHas) {
    simulation().GetCom().threadsHaveApartments = true;
    EXPECT_EQ(Acquire(true), S_OK);
    EXPECT_EQ(Arguments("CoInitializeEx"), (Texts{"null, 4", "null, 6"}));
    EXPECT_EQ(Release(true), S_OK);
    EXPECT_EQ(Left(), Texts{});
    EXPECT_EQ(Events(), Texts{});
}

TEST_F(DriverThreadNetCfg, TriesNoOtherComModelAfterAnotherFailure) {
    const auto plan = simulation().GetFaults().FailNth("CoInitializeEx", 1, static_cast<DWORD>(E_OUTOFMEMORY));
    EXPECT_EQ(Acquire(true), E_OUTOFMEMORY);
    EXPECT_EQ(Arguments("CoInitializeEx"), Texts{"null, 4"});
    EXPECT_EQ(netCfg, nullptr);
    EXPECT_EQ(thread.failedStep, NoStep) << "no step has started";
    EXPECT_EQ(Events(), Texts{"3005 CoInitializeEx"});
}

TEST_F(DriverThreadNetCfg, FailsWhenComAcceptsNeitherModel) {
    const auto plan = simulation().GetFaults().FailEvery("CoInitializeEx", static_cast<DWORD>(RPC_E_CHANGED_MODE));
    EXPECT_EQ(Acquire(true), RPC_E_CHANGED_MODE);
    EXPECT_EQ(plan->Hits(), 2U);
    EXPECT_EQ(Events(), Texts{"3005 CoInitializeEx"});
    EXPECT_EQ(Left(), Texts{});
}

TEST_F(DriverThreadNetCfg, ReleasesTheLockWhenItCannotBeInitialised) {
    simulation().GetNetwork().Use([](auto &state) { state.initializeResult = NETCFG_E_IN_USE; });
    EXPECT_EQ(Acquire(true), NETCFG_E_IN_USE);
    EXPECT_EQ(netCfg, nullptr);
    EXPECT_FALSE(IsLocked());
    EXPECT_EQ(thread.failedStep, 9U);
    EXPECT_EQ(Events(), Texts{"3005 INetCfg::Initialize"});
    EXPECT_EQ(Arguments("INetCfgLock::ReleaseWriteLock").size(), 1U);
}

TEST_F(DriverThreadNetCfg, LeaksNothingWhicheverCallOfItsOpeningFails) {
    const std::vector<std::pair<std::string, std::uint32_t>> calls{{"CoInitializeEx", NoStep},
                                                                   {"CoCreateInstance", 9},
                                                                   {"INetCfg::QueryInterface", 12},
                                                                   {"INetCfgLock::AcquireWriteLock", 12},
                                                                   {"INetCfg::Initialize", 9}};
    for (const auto &[function, step] : calls) {
        SCOPED_TRACE(function);
        thread.failedStep = NoStep;
        netCfg = reinterpret_cast<INetCfg *>(1);
        const auto plan = simulation().GetFaults().FailNth(function, 1, static_cast<DWORD>(E_ACCESSDENIED));
        EXPECT_EQ(Acquire(true), E_ACCESSDENIED);
        EXPECT_TRUE(plan->Hit());
        EXPECT_EQ(netCfg, nullptr);
        EXPECT_EQ(thread.failedStep, step);
        EXPECT_EQ(thread.TopStep(), 0U);
        EXPECT_FALSE(IsLocked());
        EXPECT_EQ(Left(), Texts{});
    }
}

TEST_F(DriverThreadNetCfg, IsReleasedWhicheverCallOfItsReleaseFails) {
    const std::vector<std::pair<std::string, std::uint32_t>> calls{
        {"INetCfg::Uninitialize", 14}, {"INetCfg::QueryInterface", 14}, {"INetCfgLock::ReleaseWriteLock", 15}};
    for (const auto &[function, step] : calls) {
        SCOPED_TRACE(function);
        simulation().GetNetwork().Use([](auto &state) { state.lock.reset(); });
        thread.failedStep = NoStep;
        EXPECT_EQ(Acquire(true), S_OK);
        const auto plan = simulation().GetFaults().FailNth(function, 1, static_cast<DWORD>(E_ACCESSDENIED));
        EXPECT_EQ(Release(true), E_ACCESSDENIED);
        EXPECT_TRUE(plan->Hit());
        EXPECT_EQ(thread.failedStep, step);
        EXPECT_EQ(thread.TopStep(), 0U);
        EXPECT_TRUE(IsLocked());
        EXPECT_EQ(Left(), Texts{});
    }
}

// ---- The message table

class MessageTable : public DriverThread {
protected:
    static constexpr DWORD kLocked = 0x80007530;
    static constexpr WORD kEnglish = 1033;
    static constexpr WORD kJapanese = 1041;

    /// @return empty on failure; GetLastError() says why.
    static std::wstring Text(DWORD id, WORD language) {
        DWORD_PTR insert = reinterpret_cast<DWORD_PTR>(L"Somebody");
        wchar_t text[2048] = L"";
        const DWORD length =
            FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, GetModuleHandleW(L"fc.dll"), id,
                           language, text, 2048, reinterpret_cast<va_list *>(&insert));
        return {text, length};
    }
};

TEST_F(MessageTable, SaysInEnglishWhoHoldsTheLock) {
    EXPECT_EQ(Text(kLocked, kEnglish),
              L"Unable to proceed - the network configuration is currently locked by Somebody.");
}

TEST_F(MessageTable, SaysTheSameInJapanese) {
    const std::wstring text = Text(kLocked, kJapanese);
    EXPECT_NE(text, Text(kLocked, kEnglish));
    EXPECT_NE(text.find(L"Somebody"), text.npos);
    EXPECT_EQ(text.find(L'%'), text.npos);
    EXPECT_NE(text.find_first_of(L"\u3042\u3044\u3067\u306e\u306f\u307e\u3059"), text.npos) << "no Japanese letters";
    EXPECT_FALSE(text.ends_with(L'\n'));
}

TEST_F(MessageTable, HasNoOtherEntries) {
    for (const DWORD id : {DWORD{0x7530}, kLocked - 1, kLocked + 1, DWORD{0xC0007530}, DWORD{1}})
        EXPECT_EQ(Text(id, kEnglish), L"") << id;
}

}  // namespace
