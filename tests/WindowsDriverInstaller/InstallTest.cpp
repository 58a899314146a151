// The installation of the drivers through SLB.filter, on simulated machines.
#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "InstallFixture.h"
#include "WatcherClock.h"

namespace {

using Lines = std::vector<std::string>;

bool Holds(const Lines &lines, const std::string &line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

class DriverInstallation : public InstallFixture {
protected:
    [[nodiscard]] std::size_t Installs() { return simulation().GetJournal().Count("INetCfgClassSetup::Install"); }
};

TEST_F(DriverInstallation, InstallsBothDriversOnAMachineWithoutThem) {
    const InstallOutcome installation = Install();
    EXPECT_TRUE(installation.result);
    ASSERT_EQ(installation.EventTexts(1007).size(), 1U);
    EXPECT_TRUE(installation.EventTexts(1007)[0].starts_with("0.0.0.0|2.0.0.0| UninstallDriver running.\n"));
    EXPECT_EQ(installation.events.size(), 1U);
    EXPECT_TRUE(Holds(installation.traces, "No installed driver - installing current driver version."));
    EXPECT_TRUE(network().Has(L"qbimvta"));
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_TRUE(IsBound(kSecond));
    EXPECT_EQ(simulation().GetServices().Get(L"qbimwfp").status.state, DWORD{SERVICE_RUNNING});
    EXPECT_FALSE(installation.AskedForReboot());
}

TEST_F(DriverInstallation, KeepsARunningDriverOfTheSameVersion) {
    InstallOldDriver(kOurVersion);
    const InstallOutcome installation = Install();
    EXPECT_TRUE(installation.result);
    EXPECT_TRUE(Holds(installation.traces, "Running driver is the correct version."));
    EXPECT_EQ(installation.events, Lines{});
    EXPECT_EQ(Installs(), 0U);
}

TEST_F(DriverInstallation, KeepsANewerDriver) {
    InstallOldDriver({2, 0, 0, 1});
    const InstallOutcome installation = Install();
    EXPECT_TRUE(installation.result);
    EXPECT_TRUE(
        Holds(installation.traces,
              "Installed driver is newer than our version - leaving it in place, but there could be problems."));
    EXPECT_EQ(Installs(), 0U);
}

TEST_F(DriverInstallation, ForcesADowngradeWithoutTheUpgradeEvent) {
    InstallOldDriver({2, 0, 0, 1});
    dom.Set("vtp.filter.ForceDriverInstall", true);
    const InstallOutcome installation = Install();
    EXPECT_EQ(installation.EventTexts(1005), Lines{});
    EXPECT_EQ(installation.EventTexts(1007).size(), 1U);
    EXPECT_EQ(Installs(), 1U);
}

TEST_F(DriverInstallation, AsksAdaptersFor64BitCountersFromVersion51On) {
    dom.Set("vtp.filter.ForceDriverInstall", true);
    for (const auto &[major, minor, longer] :
         {std::tuple{4UL, 9UL, false}, std::tuple{5UL, 0UL, false}, std::tuple{5UL, 1UL, true}}) {
        SCOPED_TRACE(std::to_string(major) + "." + std::to_string(minor));
        simulation().GetMachine().osMajor = major;
        simulation().GetMachine().osMinor = minor;
        EXPECT_TRUE(Install().result);
        const Lines asked = Calls({"DeviceIoControl"});
        EXPECT_NE(asked, Lines{});
        EXPECT_EQ(std::any_of(asked.begin(), asked.end(),
                              [](const std::string &call) {
                                  return call.starts_with("DeviceIoControl(*, 1507330, *, 4, *, 8");
                              }),
                  longer);
    }
}

constexpr wchar_t kVersionPath[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
constexpr wchar_t kNdisPath[] = L"System\\CurrentControlSet\\Services\\NDIS\\Parameters";
constexpr wchar_t kFairSharePath[] = L"System\\CurrentControlSet\\Services\\TSFairShare\\NetFS";
constexpr wchar_t kBindMode[] = L"FilterBindLogicMode";
constexpr wchar_t kFairShare[] = L"EnableFairShare";

/// Installs whatever is installed. The first key has no values, the second has a 1.
class InstallWorkaround : public DriverInstallation {
protected:
    using Number = std::optional<DWORD>;

    InstallWorkaround() {
        dom.Set("vtp.filter.ForceDriverInstall", true);
        SetVersion(10, 0, 17763);
        PutKeys();
    }
    void SetVersion(DWORD major, DWORD minor, DWORD build) {
        simulation().GetMachine().osMajor = major;
        simulation().GetMachine().osMinor = minor;
        simulation().GetMachine().osBuild = build;
    }
    void PutKeys() {
        registry().Remove(HKEY_LOCAL_MACHINE, kNdisPath);
        registry().PutKey(HKEY_LOCAL_MACHINE, kNdisPath);
        registry().PutDword(HKEY_LOCAL_MACHINE, kFairSharePath, kFairShare, 1);
    }
    /// @param fair  whether the fair share is turned off, which needs a reboot.
    void ExpectAfterInstall(Number bindMode, bool fair) {
        EXPECT_EQ(Install().AskedForReboot(), fair);
        EXPECT_EQ(registry().Dword(HKEY_LOCAL_MACHINE, kNdisPath, kBindMode), bindMode);
        EXPECT_EQ(registry().Dword(HKEY_LOCAL_MACHINE, kFairSharePath, kFairShare), Number(fair ? 0 : 1));
    }
    Simulator::RegistrySandbox &registry() { return simulation().GetRegistry(); }
};

TEST_F(InstallWorkaround, DependsOnTheVersion) {
    struct Row {
        DWORD major, minor, build;
        bool bind, fair;
    };
    for (const Row &row : {Row{11, 0, 0, true, false}, Row{10, 0, 16298, false, false}, Row{10, 0, 16299, true, false},
                           Row{10, 1, 0, true, false}, Row{10, 0, 17763, true, true}, Row{10, 0, 20348, true, false},
                           Row{9, 9, 20000, false, false}}) {
        SCOPED_TRACE(std::to_string(row.major) + "." + std::to_string(row.minor) + "." + std::to_string(row.build));
        SetVersion(row.major, row.minor, row.build);
        PutKeys();
        ExpectAfterInstall(row.bind ? Number(1) : Number(), row.fair);
    }
}

TEST_F(InstallWorkaround, ReadsTheVersionFromTheRegistryOnVersion62) {
    SetVersion(6, 2, 9200);
    ExpectAfterInstall(Number(), false);
    registry().PutText(HKEY_LOCAL_MACHINE, kVersionPath, L"CurrentVersion", L"10.0");
    ExpectAfterInstall(Number(), false);
    registry().PutText(HKEY_LOCAL_MACHINE, kVersionPath, L"CurrentBuildNumber", L"17763");
    ExpectAfterInstall(1, true);
    PutKeys();
    registry().PutText(HKEY_LOCAL_MACHINE, kVersionPath, L"CurrentVersion", L"10");
    ExpectAfterInstall(Number(), false);
}

TEST_F(InstallWorkaround, KeepsABindModeThatIsSetOrCannotBeRead) {
    SetVersion(10, 0, 16299);
    for (const DWORD mode : {0UL, 1UL, 2UL}) {
        registry().PutDword(HKEY_LOCAL_MACHINE, kNdisPath, kBindMode, mode);
        ExpectAfterInstall(mode == 0 ? 1 : mode, false);
    }
    PutKeys();
    registry().PutText(HKEY_LOCAL_MACHINE, kNdisPath, kBindMode, L"x");
    (void)Install();
    EXPECT_EQ(registry().Text(HKEY_LOCAL_MACHINE, kNdisPath, kBindMode), L"x");
    registry().Remove(HKEY_LOCAL_MACHINE, kNdisPath);
    (void)Install();
    EXPECT_FALSE(registry().HasKey(HKEY_LOCAL_MACHINE, kNdisPath));
}

TEST_F(InstallWorkaround, KeepsAFairShareThatIsAbsentOrOff) {
    registry().PutDword(HKEY_LOCAL_MACHINE, kFairSharePath, kFairShare, 0);
    EXPECT_FALSE(Install().AskedForReboot());
    registry().Remove(HKEY_LOCAL_MACHINE, kFairSharePath);
    EXPECT_FALSE(Install().AskedForReboot());
    EXPECT_FALSE(registry().HasKey(HKEY_LOCAL_MACHINE, kFairSharePath));
    registry().PutKey(HKEY_LOCAL_MACHINE, kFairSharePath);
    EXPECT_FALSE(Install().AskedForReboot());
    EXPECT_EQ(registry().Dword(HKEY_LOCAL_MACHINE, kFairSharePath, kFairShare), Number());
}

TEST_F(DriverInstallation, KeepsTheBindingsOverAnUpgrade) {
    InstallOldDriver({1, 2, 3, 4});
    network().Bind(kSecond, L"qbimvta", false);
    const InstallOutcome installation = Install();
    EXPECT_EQ(installation.EventTexts(1005), Lines{"1.2.3.4|2.0.0.0"});
    EXPECT_EQ(installation.EventTexts(1007).size(), 1U);
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_FALSE(IsBound(kSecond));
}

TEST_F(DriverInstallation, DoesNothingInALoadTest) {
    dom.Set("vta.mode.loadtest", true);
    const InstallOutcome installation = Install();
    EXPECT_TRUE(installation.result);
    EXPECT_EQ(installation.traces, Lines{});
    EXPECT_EQ(Installs(), 0U);
}

TEST_F(DriverInstallation, DoesNothingWithoutOurCopyOfTheDriver) {
    remove(NdisFolder() / L"qbimvta.sys");
    const InstallOutcome installation = Install();
    EXPECT_TRUE(installation.result);
    EXPECT_TRUE(Holds(installation.traces, "Driver binary doesn't exist - skipping driver install/upgrade."));
    EXPECT_EQ(installation.events, Lines{});
}

TEST_F(DriverInstallation, ReportsTheStepThatFailed) {
    const auto plan = simulation().GetFaults().FailEvery("INetCfgClassSetup::Install", static_cast<DWORD>(E_FAIL));
    const InstallOutcome installation = Install();
    EXPECT_TRUE(installation.result);
    ASSERT_EQ(installation.EventTexts(1004).size(), 1U);
    EXPECT_TRUE(installation.EventTexts(1004)[0].starts_with("InstallingDriver|"));
    EXPECT_EQ(plan->Hits(), 3U);
}

TEST_F(DriverInstallation, KeepsTheRebootRequestsOfAllThreeAttempts) {
    const auto plan = simulation().GetFaults().FailEvery("INetCfgClassSetup::Install", 0x0004A020);
    const InstallOutcome installation = Install();
    EXPECT_EQ(plan->Hits(), 3U);
    EXPECT_EQ(installation.EventTexts(1006), Lines{"1"});
    EXPECT_EQ(installation.EventTexts(1007).size(), 1U);
    EXPECT_TRUE(installation.AskedForReboot());
}

TEST_F(DriverInstallation, WaitsForAServiceThatIsMarkedForDeletion) {
    const auto plan = simulation().GetFaults().FailEvery("INetCfgClassSetup::Install", 0x80070430);
    const InstallOutcome installation = Install();
    EXPECT_EQ(plan->Hits(), 3U);
    EXPECT_GE(installation.tookMs, 15'000U);
    EXPECT_EQ(installation.EventTexts(1006), Lines{"1"});
}

TEST_F(DriverInstallation, KillsAWorkerThatHangsAndCanInstallAgain) {
    const auto plan = simulation().GetFaults().HangNth("INetCfgClassSetup::Install", 1);
    WatcherClock watcherClock(simulation());
    const InstallOutcome hung = InstallWhile([&] {
        ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
        (void)watcherClock.AdvanceTo(simulation().GetClock().TickMs() + 600'000, 50'000, returned);
    });
    EXPECT_TRUE(hung.result);
    ASSERT_EQ(hung.EventTexts(1004).size(), 1U);
    EXPECT_TRUE(hung.EventTexts(1004)[0].starts_with("InstallingDriver|"));
    simulation().GetFaults().Clear();
    EXPECT_EQ(Install().EventTexts(1007).size(), 1U);
}

}  // namespace
