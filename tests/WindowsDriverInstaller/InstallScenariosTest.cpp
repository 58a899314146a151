// An installation without a fault in each scenario.
#include <string>
#include <vector>

#include "HungInstall.h"

namespace {

using Texts = std::vector<std::string>;

/// Hangs nothing; it is for HungCall::LoadNoModulesForStacks.
class InstallInScenario : public HungInstall {
protected:
    /// Twice: the second time the machine has to be restored first.
    void ExpectSuccess(Scenario scenario, const std::string &versions) {
        for (const char *turn : {"first", "second"}) {
            SCOPED_TRACE(std::string(NameOf(scenario)) + ", the " + turn + " time");
            Take(scenario);
            const InstallOutcome installation = Install();
            EXPECT_TRUE(installation.result);
            ASSERT_EQ(installation.EventTexts(1007).size(), 1U);
            EXPECT_TRUE(installation.EventTexts(1007)[0].starts_with(versions + "| UninstallDriver running.\n"));
            EXPECT_EQ(installation.events.size(), scenario == Scenario::Upgrade ? 2U : 1U);
            EXPECT_EQ(installation.AskedForReboot(), scenario == Scenario::BrokenNetwork);
            EXPECT_EQ(Bindings(), BindingsAfter(scenario));
            EXPECT_FALSE(network().Read().lock);
            EXPECT_EQ(FirstAddress(), kFirstAddress);
            EXPECT_EQ(simulation().GetServices().Get(L"qbimwfp").status.state, DWORD{SERVICE_RUNNING});
            EXPECT_TRUE(simulation().GetRegistry().Text(HKEY_LOCAL_MACHINE, kFilterServiceKey, L"ConfigBinary"));
        }
    }
    [[nodiscard]] unsigned Removals() { return Count("INetCfgClassSetup::DeInstall"); }
    [[nodiscard]] unsigned Count(const std::string &function) {
        return static_cast<unsigned>(simulation().GetJournal().Count(function));
    }
};

TEST_F(InstallInScenario, BindsOnlyAdaptersWithTcpIpOnAFreshMachine) {
    ExpectSuccess(Scenario::Fresh, "0.0.0.0|2.0.0.0");
    EXPECT_EQ(Removals(), 0U);
}

TEST_F(InstallInScenario, RestoresTheBindingsOfTheOlderDriver) {
    ExpectSuccess(Scenario::Upgrade, "1.2.3.4|2.0.0.0");
    EXPECT_EQ(Removals(), 1U);
}

TEST_F(InstallInScenario, RestoresTheBindingsOfAReplacedNewerDriver) {
    ExpectSuccess(Scenario::ForcedDowngrade, "2.0.0.1|2.0.0.0");
    EXPECT_EQ(Removals(), 1U);
}

TEST_F(InstallInScenario, BindsAsOnAFreshMachineIfTheDriverOfOurVersionDidNotRun) {
    ExpectSuccess(Scenario::PartialAfterReboot, "2.0.0.0|2.0.0.0");
    EXPECT_EQ(Removals(), 1U);
}

TEST_F(InstallInScenario, CopiesTheDriverTemporarilyOnAnEmbeddedSystem) {
    ExpectSuccess(Scenario::Embedded, "0.0.0.0|2.0.0.0");
    EXPECT_EQ(Count("CopyFileW"), 1U);
    EXPECT_FALSE(exists(simulation().GetFolders().Windows() / L"qbimvta.sys"));
}

TEST_F(InstallInScenario, RecoversANetworkThatItBrokeAndAsksForAReboot) {
    ExpectSuccess(Scenario::BrokenNetwork, "0.0.0.0|2.0.0.0");
    EXPECT_TRUE(simulation().GetDevices().IsEnabled(kFirst));
    EXPECT_TRUE(simulation().GetDevices().IsEnabled(kSecond));
}

}  // namespace
