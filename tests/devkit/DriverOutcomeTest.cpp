// Outcomes of installations and removals that need rare failures.
#include <gtest/gtest.h>

#include "DriverOutcome.h"
#include "DriverRuns.h"
#include "DriverTexts.h"
#include "UniqueHandle.h"
#include "WallClock.h"

namespace {

using What = DriverOutcome::What;

TEST(DriverOutcome, OfACallThatReturnsFalseForNoReasonThatIsToldIsAFailure) {
    DriverRuns runs;
    runs.BeginCall(DriverRun::Kind::Removal);
    EXPECT_TRUE(runs.All().empty());
    runs.EndCall(false, std::nullopt);
    ASSERT_EQ(runs.All().size(), 1U);
    EXPECT_EQ(OutcomeOf(runs.All()[0]).what, What::Failed);
    EXPECT_EQ(OutcomeText(runs.All()[0]), "failed, for a reason that is not told");
}

TEST(DriverOutcome, OfACallThatEndsBeforeItsThreadTellsThatItWasGivenUp) {
    DriverRuns runs;
    runs.BeginCall(DriverRun::Kind::Removal);
    runs.OnThreadBegin(1, "CDriverUninstallerThread");
    runs.EndCall(false, std::nullopt);
    EXPECT_EQ(OutcomeText(runs.All().at(0)), "failed: given up while its thread was still at work");
    const std::optional<double> end = runs.All().at(0).end;
    runs.OnThreadEnd(1, false);
    EXPECT_EQ(runs.All().at(0).end, end);
}

/// A thread that waits until the object's end.
class WaitingThread {
public:
    WaitingThread() { m_thread.reset(CreateThread(nullptr, 0, &Await, m_end.get(), 0, &m_id)); }
    ~WaitingThread() {
        SetEvent(m_end.get());
        (void)WaitForSingleObject(m_thread.get(), INFINITE);
    }
    WaitingThread(const WaitingThread &) = delete;
    WaitingThread &operator=(const WaitingThread &) = delete;
    [[nodiscard]] DWORD Id() const { return m_id; }

private:
    static DWORD WINAPI Await(void *event) { return WaitForSingleObject(event, INFINITE); }

    Simulator::UniqueHandle m_end{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    Simulator::UniqueHandle m_thread;
    DWORD m_id = 0;
};

TEST(DriverOutcome, OfAThreadThatSurvivesItsKillIsThatItCouldNotBeEnded) {
    DriverRuns runs;
    const WaitingThread thread;
    runs.BeginCall(DriverRun::Kind::Removal);
    runs.OnThreadBegin(thread.Id(), "CDriverUninstallerThread");
    runs.OnThreadLine({thread.Id(), wxLOG_Message, 1, ">Outer. 60s max"});
    runs.OnThreadLine({thread.Id(), wxLOG_Message, 2, ">Inner. 5s max"});
    runs.OnThreadEnd(thread.Id(), true);
    runs.EndCall(false, std::nullopt);
    const DriverRun run = runs.All().at(0);
    for (const DriverStep &step : run.steps)
        EXPECT_FALSE(step.killed || step.end) << step.name;
    const DriverOutcome outcome = OutcomeOf(run);
    EXPECT_TRUE(outcome.HasFailed() && outcome.needsReboot && outcome.notKilledAfter && !outcome.killedAfter);
    EXPECT_EQ(outcome.step, "Inner");
    DriverTotals totals;
    totals.Count(run);
    EXPECT_EQ(totals.killed, 0U);
    EXPECT_EQ(totals.failed, 1U);
}

TEST(DriverOutcome, OfAnInstallationThatIsGivenUpAsAWholeHasTheStackOfTheEvent) {
    DriverRuns runs;
    runs.BeginCall(DriverRun::Kind::Installation);
    runs.OnThreadBegin(1, "CDriverInstallerWatchdog");
    runs.OnAgentEvent(1004, "OverallInstall|[00] frame\n[01] frame\n");  // on the script's thread
    runs.EndCall(false, std::nullopt);
    const DriverRun run = runs.All().at(0);
    EXPECT_EQ(OutcomeOf(run).step, "OverallInstall");
    EXPECT_EQ(run.stack, "[00] frame\n[01] frame\n");
}

TEST(DriverOutcome, OfACallThatRaisesAnErrorIsForgotten) {
    DriverRuns runs;
    runs.BeginCall(DriverRun::Kind::Removal);
    runs.BeginCall(DriverRun::Kind::Installation);
    runs.EndCall(true, std::nullopt);
    ASSERT_EQ(runs.All().size(), 1U);
    EXPECT_EQ(OutcomeOf(runs.All()[0]).what, What::Nothing);
}

TEST(DriverOutcome, OfARunThatIsUnderWayIsNotKnownYet) {
    DriverRuns runs;
    runs.BeginCall(DriverRun::Kind::Installation);
    runs.OnThreadBegin(1, "CDriverInstallerWatchdog");
    EXPECT_STREQ(OutcomeName(OutcomeOf(runs.All().at(0)).what), "unfinished");
    EXPECT_EQ(OutcomeText(runs.All().at(0)), "did not come to its end");
}

TEST(DriverOutcome, IsKeptForTheLatestThousandRuns) {
    DriverRuns runs;
    for (int i = 0; i < 1002; ++i) {
        runs.BeginCall(DriverRun::Kind::Removal);
        runs.EndCall(i == 1001, std::nullopt);
    }
    EXPECT_EQ(runs.All().size(), 1000U);
    EXPECT_EQ(runs.All().back().result, true);
    EXPECT_EQ(runs.Forgotten().removals, 2U);
    EXPECT_EQ(runs.Forgotten().failed, 2U) << "which still count";
    EXPECT_EQ(runs.Forgotten().installations, 0U);
}

TEST(DriverFailure, IsReadFromTheTextOfItsEvent) {
    const std::optional<DriverFailure> apply = ParseFailure("INetCfg::Apply|Access (or so) denied. (0x80070005)");
    ASSERT_TRUE(apply);
    EXPECT_EQ(apply->call, "INetCfg::Apply");
    EXPECT_EQ(apply->code, 0x80070005U);
    EXPECT_EQ(apply->step, "");
    const std::optional<DriverFailure> lock = ParseFailure("INetCfgLock::AcquireWriteLock| (0)");
    ASSERT_TRUE(lock);
    EXPECT_EQ(lock->code, 0U);
    EXPECT_EQ(lock->step, "GettingNetworkConfigLock");
    for (const char *other : {"", "a", "a|b", "a|b (x)", "a|b (0x1", "(0x1)", "a|(0x123456789)"})
        EXPECT_FALSE(ParseFailure(other)) << other;
}

TEST(ClockText, IsTheTimeOfDayInMilliseconds) {
    EXPECT_EQ(ClockText(1772438400), "08:00:00.000");
    EXPECT_EQ(ClockText(1772438400 + 3 * 3600 + 4 * 60 + 5.0675), "11:04:05.067");
    EXPECT_EQ(ClockText(86399.9999), "23:59:59.999");
    EXPECT_EQ(ClockText(-1), "23:59:59.000");
}

}  // namespace
