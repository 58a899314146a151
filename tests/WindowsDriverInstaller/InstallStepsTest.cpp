// What the installer's worker does, step by step, through SLB.filter on simulated machines.
#include <algorithm>
#include <fstream>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <netcfgx.h>
#include <setupapi.h>

#include "InstallMachine.h"

namespace {

using Simulator::NetworkMoment;
using Simulator::NetworkState;

constexpr wchar_t kServiceKey[] = L"System\\CurrentControlSet\\Services\\qbimvta";
constexpr char kInstall[] = "INetCfgClassSetup::Install";
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

class InstallSteps : public InstallMachine {
protected:
    void MakeSystemEmbedded() { simulation().GetMachine().suiteMask |= VER_SUITE_EMBEDDEDNT; }
    void SetResults(const std::vector<HRESULT> &results) {
        network().Use([&](NetworkState &state) { state.installable.front().results = results; });
    }
    [[nodiscard]] std::filesystem::path WindowsCopy() { return simulation().GetFolders().Windows() / L"qbimvta.sys"; }
    [[nodiscard]] std::string Source() { return (NdisFolder() / L"qbimvta.sys").string(); }
    static bool Contains(const std::string &text, const std::string &part) { return text.find(part) != text.npos; }
    [[nodiscard]] std::optional<std::wstring> ServiceValue(const wchar_t *name) {
        return simulation().GetRegistry().Text(HKEY_LOCAL_MACHINE, kServiceKey, name);
    }
    void PutServiceKey() { simulation().GetRegistry().PutKey(HKEY_LOCAL_MACHINE, kServiceKey); }
    [[nodiscard]] std::vector<std::string> Commands() {
        std::vector<std::string> commands;
        for (const std::wstring &command : simulation().GetSetup().Commands())
            commands.push_back(wxString(command).utf8_string());
        return commands;
    }
};

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

// --- the callout ---

TEST_F(InstallSteps, RunTheDefaultSectionOfTheCalloutsInfFileAndStartIt) {
    wxLog::SetVerbose(true);
    const InstallOutcome outcome = Install();
    wxLog::SetVerbose(false);
    const std::string command = "DefaultInstall 128 " + wxString(WfpFolder() + L"netqbimwfp.inf").utf8_string();
    EXPECT_EQ(Commands(), Lines{command});
    EXPECT_EQ(Calls({"InstallHinfSectionW"}), Lines{"InstallHinfSectionW(null, null, \"" + command + "\", 0)"});
    EXPECT_TRUE(Contains(outcome.EventTexts(1007)[0], "\nInstallHinfSectionW: executing, cmd = " + command + ".\n"));
    EXPECT_EQ(simulation().GetServices().Get(L"qbimwfp").status.state, DWORD{SERVICE_RUNNING});
}

TEST_F(InstallSteps, InstallTheFilterWithoutTheCalloutsInfFile) {
    const std::wstring inf = WfpFolder() + L"netqbimwfp.inf";
    std::filesystem::remove(inf);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_TRUE(Contains(outcome.EventTexts(1007)[0],
                         "\n >InstallingWfpCalloutDriver. 300s max\n"
                         "WFP callout INF file doesn't exist: " +
                             wxString(inf).utf8_string() +
                             "\n <InstallingWfpCalloutDriver\n"
                             "InstallWFPCallout() failed.\n Checking if qbimvta is "
                             "installed.\n"));
    EXPECT_EQ(CallsOf("StartServiceW"), 0U);
    EXPECT_TRUE(network().Has(L"qbimvta"));
}

TEST_F(InstallSteps, InstallTheFilterWhenTheSetupLibraryCannotRunTheSection) {
    simulation().GetSetup().Lack("InstallHinfSectionW");
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_TRUE(Contains(WorkerLog(outcome),
                         "\n  InstallHinfSectionW() is at address <null>\n"
                         " <InstallingWfpCalloutDriver\nInstallWFPCallout() failed.\n"));
    EXPECT_TRUE(network().Has(L"qbimvta"));
}

TEST_F(InstallSteps, InstallTheFilterWhenTheCalloutDoesNotStart) {
    simulation().GetSetup().onInstallSection = [this](const std::wstring &) {
        simulation().GetServices().Put(L"qbimwfp", {.startError = ERROR_ACCESS_DENIED});
    };
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_TRUE(Contains(WorkerLog(outcome), "\nStartWFPCallout() failed.\n Checking if qbimvta is installed.\n"));
    EXPECT_TRUE(network().Has(L"qbimvta"));
}

TEST_F(InstallSteps, SearchForOrphansOnlyWhenTheFilterIsAbsent) {
    InstallOldDriver(kOurVersion);
    KeepComponentOnRemoval();
    SetRunningVersion(std::nullopt);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_TRUE(Contains(WorkerLog(outcome),
                         "\n Checking if qbimvta is installed.\n >CheckingIfStillInstalled. 60s "
                         "max\n <CheckingIfStillInstalled\n Trying to install 'qbimvta'...\n"));
    EXPECT_EQ(CallsOf("SetupDiGetClassDevsW"), 0U);
}

// --- the INF files ---

TEST_F(InstallSteps, CopyTheThreeInfFilesInOrder) {
    std::ofstream(NdisFolder() / L"netrxwim.inf") << "forerunner";
    std::ofstream(NdisFolder() / L"netrxwip.inf") << "forerunner";
    (void)Install();
    Lines expected;
    for (const char *inf : {"netqbimvta.inf", "netqbimvtam.inf", "netqbimvtap.inf"})
        expected.push_back("SetupCopyOEMInfW(\"" + NdisFolder().string() + "\\" + inf +
                           "\", null, 1, 0, *, 260, null, null)");
    EXPECT_EQ(Calls({"SetupCopyOEMInfW"}), expected);
}

TEST_F(InstallSteps, SkipAMissingInfFileSilently) {
    remove(NdisFolder() / L"netqbimvtam.inf");
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_TRUE(Contains(WorkerLog(outcome), R"(
 >CopyingInfFiles. 600s max
  netqbimvta.inf -> <folder>\Windows\inf\oem0.inf
  netqbimvtap.inf -> <folder>\Windows\inf\oem1.inf
 <CopyingInfFiles
)"));
}

TEST_F(InstallSteps, LeaveItToTheComponentsInstallationWithoutAnyInfFile) {
    for (const wchar_t *inf : {L"netqbimvta.inf", L"netqbimvtam.inf", L"netqbimvtap.inf"})
        remove(NdisFolder() / inf);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(outcome.EventTexts(3005), Lines{});
    EXPECT_TRUE(Contains(WorkerLog(outcome), "\n >CopyingInfFiles. 600s max\n <CopyingInfFiles\n"));
    SetRunningVersion(std::nullopt);
    SetResults({E_FAIL, E_FAIL, E_FAIL});
    EXPECT_EQ(FailedStep(Install()), "InstallingDriver");
}

struct CopyError {
    const char *name;
    DWORD error;
    unsigned long result;
};

void PrintTo(const CopyError &tested, std::ostream *out) {
    *out << tested.error << " as " << tested.result;
}

class InstallCopyError : public InstallSteps, public testing::WithParamInterface<CopyError> {};

TEST_P(InstallCopyError, OfTheFirstFileIsReportedAsAResultAndEndsTheAttempt) {
    const FaultPlan plan = faults().FailNth("SetupCopyOEMInfW", 2, GetParam().error);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(plan->Hit());
    EXPECT_EQ(FailedStep(outcome), "CopyingInfFiles");
    const bool isSigning = GetParam().result == 0x800F0247;
    const std::string hint =
        isSigning ? ", please refer to: https://support.quillon.example/articles/signed-drivers" : "";
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("SetupCopyOEMInf(netqbimvtam.inf)" + hint, GetParam().result)});
    EXPECT_EQ(CallsOf("SetupCopyOEMInfW"), 2U) << "the third file is not tried";
    EXPECT_EQ(CallsOf(kInstall), 0U);
    EXPECT_TRUE(WorkerLog(outcome).ends_with("\n <CopyingInfFiles\n"));
    EXPECT_TRUE(HasInf(L"oem0.inf")) << "what was copied stays";
}

constexpr CopyError kCopyErrors[] = {
    {"AccessDenied", ERROR_ACCESS_DENIED, 0x80070005},
    {"AnErrorOfMoreThan16Bits", 0x00012345, 0x80072345},
    {"TheHighestPositive", 0x7FFFFFFF, 0x8007FFFF},
    {"ASetupErrorHasItsTopThreeBitsSet", 0xE0000235, 0x800F0235},
    {"OfASetupErrorOnlyTheLow16BitsCount", 0xFFFF1234, 0x800F1234},
    {"NotSigned", 0xE0000247, 0x800F0247},
    {"NotSignedAsAResult", 0x800F0247, 0x800F0247},
    {"AResultStaysAsItIs", 0x80070490, 0x80070490},
    {"WithTwoOfTheThreeBitsItStaysAsItIs", 0xC0000247, 0xC0000247},
    {"WithTheOtherTwoOfTheThreeBitsItStaysAsItIs", 0xA0000005, 0xA0000005},
};

INSTANTIATE_TEST_SUITE_P(Codes, InstallCopyError, testing::ValuesIn(kCopyErrors),
                         [](const auto &tested) { return std::string(tested.param.name); });

TEST_F(InstallSteps, ContinueAfterACopyThatFailsWithoutAnErrorButSkipTheOtherFiles) {
    const FaultPlan plan = faults().FailNth("SetupCopyOEMInfW", 1, 0);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(plan->Hit());
    EXPECT_TRUE(Succeeded(outcome));
    ASSERT_EQ(outcome.EventTexts(3005).size(), 1U);
    EXPECT_TRUE(outcome.EventTexts(3005)[0].starts_with("SetupCopyOEMInf(netqbimvta.inf)|"));
    EXPECT_EQ(CallsOf("SetupCopyOEMInfW"), 1U);
    EXPECT_EQ(CallsOf(kInstall), 1U);
}

TEST_F(InstallSteps, FailInTheOutermostStepWithAnEmptyFolder) {
    // Our copy is then searched for in the current folder.
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(NdisFolder());
    lua_pushstring(lua, "");
    lua_setglobal(lua, "ndis");
    const InstallOutcome outcome = Install();
    std::filesystem::current_path(before);
    EXPECT_EQ(FailedStep(outcome), "ThreadRunning");
    EXPECT_TRUE(WorkerLog(outcome).ends_with("\n Trying to install 'qbimvta'...\n"));
    EXPECT_EQ(CallsOf("SetupCopyOEMInfW"), 0U);
    EXPECT_EQ(outcome.EventTexts(3005), Lines{});
}

// --- the component ---

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

// --- embedded systems ---

TEST_F(InstallSteps, CopyTheDriverToTheSystemFolderDuringAnInstallationOnAnEmbeddedSystem) {
    MakeSystemEmbedded();
    bool there = false;
    onMoment = [&](const NetworkMoment &moment) {
        if (moment.what == What::Installed)
            there = exists(WindowsCopy());
    };
    EXPECT_TRUE(Succeeded(Install()));
    EXPECT_TRUE(there);
    EXPECT_FALSE(exists(WindowsCopy()));
    EXPECT_EQ(Calls({"CopyFileW"}), Lines{"CopyFileW(\"" + Source() + "\", \"" + WindowsCopy().string() + "\", 0)"});
}

TEST_F(InstallSteps, DeleteTheCopyOnAnEmbeddedSystemAfterAFailureToo) {
    MakeSystemEmbedded();
    SetResults({E_FAIL, E_FAIL, E_FAIL});
    EXPECT_EQ(FailedStep(Install()), "InstallingDriver");
    EXPECT_FALSE(exists(WindowsCopy()));
    EXPECT_EQ(CallsOf("CopyFileW"), 1U);
}

TEST_F(InstallSteps, InstallOnAnEmbeddedSystemWithoutACopyIfTheFolderIsUnknown) {
    MakeSystemEmbedded();
    faults().FailEvery("GetWindowsDirectoryW", ERROR_GEN_FAILURE);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("GetWindowsDirectory()", ERROR_GEN_FAILURE)});
    EXPECT_EQ(CallsOf("CopyFileW"), 0U);
    EXPECT_FALSE(Contains(WorkerLog(outcome), "Deleting '"));
}

TEST_F(InstallSteps, InstallOnAnEmbeddedSystemIfTheCopyFails) {
    MakeSystemEmbedded();
    faults().FailEvery("CopyFileW", ERROR_DISK_FULL);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    const std::string copy = WindowsCopy().string();
    EXPECT_EQ(outcome.EventTexts(3005), (Lines{Report("CopyFile('" + Source() + "', '" + copy + "')", ERROR_DISK_FULL),
                                               Report("DeleteFile('" + copy + "')", ERROR_FILE_NOT_FOUND)}));
    EXPECT_EQ(CallsOf(kInstall), 1U);
}

TEST_F(InstallSteps, SucceedOnAnEmbeddedSystemIfTheCopyCannotBeDeleted) {
    MakeSystemEmbedded();
    simulation().GetFilesInUse().Hold(WindowsCopy());
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(outcome.EventTexts(3005),
              Lines{Report("DeleteFile('" + WindowsCopy().string() + "')", ERROR_SHARING_VIOLATION)});
    EXPECT_TRUE(exists(WindowsCopy()));
}

TEST_F(InstallSteps, CopyNothingOnOtherSystemsOrIfTheEditionIsUnknown) {
    (void)Install();
    EXPECT_EQ(CallsOf("CopyFileW"), 0U);
    SetRunningVersion(std::nullopt);
    MakeSystemEmbedded();
    faults().FailEvery("GetVersionExW", ERROR_INVALID_FUNCTION);
    EXPECT_TRUE(Succeeded(Install()));
    EXPECT_EQ(CallsOf("CopyFileW"), 0U);
}

// --- the service's values ---

TEST_F(InstallSteps, WriteTheServicesValues) {
    PutServiceKey();
    dom.SettingStore("app.path.bin", "C:\\Program Files\\Agent\\bin");
    EXPECT_TRUE(Succeeded(Install()));
    EXPECT_EQ(ServiceValue(L"ConfigBinary"), dom.GetPluginFileWx("filter", "config.bin").ToStdWstring());
    EXPECT_EQ(ServiceValue(L"EndpointRoot"), L"C:\\Program Files\\Agent\\bin");
}

TEST_F(InstallSteps, WriteTheServicesValuesAfterAFailureOfTheInstallationToo) {
    PutServiceKey();
    dom.SettingStore("app.path.bin", "C:\\bin");
    SetResults({E_FAIL, E_FAIL, E_FAIL});
    EXPECT_EQ(FailedStep(Install()), "InstallingDriver");
    EXPECT_EQ(ServiceValue(L"EndpointRoot"), L"C:\\bin");
    EXPECT_NE(ServiceValue(L"ConfigBinary"), std::nullopt);
}

TEST_F(InstallSteps, CreateNoKeyForTheServicesValues) {
    EXPECT_TRUE(Succeeded(Install()));
    EXPECT_FALSE(simulation().GetRegistry().HasKey(HKEY_LOCAL_MACHINE, kServiceKey));
}

TEST_F(InstallSteps, LogEachValueThatCannotBeWrittenAndSucceedAnyway) {
    PutServiceKey();
    dom.SettingStore("app.path.bin", "C:\\bin");
    const FaultPlan plan = faults().FailNth("RegSetValueExW", 1, ERROR_ACCESS_DENIED);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(plan->Hit());
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(Count(WorkerLog(outcome), "Unable to write HKLM\\"), 1U);
    EXPECT_TRUE(Contains(WorkerLog(outcome),
                         "\n Unable to write HKLM\\System\\CurrentControlSet\\Services\\qbimvta\\ConfigBinary\n"));
    EXPECT_EQ(ServiceValue(L"ConfigBinary"), std::nullopt);
    EXPECT_EQ(ServiceValue(L"EndpointRoot"), L"C:\\bin");
}

TEST_F(InstallSteps, LogBothValuesWhenTheKeyCannotBeWritten) {
    PutServiceKey();
    faults().FailEvery("RegSetValueExW", ERROR_ACCESS_DENIED);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_TRUE(Contains(WorkerLog(outcome), "qbimvta\\ConfigBinary\n"));
    EXPECT_TRUE(Contains(WorkerLog(outcome),
                         "\n Unable to write HKLM\\System\\CurrentControlSet\\Services\\qbimvta\\EndpointRoot\n"));
}

}  // namespace
