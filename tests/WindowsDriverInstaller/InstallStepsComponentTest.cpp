// The steps of an installation that install the component.

#include <algorithm>
#include <string>

#include "InstallStepsFixture.h"

namespace {

TEST_F(InstallSteps, OpenTheServiceClassAndInstallThroughTheSystemsSetup) {
    (void)Install();
    EXPECT_EQ(Calls({"INetCfg::QueryNetCfgClass", kInstall}),
              (Lines{"INetCfg::QueryNetCfgClass({4D36E974-E325-11CE-BFC1-08002BE10318}, "
                     "{C0E8AE9D-306E-11D1-AACF-00805FC1270E}, *)",
                     "INetCfgClassSetup::Install(\"qbimvta\", *, 2, 0, null, null, *)"}));
}

TEST_F(InstallSteps, FailWithTheStepAndAReportWhenTheClassIsUnavailable) {
    faults().FailEvery("INetCfg::QueryNetCfgClass", static_cast<DWORD>(E_NOINTERFACE));
    const InstallOutcome outcome = Install();
    EXPECT_EQ(FailedStep(outcome), "GettingINetCfgClassSetup");
    EXPECT_EQ(outcome.EventTexts(3005),
              Lines{Report("INetCfg::QueryNetCfgClass({4D36E974-E325-11CE-BFC1-08002BE10318})", 0x80004002)});
    EXPECT_EQ(CallsOf(kInstall), 0U);
    EXPECT_EQ(CallsOf("INetCfg::Apply"), 0U);
    EXPECT_FALSE(network().Read().lock.has_value());
}

TEST_F(InstallSteps, ReportOnlyTheFirstOfTheFailedAttempts) {
    SetResults({E_ACCESSDENIED, E_FAIL});
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("INetCfgClassSetup::Install()", 0x80070005)});
    EXPECT_EQ(CallsOf(kInstall), 3U);
    EXPECT_TRUE(Contains(WorkerLog(outcome), "\n Attempt #3 at installing qbimvta\n"));
}

TEST_F(InstallSteps, TryThreeTimesAndFailWithTheStepOfTheThird) {
    SetResults({E_FAIL, E_FAIL, E_ACCESSDENIED});
    const InstallOutcome outcome = Install();
    EXPECT_EQ(FailedStep(outcome), "InstallingDriver");
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("INetCfgClassSetup::Install()", 0x80004005)});
    EXPECT_EQ(CallsOf(kInstall), 3U);
    EXPECT_EQ(CallsOf("INetCfg::Apply"), 0U);
    EXPECT_EQ(outcome.EventTexts(1006), Lines{});
}

TEST_F(InstallSteps, TryAgainAfterAPositiveResultAndForgetItWhenTheNextSucceeds) {
    SetResults({NETCFG_S_REBOOT, S_OK});
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(CallsOf(kInstall), 2U);
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("INetCfgClassSetup::Install()", 0x0004A020)});
    EXPECT_EQ(outcome.EventTexts(1006), Lines{});
}

TEST_F(InstallSteps, WaitFiveSecondsAfterEachAttemptThatFindsTheServiceMarkedForDeletion) {
    SetResults(
        {HRESULT_FROM_WIN32(ERROR_SERVICE_MARKED_FOR_DELETE), HRESULT_FROM_WIN32(ERROR_SERVICE_MARKED_FOR_DELETE)});
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    const Lines sleeps = Calls({"Sleep"});
    EXPECT_EQ(std::count(sleeps.begin(), sleeps.end(), "Sleep(5000)"), 2);
    EXPECT_EQ(outcome.EventTexts(1006), Lines{});
}

TEST_F(InstallSteps, TreatAPositiveResultWithThatErrorInItsLowHalfAsOneTooButApply) {
    SetResults({ERROR_SERVICE_MARKED_FOR_DELETE, ERROR_SERVICE_MARKED_FOR_DELETE, ERROR_SERVICE_MARKED_FOR_DELETE});
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    const Lines sleeps = Calls({"Sleep"});
    EXPECT_EQ(std::count(sleeps.begin(), sleeps.end(), "Sleep(5000)"), 3);
    EXPECT_EQ(CallsOf("INetCfg::Apply"), 1U);
    EXPECT_EQ(outcome.EventTexts(1006), Lines{"1"});
}

TEST_F(InstallSteps, FailWhenTheChangesCannotBeApplied) {
    faults().FailEvery("INetCfg::Apply", static_cast<DWORD>(E_UNEXPECTED));
    const InstallOutcome outcome = Install();
    EXPECT_EQ(FailedStep(outcome), "ApplyingInetCfgChanges");
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("INetCfg::Apply", 0x8000FFFF)});
    EXPECT_EQ(CallsOf("INetCfg::Uninitialize"), CallsOf("INetCfg::Initialize"));
    EXPECT_FALSE(network().Read().lock.has_value());
}

TEST_F(InstallSteps, TreatAnyOtherPositiveResultOfApplyAsAFailureWithoutAStep) {
    faults().FailEvery("INetCfg::Apply", S_FALSE);
    const InstallOutcome outcome = Install();
    EXPECT_EQ(FailedStep(outcome), "<UnknownStep>");
    EXPECT_EQ(outcome.EventTexts(3005), Lines{});
}

TEST_F(InstallSteps, NameTheFirstStepThatFailedAndNotALaterOne) {
    SetResults({E_FAIL, E_FAIL, E_FAIL});
    // The third release of the lock is the installation's.
    const FaultPlan plan = faults().FailNth("INetCfgLock::ReleaseWriteLock", 3, static_cast<DWORD>(E_FAIL));
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(plan->Hit());
    EXPECT_EQ(FailedStep(outcome), "InstallingDriver");
}

TEST_F(InstallSteps, DoNotNameTheInstallationWhenALaterAttemptSucceeds) {
    SetResults({E_FAIL});
    faults().FailEvery("INetCfg::Apply", static_cast<DWORD>(E_UNEXPECTED));
    EXPECT_EQ(FailedStep(Install()), "ApplyingInetCfgChanges");
}

TEST_F(InstallSteps, IgnoreAFailureToReleaseTheConfiguration) {
    const FaultPlan plan = faults().FailNth("INetCfgLock::ReleaseWriteLock", 3, static_cast<DWORD>(E_FAIL));
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(plan->Hit());
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("INetCfgLock::ReleaseWriteLock", 0x80004005)});
}

TEST_F(InstallSteps, FailWhenTheConfigurationCannotBeOpenedForTheInstallation) {
    // The removal searches for two components under the lock first.
    const FaultPlan plan = faults().FailNth("INetCfgLock::AcquireWriteLock", 3, static_cast<DWORD>(E_ACCESSDENIED));
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(plan->Hit());
    EXPECT_EQ(FailedStep(outcome), "GettingNetworkConfigLock");
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("INetCfgLock::AcquireWriteLock", 0x80070005)});
    EXPECT_EQ(CallsOf("SetupCopyOEMInfW"), 3U);
    EXPECT_EQ(CallsOf(kInstall), 0U);
}

}  // namespace
