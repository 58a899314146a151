// The steps of an installation for the callout and the INF files.

#include <fstream>
#include <ostream>
#include <string>

#include "InstallStepsFixture.h"

namespace {

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

}  // namespace
