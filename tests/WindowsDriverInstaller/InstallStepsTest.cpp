// The complete log and the calls of an installation, and the removal before it.

#include <algorithm>
#include <string>

#include "InstallStepsFixture.h"

namespace {

using Simulator::NetworkMoment;

constexpr char kRemovalOfNothing[] = R"(
 UninstallDriver running.
 SetupUninstallOEMInfW() is at address <address>
 Trying to uninstall 'qbimvta'...
 >FindingComponent. 15s max
 <FindingComponent
 'qbimvta' is not installed
 Trying to uninstall 'rxwim'...
 >FindingComponent. 15s max
 <FindingComponent
 'rxwim' is not installed
 >RemovingInfFiles. 300s max
 <RemovingInfFiles
 Checking if qbimvta is still installed
 >CheckingIfStillInstalled. 60s max
 <CheckingIfStillInstalled
 Checking for orphaned QBIMVTA_MP bindings
 >CleaningUpOrphans. 180s max
 <CleaningUpOrphans)";
constexpr char kRemovalOfBoth[] = R"(
 UninstallDriver running.
 SetupUninstallOEMInfW() is at address <address>
 >UninstallingWfpCalloutDriver. 300s max
  InstallHinfSectionW() is at address <address>
 <UninstallingWfpCalloutDriver
 Trying to uninstall 'qbimvta'...
 >FindingComponent. 15s max
 <FindingComponent
 >GettingClassGUID. 10s max
 <GettingClassGUID
 >GettingINetCfgClass. 10s max
 <GettingINetCfgClass
 >GettingINetCfgClassSetup. 10s max
 <GettingINetCfgClassSetup
 >UninstallingDriver. 600s max
 <UninstallingDriver
 >ApplyingInetCfgChanges. 300s max
 <ApplyingInetCfgChanges
 >RemovingInfFiles. 300s max
  Matched 'qbimvta' in file '<folder>\Windows\inf\oem1.inf'. Deleting this inf+pnf+cat.
  SetupUninstallOEMInf('oem1.inf') succeeded
  Matched 'qbimwfp' in file '<folder>\Windows\inf\oem2.inf'. Deleting this inf+pnf+cat.
  SetupUninstallOEMInf('oem2.inf') succeeded
 <RemovingInfFiles
 Checking if qbimvta is still installed
 >CheckingIfStillInstalled. 60s max
 <CheckingIfStillInstalled
 Checking for orphaned QBIMVTA_MP bindings
 >CleaningUpOrphans. 180s max
 <CleaningUpOrphans)";
constexpr char kInstallationUpToFiles[] = R"(
 >InstallingWfpCalloutDriver. 300s max
  InstallHinfSectionW() is at address <address>
 <InstallingWfpCalloutDriver
 Checking if qbimvta is installed.
 >CheckingIfStillInstalled. 60s max
 <CheckingIfStillInstalled
 Checking for orphaned QBIMVTA_MP bindings
 >CleaningUpOrphans. 180s max
 <CleaningUpOrphans
 Trying to install 'qbimvta'...
 >CopyingInfFiles. 600s max
  netqbimvta.inf -> <folder>\Windows\inf\oem0.inf
  netqbimvtam.inf -> <folder>\Windows\inf\oem1.inf
  netqbimvtap.inf -> <folder>\Windows\inf\oem2.inf
 <CopyingInfFiles)";
constexpr char kComponent[] = R"(
 >GettingINetCfgClassSetup. 10s max
 <GettingINetCfgClassSetup
 Attempt #1 at installing qbimvta
 >InstallingDriver. 600s max
 <InstallingDriver)";
constexpr char kApplication[] = R"(
 >ApplyingInetCfgChanges. 300s max
 <ApplyingInetCfgChanges
)";

// --- whole installations ---

TEST_F(InstallSteps, OnAFreshMachineLogThisTree) {
    const InstallOutcome outcome = Install();
    EXPECT_EQ(WorkerLog(outcome), std::string(kRemovalOfNothing) + kInstallationUpToFiles + kComponent + kApplication);
    EXPECT_EQ(WatchdogLog(outcome), R"(
>ThreadRunning. 3600s max
 >GettingAdapterInfo. 10s max
 <GettingAdapterInfo
<ThreadRunning
>GettingAdapterInfo. 10s max
<GettingAdapterInfo
)");
    EXPECT_EQ(outcome.Lines(wxLOG_Error), Lines{});
    EXPECT_EQ(outcome.Lines(wxLOG_Warning), Lines{});
}

TEST_F(InstallSteps, OfAnUpgradeLogThisTree) {
    InstallOldDriver({1, 2, 3, 4});
    network().Bind(kSecond, L"qbimvta", false);
    const InstallOutcome outcome = Install();
    EXPECT_EQ(WorkerLog(outcome), std::string(kRemovalOfBoth) + kRemovalOfNothing +
                                      R"(
 >EnsuringDriverUnloaded. 60s max
 <EnsuringDriverUnloaded)" + kInstallationUpToFiles +
                                      kComponent + kApplication);
    EXPECT_EQ(WatchdogLog(outcome), R"(
>ThreadRunning. 3600s max
 >GettingAdapterInfo. 10s max
 <GettingAdapterInfo
<ThreadRunning
Restoring network bindings.
Adapter 'First adapter' is bound to qbimvta
Original bindings of adapter 'First adapter' are ms_tcpip=1 qbimvta=1
No need to change the bindings of adapter 'First adapter'
Adapter 'Second adapter' is bound to qbimvta
Original bindings of adapter 'Second adapter' are ms_tcpip=1 qbimvta=0
Disabling binding from 'Second adapter' -> qbimvta
)");
    EXPECT_EQ(outcome.Lines(wxLOG_Error), Lines{});
}

TEST_F(InstallSteps, OnAnEmbeddedSystemLogThisTree) {
    MakeSystemEmbedded();
    EXPECT_EQ(WorkerLog(Install()), std::string(kRemovalOfNothing) + kInstallationUpToFiles +
                                        "\n Copying 'qbimvta.sys' to '<folder>\\Windows\\qbimvta.sys'" + kComponent +
                                        "\n Deleting '<folder>\\Windows\\qbimvta.sys'" + kApplication);
}

TEST_F(InstallSteps, CallTheSystemInThisOrder) {
    MakeSystemEmbedded();
    (void)Install();
    EXPECT_EQ(NamesOfCalls({"INetCfg::FindComponent", "SetupDiGetClassDevsW", "InstallHinfSectionW", "StartServiceW",
                            "SetupCopyOEMInfW", "INetCfgLock::AcquireWriteLock", "INetCfgLock::ReleaseWriteLock",
                            "INetCfg::Initialize", "INetCfg::Uninitialize", "INetCfg::QueryNetCfgClass",
                            "GetWindowsDirectoryW", "CopyFileW", kInstall, "INetCfg::Apply", "GetAdaptersInfo",
                            "GetIpNetTable"}),
              (Lines{"INetCfg::Initialize", "GetAdaptersInfo", "INetCfg::FindComponent", "INetCfg::FindComponent",
                     "INetCfg::FindComponent", "INetCfg::Uninitialize",
                     // the removal: is the filter there, its predecessor, is the filter still there, are there orphans
                     "INetCfgLock::AcquireWriteLock", "INetCfg::Initialize", "INetCfg::FindComponent",
                     "INetCfg::Uninitialize", "INetCfgLock::ReleaseWriteLock", "INetCfgLock::AcquireWriteLock",
                     "INetCfg::Initialize", "INetCfg::FindComponent", "INetCfg::Uninitialize",
                     "INetCfgLock::ReleaseWriteLock", "INetCfg::Initialize", "INetCfg::FindComponent",
                     "INetCfg::Uninitialize", "SetupDiGetClassDevsW",
                     // the installation
                     "InstallHinfSectionW", "StartServiceW", "INetCfg::Initialize", "INetCfg::FindComponent",
                     "INetCfg::Uninitialize", "SetupDiGetClassDevsW", "SetupCopyOEMInfW", "SetupCopyOEMInfW",
                     "SetupCopyOEMInfW", "INetCfgLock::AcquireWriteLock", "INetCfg::Initialize", "GetWindowsDirectoryW",
                     "CopyFileW", "INetCfg::QueryNetCfgClass", kInstall, "INetCfg::Apply", "INetCfg::Uninitialize",
                     "INetCfgLock::ReleaseWriteLock",
                     // the watchdog: unsuitable adapters, the network
                     "INetCfg::Initialize", "GetAdaptersInfo", "INetCfg::FindComponent", "INetCfg::FindComponent",
                     "INetCfg::FindComponent", "INetCfg::Uninitialize", "GetIpNetTable", "INetCfg::Initialize",
                     "GetAdaptersInfo", "INetCfg::FindComponent", "INetCfg::FindComponent", "INetCfg::FindComponent",
                     "INetCfg::Uninitialize"}));
}

// --- the removal before it ---

TEST_F(InstallSteps, RemoveTheOldDriverTwiceBeforeAnUpgradeAndUseTheSecondResult) {
    InstallOldDriver({1, 2, 3, 4});
    const FaultPlan plan = faults().FailNth("INetCfgClassSetup::DeInstall", 1, static_cast<DWORD>(E_FAIL));
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(plan->Hit());
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(Removals(outcome), 2U);
    EXPECT_EQ(CallsOf("INetCfgClassSetup::DeInstall"), 2U);
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("INetCfgClassSetup::DeInstall", 0x80004005)});
}

TEST_F(InstallSteps, InstallNothingWhenTheRemovalFailed) {
    InstallOldDriver({1, 2, 3, 4});
    PutServiceKey();
    faults().FailEvery("INetCfgClassSetup::DeInstall", static_cast<DWORD>(E_FAIL));
    const InstallOutcome outcome = Install();
    EXPECT_EQ(FailedStep(outcome), "UninstallingDriver");
    EXPECT_FALSE(Contains(WorkerLog(outcome), "EnsuringDriverUnloaded"));
    EXPECT_EQ(CallsOf("SetupCopyOEMInfW"), 0U);
    EXPECT_EQ(CallsOf(kInstall), 0U);
    EXPECT_EQ(ServiceValue(L"ConfigBinary"), std::nullopt);
    EXPECT_TRUE(network().Has(L"qbimvta")) << "the old one stays";
}

TEST_F(InstallSteps, WaitUntilTheOldDriverIsUnloaded) {
    InstallOldDriver({1, 2, 3, 4});
    onMoment = [this](const NetworkMoment &moment) {
        if (moment.what == What::Removed)
            SetRunningVersion(Version{1, 2, 3, 4});
    };
    int asked = 0;
    Vti::TheDriver().onCall = [&asked](Vti::Driver &driver, const std::string &call) {
        if (call == "vti_open()" && ++asked == 5)  // the decision queries it first
            driver.present = false;
    };
    const InstallOutcome outcome = Install();
    Vti::TheDriver().onCall = nullptr;
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_TRUE(Contains(WorkerLog(outcome), R"(
 >EnsuringDriverUnloaded. 60s max
  Driver version 1.2.3.4 is still loaded
  Driver version 1.2.3.4 is still loaded
  Driver version 1.2.3.4 is still loaded
 <EnsuringDriverUnloaded
)"));
}

TEST_F(InstallSteps, WaitAtMostHalfAMinuteForTheOldDriverAndInstallAnyway) {
    InstallOldDriver({1, 2, 3, 4});
    onMoment = [this](const NetworkMoment &moment) {
        if (moment.what == What::Removed)
            SetRunningVersion(Version{1, 2, 3, 4});
    };
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(Count(WorkerLog(outcome), "  Driver version 1.2.3.4 is still loaded\n"), 60U);
    const Lines sleeps = Calls({"Sleep"});
    EXPECT_EQ(std::count(sleeps.begin(), sleeps.end(), "Sleep(500)"), 60);
    EXPECT_EQ(outcome.EventTexts(1006), Lines{});
}

TEST_F(InstallSteps, DoNotWaitForTheDriverToUnloadWithoutAnUpgrade) {
    EXPECT_FALSE(Contains(WorkerLog(Install()), "EnsuringDriverUnloaded"));
}

TEST_F(InstallSteps, StopAfterTheRemovalWhenTheNetworkWorkaroundNeedsAReboot) {
    simulation().GetMachine().osBuild = 17763;
    simulation().GetRegistry().PutDword(HKEY_LOCAL_MACHINE, L"System\\CurrentControlSet\\Services\\TSFairShare\\NetFS",
                                        L"EnableFairShare", 1);
    PutServiceKey();
    InstallOldDriver({1, 2, 3, 4});
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome)) << "the result of the removal counts";
    EXPECT_EQ(Removals(outcome), 2U);
    EXPECT_FALSE(Contains(WorkerLog(outcome), "EnsuringDriverUnloaded"));
    EXPECT_EQ(CallsOf(kInstall), 0U);
    EXPECT_FALSE(network().Has(L"qbimvta"));
    EXPECT_EQ(ServiceValue(L"EndpointRoot"), std::nullopt);
    EXPECT_EQ(outcome.EventTexts(1006), Lines{"1"});
    EXPECT_EQ(Reboots(outcome), 1U);
}

TEST_F(InstallSteps, StopAfterARemovalThatNeedsAReboot) {
    PutOrphan();
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_TRUE(Contains(WorkerLog(outcome), " HrCleanupOrphans: orphan scan needs reboot (4:0)\n"));
    EXPECT_EQ(CallsOf("SetupCopyOEMInfW"), 0U);
    EXPECT_EQ(outcome.EventTexts(1006), Lines{"1"});
}

}  // namespace
