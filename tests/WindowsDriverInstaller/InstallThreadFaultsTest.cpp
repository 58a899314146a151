// An installation whose threads can't be started, or whose worker can't be killed normally.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>

#include <wx/log.h>

#include "InstallMachine.h"
#include "ThreadFaults.h"

namespace {

constexpr char kInstall[] = "INetCfgClassSetup::Install";
/// What an object that stays keeps: the worker, and the log that it writes to.
constexpr int kWorkerWithLog = 2;

class InstallThreadFaults : public InstallMachine {
protected:
    InstallThreadFaults() {
        wxLog::SetVerbose(true);
        ThreadFaults::Redirect(simulation());
    }
    ~InstallThreadFaults() override { wxLog::SetVerbose(false); }

    /// Makes the worker's step overrun. @param whileItHangs  called when the script has its answer.
    InstallOutcome InstallThatOverruns(const std::function<void()> &whileItHangs, int objectsThatStay = 0) {
        const FaultPlan hang = faults().HangNth(kInstall, 1);
        const auto meanwhile = [&] {
            EXPECT_TRUE(hang->WaitUntilHit(kPatienceMs));
            PassTime(600'000);
            EXPECT_TRUE(AwaitReturn());
            whileItHangs();
            hang->Release();
        };
        return InstallWhile(meanwhile, objectsThatStay);
    }
    void ExpectReportOfTheStep(const InstallOutcome &outcome) {
        EXPECT_TRUE(outcome.result);
        EXPECT_EQ(FailedStep(outcome), "InstallingDriver");
        EXPECT_TRUE(WorkerLog(outcome).ends_with("\n >InstallingDriver. 600s max\n")) << WorkerLog(outcome);
    }
    static std::ptrdiff_t Stacks(const InstallOutcome &outcome) {
        const Lines infos = outcome.Lines(wxLOG_Info);
        return std::count_if(infos.begin(), infos.end(),
                             [](const std::string &line) { return line.starts_with("Stack trace:\n[00] "); });
    }
    void ExpectTheNextOneWorks() {
        faults().Clear();
        SetRunningVersion(std::nullopt);
        EXPECT_TRUE(Succeeded(Install()));
    }
};

TEST_F(InstallThreadFaults, AWorkerThatCannotBeKilledIsReportedAnywayAndItsObjectLivesUntilItHasEnded) {
    ThreadFaults::GiveNoTimeToEnd(simulation());
    const int objects = VtaCore::Control::LiveObjects();
    const FaultPlan kills = faults().FailEvery("TerminateThread", ERROR_ACCESS_DENIED);
    const InstallOutcome outcome = InstallThatOverruns([&] {
        EXPECT_TRUE(threads.AwaitEnds(kPatienceMs, 1));
        EXPECT_FALSE(threads.AwaitEnds(0)) << "the worker lives";
        EXPECT_EQ(VtaCore::Control::LiveObjects(), objects + kWorkerWithLog);
        EXPECT_FALSE(network().Has(L"qbimvta"));
    });
    EXPECT_EQ(kills->Hits(), 2U) << "it is tried again";
    ExpectReportOfTheStep(outcome);
    EXPECT_EQ(Stacks(outcome), 1);
    EXPECT_TRUE(network().Has(L"qbimvta")) << "it continued once it was released";
    ExpectTheNextOneWorks();
}

TEST_F(InstallThreadFaults, AWorkerIsKilledAgainIfTheFirstAttemptIsRefused) {
    const FaultPlan kill = faults().FailNth("TerminateThread", 1, ERROR_ACCESS_DENIED);
    const InstallOutcome outcome =
        InstallThatOverruns([this] { EXPECT_TRUE(threads.AwaitEnds(kPatienceMs)) << "although its call still hangs"; });
    EXPECT_TRUE(kill->Hit());
    ExpectReportOfTheStep(outcome);
    EXPECT_EQ(Stacks(outcome), 1);
    EXPECT_FALSE(network().Has(L"qbimvta"));
    ExpectTheNextOneWorks();
}

TEST_F(InstallThreadFaults, TheObjectOfAKilledWorkerStaysIfItsEndCannotBeDetected) {
    const FaultPlan duplicates = faults().FailEvery("DuplicateHandle", ERROR_ACCESS_DENIED);
    const InstallOutcome outcome = InstallThatOverruns(
        [this] { EXPECT_TRUE(threads.AwaitEnds(kPatienceMs)) << "although its call still hangs"; }, kWorkerWithLog);
    EXPECT_TRUE(duplicates->Hit());
    ExpectReportOfTheStep(outcome);
    EXPECT_EQ(Stacks(outcome), 0) << "it might not have been resumed";
    EXPECT_FALSE(network().Has(L"qbimvta"));
    ExpectTheNextOneWorks();
}

TEST_F(InstallThreadFaults, AWorkerThatWasCreatedButCannotBeStartedIsKilledAndTheInstallationFailsInNoStep) {
    const FaultPlan start = faults().FailNth("ResumeThread", 2, ERROR_ACCESS_DENIED);  // the watchdog's is the first
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(start->Hit());
    EXPECT_TRUE(outcome.result);
    EXPECT_EQ(FailedStep(outcome), "<UnknownStep>");
    EXPECT_EQ(WorkerLog(outcome), "\n");
    EXPECT_FALSE(outcome.AskedForReboot());
    EXPECT_EQ(CallsOf("TerminateThread"), 1U);
    EXPECT_EQ(CallsOf(kInstall), 0U);
    ExpectTheNextOneWorks();
}

TEST_F(InstallThreadFaults, AWatchdogHasAHeartbeatBetweenAWorkerThatCannotBeStartedAndItsReport) {
    constexpr std::int64_t twoThirdsOfAMinuteMs = 40'000;
    InstallOldDriver({1, 2, 3, 4});
    const FaultPlan start = faults().FailNth("ResumeThread", 2, ERROR_ACCESS_DENIED);
    const FaultPlan sleep = faults().HangNth("Sleep", 1, kWatchdogThread);
    const FaultPlan end = faults().HangNth("WaitForSingleObject", 2, kWatchdogThread);  // the first follows the kill
    const InstallOutcome outcome = InstallWhile([&] {
        for (const FaultPlan &hang : {sleep, end}) {
            ASSERT_TRUE(hang->WaitUntilHit(kPatienceMs));
            AdvanceMs(twoThirdsOfAMinuteMs);
            EXPECT_TRUE(AwaitPolls());
            hang->Release();
        }
    });
    EXPECT_TRUE(start->Hit());
    EXPECT_EQ(outcome.Lines(wxLOG_Warning), Lines{});
    EXPECT_EQ(FailedStep(outcome), "<UnknownStep>");
}

TEST_F(InstallThreadFaults,
       AWatchdogThatWasCreatedButCannotBeStartedIsKilledAndTheInstallationReturnsFalseWithoutAnyEvent) {
    const FaultPlan start = faults().FailNth("ResumeThread", 1, ERROR_ACCESS_DENIED);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(start->Hit());
    EXPECT_FALSE(outcome.result);
    EXPECT_EQ(outcome.events, Lines{});
    EXPECT_TRUE(outcome.notifications.empty());
    EXPECT_EQ(outcome.traces, Lines{});
    EXPECT_EQ(CallsOf("TerminateThread"), 1U);
    EXPECT_EQ(outcome.tookMs, 0U);
    ExpectTheNextOneWorks();
}

}  // namespace
