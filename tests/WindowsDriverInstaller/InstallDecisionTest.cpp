// What the watchdog decides from the versions before any work, through SLB.filter on simulated machines.
#include <algorithm>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "InstallMachine.h"
#include "WindowsFunctions.h"

namespace {

using Version = std::array<std::uint16_t, 4>;

constexpr char kNoDriver[] = "No installed driver - installing current driver version.";
constexpr char kCorrect[] = "Running driver is the correct version.";
constexpr char kNotRunning[] = "Driver is not running - probably a result of a partial install that required a reboot.";
constexpr char kNewer[] =
    "Installed driver is newer than our version - leaving it in place, but there could be problems.";
constexpr Version kOld{1, 2, 3, 4};

std::string Dotted(const Version &version) {
    std::string text;
    for (const std::uint16_t component : version)
        text += (text.empty() ? "" : ".") + std::to_string(component);
    return text;
}

class InstallDecision : public InstallMachine {
protected:
    /// The file, the component and the callout exist, but the driver doesn't answer.
    void InstallWithoutRunning(const Version &version) {
        InstallOldDriver(version);
        SetRunningVersion(std::nullopt);
    }
    [[nodiscard]] std::string OurFile() { return (NdisFolder() / L"qbimvta.sys").string(); }
    [[nodiscard]] std::string CheckingOurs() { return "Checking version of " + OurFile(); }
    [[nodiscard]] std::string CheckingInstalled() { return "Checking version of " + SystemFile(); }
    static std::string Compared(const Version &installed, const Version &ours) {
        return "Installed driver is " + Dotted(installed) + ", our copy is " + Dotted(ours);
    }
    /// Nothing was sent, and no worker did anything.
    void ExpectNothingDone(const InstallOutcome &outcome) {
        EXPECT_TRUE(outcome.result);
        EXPECT_EQ(outcome.events, Lines{});
        EXPECT_TRUE(outcome.notifications.empty());
        EXPECT_EQ(CallsOf("CoInitializeEx"), 0U);
        EXPECT_EQ(CallsOf("_beginthreadex"), 1U) << "only the watchdog";
    }
    static Lines FirstTraces(const InstallOutcome &outcome, std::size_t count) {
        const std::size_t size = std::min(count, outcome.traces.size());
        return {outcome.traces.begin(), outcome.traces.begin() + static_cast<std::ptrdiff_t>(size)};
    }
};

// --- before the versions ---

TEST_F(InstallDecision, ReadsNeitherDriverFilesNorTheForceSettingInALoadTest) {
    InstallOldDriver(kOld);
    dom.Set("vta.mode.loadtest", true);
    dom.Set("vtp.filter.ForceDriverInstall", true);
    const InstallOutcome outcome = Install();
    ExpectNothingDone(outcome);
    EXPECT_EQ(outcome.traces, Lines{});
    EXPECT_EQ(CallsOf("GetFileVersionInfoSizeW"), 0U);
    EXPECT_EQ(Vti::TheDriver().calls, Lines{});
}

TEST_F(InstallDecision, RemovesTheHealthCheckFilesEvenInALoadTest) {
    dom.Set("vta.mode.loadtest", true);
    const std::filesystem::path system = simulation().GetFolders().System32();
    for (const wchar_t *name : {L"qbimvtaHC.dat", L"qbimwfpHC.dat"})
        std::ofstream(system / name) << "health";
    (void)Install();
    EXPECT_FALSE(exists(system / L"qbimvtaHC.dat"));
    EXPECT_FALSE(exists(system / L"qbimwfpHC.dat"));
}

TEST_F(InstallDecision, KeepsTheHealthCheckFilesOfASystemFolderWhoseNameIsTooLong) {
    dom.Set("vta.mode.loadtest", true);
    const std::filesystem::path file = simulation().GetFolders().System32() / L"qbimvtaHC.dat";
    std::ofstream(file) << "health";
    simulation().Functions().Put<Simulator::System::GetSystemDirectoryW>(
        [](const auto &, wchar_t *, UINT size) -> UINT { return size + 1; });
    EXPECT_TRUE(Install().result);
    EXPECT_TRUE(exists(file));
}

TEST_F(InstallDecision, DoesNothingWithoutOurCopyEvenIfForced) {
    InstallOldDriver(kOld);
    dom.Set("vtp.filter.ForceDriverInstall", true);
    remove(NdisFolder() / L"qbimvta.sys");
    const InstallOutcome outcome = Install();
    ExpectNothingDone(outcome);
    EXPECT_EQ(outcome.traces,
              (Lines{CheckingOurs(), "Driver binary doesn't exist - skipping driver install/upgrade."}));
    EXPECT_EQ(Vti::TheDriver().calls, Lines{});
}

TEST_F(InstallDecision, DoesNothingIfOurCopyHasNoVersion) {
    std::ofstream(NdisFolder() / L"qbimvta.sys", std::ios::trunc) << "no program file";
    const InstallOutcome outcome = Install();
    ExpectNothingDone(outcome);
    EXPECT_EQ(outcome.traces, (Lines{CheckingOurs(), "Unable to get version information from '" + OurFile() +
                                                         "'. Unable to install or upgrade the driver."}));
}

TEST_F(InstallDecision, TracesAtMost256CharactersOfAPath) {
    std::string folder = NdisFolder().string() + "\\";
    while (folder.size() < 255)
        folder += folder.size() % 64 == 63 && folder.size() < 253 ? '\\' : 'n';
    folder += "\\";
    lua_pushstring(lua, folder.c_str());
    lua_setglobal(lua, "ndis");
    const InstallOutcome outcome = Install();
    ASSERT_EQ(folder.size(), 256U);
    EXPECT_EQ(outcome.traces, (Lines{"Checking version of " + folder,
                                     "Driver binary doesn't exist - skipping driver install/upgrade."}));
}

// --- the table of versions ---

enum class Decision { Upgrade, Leave, Newer };

struct VersionRow {
    const char *name;
    Version installed, ours;
    Decision decision;
};

void PrintTo(const VersionRow &row, std::ostream *out) {
    *out << Dotted(row.installed) << " against " << Dotted(row.ours);
}

class VersionDecision : public InstallDecision, public testing::WithParamInterface<VersionRow> {};

TEST_P(VersionDecision, ComparesSignedPackedNumbers) {
    const VersionRow &row = GetParam();
    InstallOldDriver(row.installed);
    SetOurVersion(row.ours);
    SetVersionAfterInstall(row.ours);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(outcome.result);
    ASSERT_GE(outcome.traces.size(), 2U);
    EXPECT_EQ(outcome.traces[1], Compared(row.installed, row.ours));
    const bool upgrades = row.decision == Decision::Upgrade;
    const std::string both = Dotted(row.installed) + "|" + Dotted(row.ours);
    EXPECT_EQ(outcome.EventTexts(1005), upgrades ? Lines{both} : Lines{});
    EXPECT_EQ(CallsOf("INetCfgClassSetup::Install"), upgrades ? 1U : 0U);
    if (upgrades) {
        ASSERT_TRUE(Succeeded(outcome));
        EXPECT_EQ(Removals(outcome), 2U);
        EXPECT_TRUE(outcome.EventTexts(1007)[0].starts_with(both + "| UninstallDriver running.\n"));
    } else {
        ExpectNothingDone(outcome);
        EXPECT_EQ(outcome.traces.back(), row.decision == Decision::Newer ? kNewer : kCorrect);
    }
}

constexpr VersionRow kVersionRows[] = {
    {"ARevisionBelow", {1, 2, 3, 4}, {1, 2, 3, 5}, Decision::Upgrade},
    {"ABuildBelow", {1, 2, 2, 9}, {1, 2, 3, 0}, Decision::Upgrade},
    {"AMinorBelow", {1, 1, 9, 9}, {1, 2, 0, 0}, Decision::Upgrade},
    {"AMajorBelow", {1, 9, 9, 9}, {2, 0, 0, 0}, Decision::Upgrade},
    {"Equal", {1, 2, 3, 4}, {1, 2, 3, 4}, Decision::Leave},
    {"ARevisionAbove", {1, 2, 3, 5}, {1, 2, 3, 4}, Decision::Newer},
    {"AMajorAbove", {10, 0, 0, 0}, {9, 9, 9, 9}, Decision::Newer},
    {"TheHighestComponentsWithoutSign",
     {0x7FFF, 0x7FFF, 0x7FFF, 0x7FFE},
     {0x7FFF, 0x7FFF, 0x7FFF, 0x7FFF},
     Decision::Upgrade},
    // A component of 0x8000 or more sets all bits above it: the number is negative, and the higher components are lost.
    {"AMajorWithSignIsBelowAnyWithout", {0x8000, 0, 0, 0}, {1, 0, 0, 0}, Decision::Upgrade},
    {"AnOrdinaryMajorIsAboveOneWithSign", {1, 0, 0, 0}, {0xFFFF, 0, 0, 0}, Decision::Newer},
    {"AMinorWithSignHidesAHigherMajor", {9, 0x8000, 0, 0}, {1, 0, 0, 0}, Decision::Upgrade},
    {"ABuildWithSignHidesAHigherMajor", {9, 9, 0xFFFF, 5}, {1, 0, 0, 0}, Decision::Upgrade},
    {"ARevisionWithSignIsBelowTheSameWithoutRevision", {1, 2, 3, 0xFFFF}, {1, 2, 3, 0}, Decision::Upgrade},
    {"OursWithSignIsBelowOneOfTheSameMajor", {2, 0, 0, 0}, {2, 0x8000, 0, 0}, Decision::Newer},
    {"TwoMajorsAreEqualUnderAMinorWithSign", {1, 0x8000, 2, 3}, {7, 0x8000, 2, 3}, Decision::Leave},
    {"AllAreEqualUnderARevisionWithSign", {1, 2, 3, 0xFFFF}, {9, 8, 7, 0xFFFF}, Decision::Leave},
    {"OfTwoRevisionsWithSignTheLowerIsBelow", {1, 2, 3, 0x8000}, {1, 2, 3, 0x8001}, Decision::Upgrade},
    {"OfTwoMajorsWithSignTheHigherIsAbove", {0x8001, 0, 0, 0}, {0x8000, 0, 0, 0}, Decision::Newer},
};

INSTANTIATE_TEST_SUITE_P(Rows, VersionDecision, testing::ValuesIn(kVersionRows),
                         [](const auto &tested) { return std::string(tested.param.name); });

TEST_F(InstallDecision, SendsTheUpgradeEventBeforeAnyWork) {
    InstallOldDriver(kOld);
    std::vector<int> order;
    std::size_t workAtUpgrade = 1;
    const EventObserver observer([&](const VtaCore::Control::Event &event) {
        order.push_back(event.number);
        if (event.number == 1005)
            workAtUpgrade = CallsOf("CoInitializeEx") + CallsOf("RegOpenKeyExW") + CallsOf("OpenSCManagerW");
    });
    (void)Install();
    EXPECT_EQ(order, (std::vector{1005, 1007}));
    EXPECT_EQ(workAtUpgrade, 0U);
    EXPECT_GT(CallsOf("OpenSCManagerW"), 0U);
}

TEST_F(InstallDecision, RemovesOnceAndSendsNoUpgradeEventWithoutAnInstalledVersion) {
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(FirstTraces(outcome, 3), (Lines{CheckingOurs(), CheckingInstalled(), kNoDriver}));
    EXPECT_EQ(outcome.EventTexts(1005), Lines{});
    EXPECT_EQ(Removals(outcome), 1U);
}

// --- the installed version ---

TEST_F(InstallDecision, ReinstallsAnEqualDriverThatDoesNotRunWithOneRemoval) {
    InstallWithoutRunning(kOurVersion);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(FirstTraces(outcome, 4),
              (Lines{CheckingOurs(), CheckingInstalled(), Compared(kOurVersion, kOurVersion), kNotRunning}));
    EXPECT_EQ(outcome.EventTexts(1005), Lines{});
    EXPECT_EQ(Removals(outcome), 1U);
    EXPECT_TRUE(outcome.EventTexts(1007)[0].starts_with("2.0.0.0|2.0.0.0|"));
}

TEST_F(InstallDecision, UpgradesALowerDriverThatDoesNotRun) {
    InstallWithoutRunning(kOld);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(FirstTraces(outcome, 3), (Lines{CheckingOurs(), CheckingInstalled(), Compared(kOld, kOurVersion)}));
    EXPECT_EQ(outcome.EventTexts(1005), Lines{"1.2.3.4|2.0.0.0"});
    EXPECT_EQ(Removals(outcome), 2U);
}

TEST_F(InstallDecision, KeepsAHigherDriverThatDoesNotRun) {
    InstallWithoutRunning({2, 0, 1, 0});
    const InstallOutcome outcome = Install();
    ExpectNothingDone(outcome);
    EXPECT_EQ(outcome.traces.back(), kNewer);
}

TEST_F(InstallDecision, PrefersTheRunningVersionToThatOfAFile) {
    InstallOldDriver(kOld);
    SetRunningVersion(kOurVersion);
    const InstallOutcome outcome = Install();
    ExpectNothingDone(outcome);
    EXPECT_EQ(outcome.traces, (Lines{CheckingOurs(), Compared(kOurVersion, kOurVersion), kCorrect}));
}

TEST_F(InstallDecision, ReportsADriverWithoutAVersionAndReadsTheFile) {
    InstallOldDriver(kOurVersion);
    Vti::TheDriver().faults["vti_get_version"] = {-17, "", 1};
    const InstallOutcome outcome = Install();
    EXPECT_EQ(outcome.EventTexts(1001), Lines{"GET_VERSION|ffffffef"});
    EXPECT_EQ(outcome.events.front(), "1001|GET_VERSION|ffffffef");
    EXPECT_TRUE(Has(outcome.traces, kNotRunning));
    EXPECT_TRUE(Succeeded(outcome));
}

TEST_F(InstallDecision, ReadsTheFileWhenTheRunningVersionIsInvalid) {
    InstallOldDriver(kOld);
    Vti::TheDriver().version = "a driver";
    const InstallOutcome outcome = Install();
    EXPECT_EQ(FirstTraces(outcome, 4),
              (Lines{CheckingOurs(), "Unable to parse the version string returned from the running driver ('a driver')",
                     CheckingInstalled(), Compared(kOld, kOurVersion)}));
    EXPECT_EQ(outcome.EventTexts(1005), Lines{"1.2.3.4|2.0.0.0"});
}

TEST_F(InstallDecision, InstallsWhenTheInstalledFileHasNoVersion) {
    InstallWithoutRunning(kOld);
    std::ofstream(SystemFile(), std::ios::trunc) << "no program file";
    const InstallOutcome outcome = Install();
    EXPECT_EQ(FirstTraces(outcome, 3), (Lines{CheckingOurs(), CheckingInstalled(),
                                              "Unable to get version information from '" + SystemFile() + "'."}));
    EXPECT_EQ(outcome.EventTexts(1005), Lines{});
    EXPECT_EQ(Removals(outcome), 1U);
    EXPECT_TRUE(outcome.EventTexts(1007)[0].starts_with("0.0.0.0|2.0.0.0|"));
}

TEST_F(InstallDecision, ReportsThatTheSystemFolderIsUnknownAndInstalls) {
    InstallWithoutRunning(kOurVersion);
    faults().FailNth("SHGetFolderPathW", 1, static_cast<DWORD>(E_ACCESSDENIED));
    const InstallOutcome outcome = Install();
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("SHGetFolderPath(CSIDL_SYSTEM)", 0x80070005)});
    EXPECT_EQ(FirstTraces(outcome, 1), Lines{CheckingOurs()});
    EXPECT_FALSE(Has(outcome.traces, CheckingInstalled()));
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(Removals(outcome), 1U);
    const Lines asked = Calls({"SHGetFolderPathW"});
    ASSERT_FALSE(asked.empty());
    EXPECT_TRUE(asked[0].starts_with("SHGetFolderPathW(null, 37, ")) << asked[0];
}

// --- the forced installation ---

TEST_F(InstallDecision, RemovesTwiceAndSendsNoUpgradeEventWhenForcedOverANewerDriver) {
    InstallOldDriver({2, 0, 0, 1});
    dom.Set("vtp.filter.ForceDriverInstall", true);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_TRUE(Has(outcome.traces, kNewer));
    EXPECT_EQ(Removals(outcome), 2U);
    EXPECT_EQ(outcome.EventTexts(1005), Lines{});
    EXPECT_TRUE(outcome.EventTexts(1007)[0].starts_with("2.0.0.1|2.0.0.0|"));
}

TEST_F(InstallDecision, RemovesTwiceWhenForcedOverARunningEqualDriver) {
    InstallOldDriver(kOurVersion);
    dom.Set("vtp.filter.ForceDriverInstall", true);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_TRUE(Has(outcome.traces, kCorrect));
    EXPECT_EQ(Removals(outcome), 2U);
    EXPECT_EQ(outcome.EventTexts(1005), Lines{});
}

TEST_F(InstallDecision, RemovesOnceWhenForcedAlthoughItWouldInstallAnyway) {
    InstallWithoutRunning(kOurVersion);
    dom.Set("vtp.filter.ForceDriverInstall", true);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(Removals(outcome), 1U);
}

TEST_F(InstallDecision, IsNotForcedByASettingThatIsFalse) {
    InstallOldDriver({2, 0, 0, 1});
    dom.Set("vtp.filter.ForceDriverInstall", false);
    ExpectNothingDone(Install());
}

}  // namespace
