// The installation of the drivers through SLB.filter, on simulated machines.
#include <algorithm>
#include <chrono>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "InstallFixture.h"
#include "Lock.h"
#include "WatcherClock.h"

namespace {

using Lines = std::vector<std::string>;

bool Holds(const Lines &lines, const std::string &line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

/// The functions that the trace lines name, while it exists.
class TracingFunctions : public VtaCore::Control::Observer {
public:
    TracingFunctions() { VtaCore::Control::SetObserver(this); }
    ~TracingFunctions() override { VtaCore::Control::SetObserver(nullptr); }
    TracingFunctions(const TracingFunctions &) = delete;
    TracingFunctions &operator=(const TracingFunctions &) = delete;

    void OnTrace(const VtaCore::Control::TraceLine &line) override {
        const Simulator::InsideSimulator inside;
        const Simulator::LockGuard guard(m_lock);
        m_names.insert(line.function);
    }
    [[nodiscard]] std::set<std::string> Names() const {
        const Simulator::LockGuard guard(m_lock);
        return m_names;
    }

private:
    mutable Simulator::Lock m_lock;
    std::set<std::string> m_names;
};

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

TEST_F(DriverInstallation, KeepsTheBindingsOverAnUpgrade) {
    InstallOldDriver({1, 2, 3, 4});
    network().Bind(kSecond, L"qbimvta", false);
    const InstallOutcome installation = Install();
    EXPECT_EQ(installation.EventTexts(1005), Lines{"1.2.3.4|2.0.0.0"});
    EXPECT_EQ(installation.EventTexts(1007).size(), 1U);
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_FALSE(IsBound(kSecond));
}

TEST_F(DriverInstallation, TracesThePlainNamesOfItsFunctions) {
    const TracingFunctions functions;
    InstallOldDriver({1, 2, 3, 4});
    (void)Install();
    EXPECT_EQ(
        functions.Names(),
        (std::set<std::string>{"AdaptorHealthChecker::operator()", "CDriverInstallerWatchdog::CheckNetworkHealth",
                               "CDriverInstallerWatchdog::GenerateOutgoingTraffic",
                               "CDriverInstallerWatchdog::GetBundledDriverVersion",
                               "CDriverInstallerWatchdog::InstallOrUpdateDriver", "SetNetworkInterruptWorkaround"}));
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
