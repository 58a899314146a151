// How an installation is supervised and timed: the caller's polls of the watchdog, the watchdog's polls of the worker,
// the events of the outcome, and the check of the network after it.
#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <netcfgx.h>
#include <dbghelp.h>

#include "Event.h"
#include "InstallMachine.h"
#include "Lock.h"
#include "WindowsFunctions.h"
#include "thread_log_control.h"

namespace {

SIMULATOR_FUNCTION(StackWalk64, "dbghelp.dll", ReturnsZero);
SIMULATOR_FUNCTION(SuspendThread, "KERNEL32.dll", ReturnsMinusOne);

using Simulator::NetworkAdapter;
using Simulator::NetworkMoment;

constexpr char kAllOffline[] =
    "All of the adapters were offline before we started the install/upgrade. There's no point in checking the network "
    "status.";
constexpr char kHealthy[] = "Adapters all seem to be healthy and have IP info - presumably IP is working.";
constexpr char kStale[] =
    "Installation succeeded but the wrong driver version is still loaded. Trying an unbind/bind to see if that fixes "
    "it.";

std::string Warning(int seconds) {
    return "Installer thread has not made any progress in the last " + std::to_string(seconds) + " seconds.";
}

std::string Useless(const std::string &version) {
    return "Rebinding didn't help - driver " + version + " is still loaded. Setting the reboot-required flag.";
}

class InstallWatch : public InstallMachine {
protected:
    /// Only the watchdog reads adapters: before the work and after it, each right after a heartbeat. After the second
    /// time the next heartbeat comes before any sleep.
    [[nodiscard]] FaultPlan HangWatchdog(unsigned nth) { return faults().HangNth("GetAdaptersInfo", nth); }
    [[nodiscard]] InstallOutcome InstallWithoutProgressFor(std::int64_t milliseconds) {
        const FaultPlan plan = HangWatchdog(2);
        return InstallWhile([&] { Stall(plan, milliseconds); });
    }
    void Stall(const FaultPlan &plan, std::int64_t milliseconds) {
        ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
        AdvanceMs(milliseconds);
        EXPECT_TRUE(AwaitPolls());
        plan->Release();
    }
    /// Hangs the watchdog until the caller has given it up.
    [[nodiscard]] InstallOutcome InstallGivenUp() {
        const FaultPlan plan = HangWatchdog(2);
        return InstallWhile([&] {
            ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
            AdvanceMs(3'600'001);
            EXPECT_TRUE(AwaitReturn());
            plan->Release();
        });
    }
    /// The installation loads a driver of an older version, which the event replaces by another one, or by none.
    void RunStaleDriverUntil(NetworkMoment::What event, const std::optional<Version> &then) {
        onMoment = [this, event, then](const NetworkMoment &moment) {
            if (moment.what == NetworkMoment::What::Installed)
                SetRunningVersion(Version{1, 0, 0, 0});
            else if (moment.what == event)
                SetRunningVersion(then);
        };
    }
    static Lines Warnings(const InstallOutcome &outcome) { return outcome.Lines(wxLOG_Warning); }
    [[nodiscard]] Lines ThingsLeft(const Simulator::BalanceSnapshot &before) {
        Lines left;
        for (const Simulator::BalanceItem &item : Simulator::Balance::Left(before, balance().Take())) {
            if (item.kind != std::string(Simulator::Kind::kBlock))
                left.push_back(std::string(item.kind) + " of " + item.function);
        }
        return left;
    }
    void SetMedia(const wchar_t *node, std::optional<DWORD> status) {
        network().ChangeAdapter(node, [&](NetworkAdapter &adapter) { adapter.mediaStatus = status; });
    }
};

// --- the caller's polls ---

TEST_F(InstallWatch, DoesNotWarnAfterExactlySixtySecondsWithoutProgress) {
    const InstallOutcome outcome = InstallWithoutProgressFor(60'000);
    EXPECT_EQ(Warnings(outcome), Lines{});
    EXPECT_TRUE(Succeeded(outcome));
}

TEST_F(InstallWatch, WarnsOnceAMillisecondLater) {
    const InstallOutcome outcome = InstallWithoutProgressFor(60'001);
    EXPECT_EQ(Warnings(outcome), Lines{Warning(60)});
    EXPECT_TRUE(Succeeded(outcome));
}

TEST_F(InstallWatch, ReportsAStallInWholeSeconds) {
    EXPECT_EQ(Warnings(InstallWithoutProgressFor(1'925'999)), Lines{Warning(1925)});
}

TEST_F(InstallWatch, WarnsOnceOfALongStall) {
    const FaultPlan plan = HangWatchdog(2);
    const InstallOutcome outcome = InstallWhile([&] {
        ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
        AdvanceMs(60'001);
        EXPECT_TRUE(AwaitPolls());
        AdvanceMs(60'001);
        EXPECT_TRUE(AwaitPolls());
        Stall(plan, 3'000'000);
    });
    EXPECT_EQ(Warnings(outcome), Lines{Warning(60)});
}

TEST_F(InstallWatch, WarnsAgainWhenThereWasAHeartbeatBetweenTwoStalls) {
    const FaultPlan first = HangWatchdog(1);
    const FaultPlan second = HangWatchdog(2);
    const InstallOutcome outcome = InstallWhile([&] {
        Stall(first, 61'000);
        Stall(second, 62'000);
    });
    EXPECT_EQ(Warnings(outcome), (Lines{Warning(61), Warning(62)}));
    EXPECT_TRUE(Succeeded(outcome));
}

TEST_F(InstallWatch, KeepsCountingAcrossAWrapOfTheTick) {
    constexpr std::uint64_t wrap = std::uint64_t{1} << 32;
    clock().SetTick(wrap - 30'000);
    EXPECT_EQ(Warnings(InstallWithoutProgressFor(60'000)), Lines{});
    EXPECT_GT(clock().TickMs(), wrap);
    SetRunningVersion(std::nullopt);
    clock().SetTick(2 * wrap - 30'000);
    EXPECT_EQ(Warnings(InstallWithoutProgressFor(60'001)), Lines{Warning(60)});
    EXPECT_GT(clock().TickMs(), 2 * wrap);
}

TEST_F(InstallWatch, PollsFourTimesASecond) {
    const DWORD caller = GetCurrentThreadId();
    (void)InstallWithoutProgressFor(1'000);
    std::size_t sleeps = 0;
    for (const Simulator::JournalEntry &call : simulation().GetJournal().Entries()) {
        if (call.thread != caller || call.function != "Sleep")
            continue;
        ++sleeps;
        EXPECT_EQ(call.arguments, "250");
    }
    EXPECT_GE(sleeps, 3U);
}

TEST_F(InstallWatch, DoesNotGiveUpAfterExactlyAnHour) {
    const InstallOutcome outcome = InstallWithoutProgressFor(3'600'000);
    EXPECT_EQ(Warnings(outcome), Lines{Warning(3600)});
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_FALSE(outcome.AskedForReboot());
}

TEST_F(InstallWatch, GivesUpAMillisecondLaterWithTheWatchdogsStack) {
    Lines order;
    int logId = 0;
    const EventObserver observer([&](const VtaCore::Control::Event &event) {
        order.push_back(event.text.BeforeFirst('|').utf8_string());
        if (event.number == 1004)
            logId = event.logId;
    });
    const InstallOutcome outcome = InstallGivenUp();
    EXPECT_FALSE(outcome.result);
    ASSERT_EQ(outcome.EventTexts(1004).size(), 1U);
    EXPECT_TRUE(outcome.EventTexts(1004)[0].starts_with("OverallInstall|[00] ")) << outcome.EventTexts(1004)[0];
    EXPECT_EQ(logId, 1004);
    EXPECT_EQ(Reboots(outcome), 1U);
    EXPECT_EQ(outcome.EventTexts(1006), Lines{});
    EXPECT_EQ(order, (Lines{"OverallInstall", "0.0.0.0"})) << "the watchdog continued, and succeeded";
}

TEST_F(InstallWatch, GivesUpWithoutAStackIfTheWatchdogHangsWhileItReadsAnother) {
    simulation().Functions().PassThrough<StackWalk64>();
    const FaultPlan step = faults().HangNth("INetCfgClassSetup::Install", 1);
    const FaultPlan walk = faults().HangNth("StackWalk64", 1, kWatchdogThread);
    const InstallOutcome outcome = InstallWhile([&] {
        ASSERT_TRUE(step->WaitUntilHit(kPatienceMs));
        PassTime(600'000);
        ASSERT_TRUE(walk->WaitUntilHit(kPatienceMs));
        AdvanceMs(3'600'001);
        EXPECT_TRUE(AwaitReturn());
        walk->Release();
        EXPECT_TRUE(threads.AwaitEnds(kPatienceMs)) << "the worker was killed";
        step->Release();
    });
    EXPECT_FALSE(outcome.result);
    const Lines reports = outcome.EventTexts(1004);
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_EQ(reports[0], "OverallInstall|");
    EXPECT_TRUE(reports[1].starts_with("InstallingDriver|")) << reports[1];
}

TEST_F(InstallWatch, CompletesAndLeaksNothingAfterItWasGivenUp) {
    dom.Set("vta.mode.loadtest", true);
    (void)Install();
    dom.Set("vta.mode.loadtest", false);
    const Simulator::BalanceSnapshot before = balance().Take();
    const InstallOutcome outcome = InstallGivenUp();
    EXPECT_FALSE(outcome.result);
    EXPECT_EQ(ThingsLeft(before), Lines{});
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_TRUE(Has(outcome.traces, kHealthy));
}

TEST_F(InstallWatch, CanInstallAgainAfterAnInstallationWasGivenUp) {
    (void)InstallGivenUp();
    EXPECT_TRUE(Install().result);
    SetRunningVersion(std::nullopt);
    EXPECT_TRUE(Succeeded(Install()));
}

TEST_F(InstallWatch, ReturnsBeforeTheFirstPollIfTheAgentIsStoppingAndTheWatchdogContinues) {
    const DWORD caller = GetCurrentThreadId();
    const FaultPlan plan = HangWatchdog(1);
    VtaCore::Control::SetShouldExit(dom, true);
    bool slept = true;
    const InstallOutcome outcome = InstallWhile([&] {
        EXPECT_TRUE(AwaitReturn());
        const auto calls = simulation().GetJournal().Entries();
        slept = std::any_of(calls.begin(), calls.end(),
                            [caller](const auto &call) { return call.thread == caller && call.function == "Sleep"; });
        ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
        plan->Release();
    });
    EXPECT_FALSE(outcome.result);
    EXPECT_FALSE(slept);
    EXPECT_EQ(outcome.EventTexts(1007).size(), 1U);
    EXPECT_TRUE(IsBound(kFirst));
}

TEST_F(InstallWatch, StopsPollingWhenTheAgentIsStoppingAndTheWatchdogContinues) {
    const FaultPlan plan = HangWatchdog(2);
    const InstallOutcome outcome = InstallWhile([&] {
        ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
        EXPECT_TRUE(AwaitPolls());
        VtaCore::Control::SetShouldExit(dom, true);
        EXPECT_TRUE(AwaitReturn());
        plan->Release();
    });
    EXPECT_FALSE(outcome.result);
    EXPECT_EQ(outcome.EventTexts(1007).size(), 1U);
    EXPECT_EQ(outcome.EventTexts(1004), Lines{});
    EXPECT_FALSE(outcome.AskedForReboot());
}

// --- the watchdog's polls of the worker ---

TEST_F(InstallWatch, WarnsOnceOfAWorkerThatHangsInOneStepForAMinute) {
    const FaultPlan plan = faults().HangNth("INetCfgClassSetup::Install", 1);
    const InstallOutcome outcome = InstallWhile([&] {
        ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
        for (int second = 0; second < 130; ++second) {
            PassTime(1'000, 1'000);
            EXPECT_TRUE(AwaitPolls(1));
        }
        plan->Release();
    });
    EXPECT_EQ(Warnings(outcome), Lines{Warning(61)}) << "the clock moves in whole seconds";
    EXPECT_TRUE(Succeeded(outcome));
}

TEST_F(InstallWatch, DoesNotWarnWhileStepsEnd) {
    std::vector<FaultPlan> plans;
    for (const char *function : {"SetupCopyOEMInfW", "INetCfgClassSetup::Install", "INetCfg::Apply"})
        plans.push_back(faults().HangNth(function, 1));
    const InstallOutcome outcome = InstallWhile([&] {
        for (const FaultPlan &plan : plans) {
            ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
            for (int second = 0; second < 40; ++second) {
                PassTime(1'000, 1'000);
                EXPECT_TRUE(AwaitPolls(1));
            }
            plan->Release();
        }
    });
    EXPECT_EQ(Warnings(outcome), Lines{});
    EXPECT_TRUE(Succeeded(outcome));
}

TEST_F(InstallWatch, KillsAWorkerWhoseStepOverrunsAndNamesTheStep) {
    simulation().Functions().PassThrough<SuspendThread>();
    wxLog::SetVerbose(true);
    const InstallOutcome outcome = InstallHungIn("INetCfgClassSetup::Install", 1, 600'000);
    wxLog::SetVerbose(false);
    EXPECT_TRUE(outcome.result);
    EXPECT_EQ(FailedStep(outcome), "InstallingDriver");
    EXPECT_TRUE(WorkerLog(outcome).ends_with(" Attempt #1 at installing qbimvta\n >InstallingDriver. 600s max\n"));
    const Lines infos = outcome.Lines(wxLOG_Info);
    EXPECT_EQ(std::count_if(infos.begin(), infos.end(),
                            [](const std::string &line) { return line.starts_with("Stack trace:\n[00] "); }),
              1);
    EXPECT_EQ(CallsOf("SuspendThread"), 1U) << "for the stack";
    EXPECT_FALSE(outcome.AskedForReboot());
}

TEST_F(InstallWatch, LogsTheStackOfAKilledWorkerOnlyIfVerbose) {
    wxLog::SetVerbose(false);
    const InstallOutcome outcome = InstallHungIn("SetupCopyOEMInfW", 1, 600'000);
    EXPECT_EQ(FailedStep(outcome), "CopyingInfFiles");
    EXPECT_EQ(outcome.Lines(wxLOG_Info), Lines{});
}

TEST_F(InstallWatch, UnbindsUnsuitableAdaptersEvenWhenTheWorkerWasKilled) {
    network().Bind(kSecond, L"ms_tcpip", false);
    const InstallOutcome outcome = InstallHungIn("INetCfg::Apply", 1, 300'000);
    EXPECT_EQ(FailedStep(outcome), "ApplyingInetCfgChanges");
    EXPECT_NE(
        WatchdogLog(outcome).find("Adapter 'Second adapter' is not bound to TCPIP - marking it to be unbound from "
                                  "QBIMVTA\n"),
        std::string::npos);
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_FALSE(IsBound(kSecond));
}

TEST_F(InstallWatch, DoesNotKillAWorkerAfterAnHourOutsideOfAllInnerSteps) {
    simulation().Functions().PassThrough<SuspendThread>();
    wxLog::SetVerbose(true);
    InstallOldDriver({1, 0, 0, 0});
    // The stop of the callout has no step of its own.
    const InstallOutcome outcome = InstallHungIn("ControlService", 1, 3'600'000);
    wxLog::SetVerbose(false);
    EXPECT_TRUE(outcome.result);
    EXPECT_EQ(FailedStep(outcome), "<UnknownStep>") << "the worker's, which is in no step";
    for (const std::string &line : outcome.Lines(wxLOG_Info))
        EXPECT_FALSE(line.starts_with("Stack trace")) << line;
    EXPECT_EQ(CallsOf("SuspendThread"), 0U) << "nor is its stack read";
    EXPECT_EQ(CallsOf("INetCfgClassSetup::DeInstall"), 1U) << "it was not killed, and continued once it was released";
    EXPECT_EQ(CallsOf("INetCfgClassSetup::Install"), 1U);
}

/// Receives what the agent's threads log, for as long as the process lives.
class HeardLines : public VtaCore::Control::ThreadListener {
public:
    static HeardLines &Instance() {
        static HeardLines &lines = *new HeardLines;
        return lines;
    }
    void OnThreadBegin(DWORD, const char *) override {}
    void OnThreadEnd(DWORD, bool) override {}
    void OnThreadLine(const VtaCore::Control::ThreadLine &line) override {
        const Simulator::InsideSimulator inside;
        const Simulator::LockGuard guard(m_lock);
        m_lines.push_back(line.text.utf8_string());
    }
    std::vector<std::string> Take() {
        const Simulator::LockGuard guard(m_lock);
        return std::exchange(m_lines, {});
    }

private:
    Simulator::Lock m_lock;
    std::vector<std::string> m_lines;
};

TEST_F(InstallWatch, AWorkerThatIsNotKilledKeepsLoggingAfterTheOutcomeAndTheWatchdogsEnd) {
    HeardLines &heard = HeardLines::Instance();
    VtaCore::Control::SetThreadListener(&heard);
    InstallOldDriver({1, 0, 0, 0});
    const int objects = VtaCore::Control::LiveObjects();
    const FaultPlan hang = faults().HangNth("ControlService", 1);
    const InstallOutcome outcome = InstallWhile([&] {
        ASSERT_TRUE(hang->WaitUntilHit(kPatienceMs));
        PassTime(3'600'000);
        EXPECT_TRUE(AwaitReturn());
        EXPECT_TRUE(threads.AwaitEnds(kPatienceMs, 1));
        EXPECT_EQ(VtaCore::Control::LiveObjects(), objects + 2) << "the worker, and its log";
        (void)heard.Take();
        hang->Release();
    });
    VtaCore::Control::SetThreadListener(nullptr);
    EXPECT_EQ(FailedStep(outcome), "<UnknownStep>");
    const Lines later = heard.Take();
    EXPECT_TRUE(Has(later, " Attempt #1 at installing qbimvta"));
    EXPECT_EQ(WorkerLog(outcome).find("Attempt #1 at installing qbimvta"), std::string::npos);
}

/// Hangs the thread that logs the line.
class HangingLine : public VtaCore::Control::ThreadListener {
public:
    explicit HangingLine(const char *text) : m_text(text) {}

    void OnThreadBegin(DWORD, const char *) override {}
    void OnThreadEnd(DWORD, bool) override {}
    void OnThreadLine(const VtaCore::Control::ThreadLine &line) override {
        if (line.text != m_text)
            return;
        reached.Set();
        released.Wait(INFINITE);
    }

    Simulator::Event reached;
    Simulator::Event released;

private:
    const wxString m_text;
};

TEST_F(InstallWatch, AFailureIsReportedWithoutTheLogOfAWorkerThatHangsWhileItLogs) {
    // A listener lives as long as the process.
    HangingLine &line = *new HangingLine(" UninstallDriver running.");
    VtaCore::Control::SetThreadListener(&line);
    const InstallOutcome outcome = InstallWhile([&] {
        ASSERT_TRUE(line.reached.Wait(kPatienceMs));
        PassTime(3'600'000);
        EXPECT_TRUE(AwaitReturn());
        line.released.Set();
    });
    VtaCore::Control::SetThreadListener(nullptr);
    EXPECT_TRUE(outcome.result);
    EXPECT_EQ(FailedStep(outcome), "<UnknownStep>");
    EXPECT_EQ(WorkerLog(outcome), "\n");
}

TEST_F(InstallWatch, AWorkerThatWasLeftAloneAndEndsInAStepOfTheWatchdogWarnsOfThatStep) {
    HeardLines &heard = HeardLines::Instance();
    VtaCore::Control::SetThreadListener(&heard);
    InstallOldDriver({1, 0, 0, 0});
    const FaultPlan hang = faults().HangNth("ControlService", 1);
    const FaultPlan reading = HangWatchdog(2);
    const InstallOutcome outcome = InstallWhile([&] {
        ASSERT_TRUE(hang->WaitUntilHit(kPatienceMs));
        PassTime(3'600'000);
        ASSERT_TRUE(reading->WaitUntilHit(kPatienceMs)) << "the check of the network";
        (void)heard.Take();
        hang->Release();
        EXPECT_TRUE(threads.AwaitEnds(kPatienceMs, 1)) << "the worker";
        reading->Release();
        EXPECT_TRUE(AwaitReturn());
    });
    VtaCore::Control::SetThreadListener(nullptr);
    EXPECT_TRUE(outcome.result);
    EXPECT_TRUE(Has(heard.Take(),
                    "Consistency check - we just completed ThreadRunning but GettingAdapterInfo was on top of the step "
                    "stack."));
}

TEST_F(InstallWatch, DoesNotRestoreTheBindingsOfAFailedUpgrade) {
    InstallOldDriver({1, 0, 0, 0});
    network().Bind(kSecond, L"qbimvta", false);
    // The filter is installed and bound to both adapters when its changes can't be applied.
    onMoment = [this](const NetworkMoment &moment) {
        if (moment.what == What::Installed)
            faults().FailNth("INetCfg::Apply", 1, static_cast<DWORD>(E_FAIL));
    };
    const InstallOutcome outcome = Install();
    EXPECT_EQ(FailedStep(outcome), "ApplyingInetCfgChanges");
    EXPECT_FALSE(Has(outcome.ThreadLog(), "Restoring network bindings."));
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_TRUE(IsBound(kSecond));
    EXPECT_EQ(CallsOf("INetCfgBindingPath::Enable"), 0U);
}

TEST_F(InstallWatch, ReportsAlsoWhatTheLogGrabberHoldsBackUntilItsEnd) {
    const std::string whole = WorkerLog(Install());
    SetRunningVersion(std::nullopt);
    VtaCore::Control::SetGrabbersHoldBack(true);
    const std::string heldBack = WorkerLog(Install());
    VtaCore::Control::SetGrabbersHoldBack(false);
    EXPECT_NE(heldBack, "");
    EXPECT_TRUE(heldBack.ends_with("<ApplyingInetCfgChanges\n")) << heldBack;
    EXPECT_TRUE(whole.ends_with("<ApplyingInetCfgChanges\n")) << whole;
}

// --- what follows a success ---

TEST_F(InstallWatch, RestoresTheBindingsOfAnUpgradeFromTheEarlierRecords) {
    InstallOldDriver({1, 0, 0, 0});
    network().Bind(kFirst, L"qbimvta", false);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_FALSE(IsBound(kFirst));
    EXPECT_TRUE(IsBound(kSecond));
    EXPECT_EQ(CallsOf("GetAdaptersInfo"), 2U) << "before the work, and in the check of the network";
}

TEST_F(InstallWatch, RebindsWhenADriverOfAnotherVersionIsLoadedAndAsksForAReboot) {
    SetVersionAfterInstall(Version{1, 0, 0, 0});
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    const std::string text = WatchdogLog(outcome);
    EXPECT_NE(text.find(std::string("\n") + kStale +
                        "\n>GettingAdapterInfo. 10s max\n<GettingAdapterInfo\n"
                        "Adapter 'First adapter' is bound to qbimvta\n"
                        "Disabling binding from 'First adapter' -> qbimvta\n"),
              std::string::npos)
        << text;
    EXPECT_TRUE(
        text.ends_with("Adapter 'Second adapter' is not bound to qbimvta\n"
                       "Original bindings of adapter 'Second adapter' are ms_tcpip=1 qbimvta=1\n"
                       "Enabling binding from 'Second adapter' -> qbimvta\n" +
                       Useless("1.0.0.0") + "\n"))
        << text;
    EXPECT_EQ(outcome.EventTexts(1006), Lines{"1"});
    EXPECT_EQ(Reboots(outcome), 1U);
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_TRUE(IsBound(kSecond));
    EXPECT_EQ(outcome.events.front(), "1006|1");
}

TEST_F(InstallWatch, AsksForARebootEvenWhenRebindingHasLoadedTheRightVersion) {
    RunStaleDriverUntil(What::BindingEnabled, kOurVersion);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Has(outcome.ThreadLog(), Useless("2.0.0.0")));
    EXPECT_EQ(outcome.EventTexts(1006), Lines{"1"});
}

TEST_F(InstallWatch, AsksForARebootWhenNoDriverAnswersAfterTheRebinding) {
    RunStaleDriverUntil(What::BindingDisabled, std::nullopt);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Has(outcome.ThreadLog(), Useless("0.0.0.0")));
    EXPECT_EQ(outcome.EventTexts(1006), Lines{"1"});
}

TEST_F(InstallWatch, AsksForNoRebootWhenNoDriverAnswersAndOursHasVersionZero) {
    SetOurVersion({0, 0, 0, 0});
    RunStaleDriverUntil(What::BindingDisabled, std::nullopt);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_TRUE(Has(outcome.ThreadLog(), kStale));
    EXPECT_FALSE(Has(outcome.ThreadLog(), Useless("0.0.0.0")));
    EXPECT_EQ(outcome.EventTexts(1006), Lines{});
    EXPECT_FALSE(outcome.AskedForReboot());
}

TEST_F(InstallWatch, DoesNotRebindWhenTheDriverDoesNotAnswer) {
    SetVersionAfterInstall(std::nullopt);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_FALSE(Has(outcome.ThreadLog(), kStale));
    EXPECT_EQ(outcome.EventTexts(1006), Lines{});
}

// --- the network afterwards ---

TEST_F(InstallWatch, ChecksTheNetworkTwoSecondsAfterTheWork) {
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(outcome.traces.back(), kHealthy);
    EXPECT_EQ(CallsOf("GetIpNetTable"), 1U);
    EXPECT_FALSE(Has(outcome.traces, kAllOffline));
    Lines sleeps;
    for (const std::string &call : Calls({"Sleep", "GetIpNetTable", "SendARP"})) {
        if (call != "Sleep(250)")
            sleeps.push_back(call.substr(0, call.find(',')));
    }
    ASSERT_GE(sleeps.size(), 5U);
    EXPECT_EQ(sleeps[sleeps.size() - 5], "Sleep(2000)");
    EXPECT_TRUE(sleeps[sleeps.size() - 4].starts_with("GetIpNetTable("));
    EXPECT_EQ(sleeps[sleeps.size() - 3], "Sleep(2000)");
}

TEST_F(InstallWatch, ChecksTheNetworkIfAtLeastOneAdapterWasConnected) {
    SetMedia(kFirst, 1);
    EXPECT_EQ(Install().traces.back(), kHealthy);
}

TEST_F(InstallWatch, DoesNotCheckTheNetworkIfAllAdaptersWereOffline) {
    SetMedia(kFirst, 1);
    SetMedia(kSecond, std::nullopt);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(outcome.traces.back(), kAllOffline);
    EXPECT_EQ(CallsOf("GetIpNetTable"), 0U);
}

TEST_F(InstallWatch, AFailureWithAllAdaptersOfflineMakesNoOtherRebootRequest) {
    TakeAllAdaptersOffline();
    faults().FailEvery("INetCfgClassSetup::Install", static_cast<DWORD>(E_FAIL));
    const InstallOutcome outcome = Install();
    EXPECT_EQ(FailedStep(outcome), "InstallingDriver");
    EXPECT_EQ(outcome.traces.back(), kAllOffline);
    EXPECT_EQ(CallsOf("GetIpNetTable"), 0U);
    EXPECT_FALSE(outcome.AskedForReboot());
}

TEST_F(InstallWatch, ChecksTheNetworkAfterAFailureToo) {
    faults().FailEvery("INetCfgClassSetup::Install", static_cast<DWORD>(E_FAIL));
    EXPECT_EQ(Install().traces.back(), kHealthy);
}

TEST_F(InstallWatch, ANetworkThatStaysUnhealthyCausesARebootRequestAndNotAFalseResult) {
    BreakNetworkWhenInstalled();
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(outcome.EventTexts(1006), Lines{});
    EXPECT_EQ(Reboots(outcome), 1U);
}

TEST_F(InstallWatch, TheNetworkDoesNotRepeatARebootRequest) {
    BreakNetworkWhenInstalled();
    network().Use([](Simulator::NetworkState &state) {
        state.installable.front().results = {NETCFG_S_REBOOT, NETCFG_S_REBOOT, NETCFG_S_REBOOT};
    });
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_GT(CallsOf("SetupDiCallClassInstaller"), 0U) << "the last recovery was tried";
    EXPECT_EQ(outcome.EventTexts(1006), Lines{"1"});
    EXPECT_EQ(Reboots(outcome), 1U);
}

TEST_F(InstallWatch, ReportsTheRebootBeforeTheOutcome) {
    network().Use([](Simulator::NetworkState &state) {
        state.installable.front().results = {NETCFG_S_REBOOT, NETCFG_S_REBOOT, NETCFG_S_REBOOT};
    });
    const InstallOutcome outcome = Install();
    ASSERT_EQ(outcome.events.size(), 3U);
    EXPECT_TRUE(outcome.events[0].starts_with("3005|INetCfgClassSetup::Install()|"));
    EXPECT_EQ(outcome.events[1], "1006|1");
    EXPECT_TRUE(outcome.events[2].starts_with("1007|"));
    ASSERT_EQ(outcome.notifications.size(), 1U);
    EXPECT_EQ(outcome.notifications[0].code, 5);
}

TEST_F(InstallWatch, WritesTheEventOfAFailureButNotOfASuccessToTheAgentsLogToo) {
    std::vector<std::pair<int, int>> ids;
    const EventObserver observer(
        [&](const VtaCore::Control::Event &event) { ids.emplace_back(event.number, event.logId); });
    (void)Install();
    SetRunningVersion(std::nullopt);
    faults().FailEvery("INetCfgClassSetup::Install", static_cast<DWORD>(E_FAIL));
    (void)Install();
    EXPECT_EQ(ids, (std::vector<std::pair<int, int>>{{1007, 0}, {3005, 0}, {1004, 1004}}));
}

// --- threads that can't be created ---

TEST_F(InstallWatch, ReturnsFalseWithoutAnyEventWhenTheWorkerCannotBeCreated) {
    const FaultPlan plan = faults().FailNth("_beginthreadex", 2, EAGAIN);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(plan->Hit());
    EXPECT_FALSE(outcome.result);
    EXPECT_EQ(outcome.events, Lines{});
    EXPECT_TRUE(outcome.notifications.empty());
    EXPECT_EQ(CallsOf("CoInitializeEx"), 0U);
    faults().Clear();
    EXPECT_TRUE(Succeeded(Install()));
}

TEST_F(InstallWatch, ReturnsFalseWithoutAnyEventWhenTheWatchdogCannotBeCreated) {
    const FaultPlan plan = faults().FailNth("_beginthreadex", 1, EAGAIN);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(plan->Hit());
    EXPECT_FALSE(outcome.result);
    EXPECT_EQ(outcome.events, Lines{});
    EXPECT_EQ(outcome.traces, Lines{});
    EXPECT_LT(outcome.tookMs, 1'000U);
    faults().Clear();
    EXPECT_TRUE(Succeeded(Install()));
}

}  // namespace
