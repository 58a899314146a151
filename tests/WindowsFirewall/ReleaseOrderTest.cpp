// In which order the firewall's functions give back what they hold: objects, COM, and the key of the flag.

#include <set>
#include <string>

#include <gtest/gtest.h>

#include "ComObject.h"
#include "FirewallFixture.h"

namespace {

class FirewallReleases : public FirewallFixture {
protected:
    /// What the last call gave back, and `others` of its calls, in their order. A release that leaves references is
    /// left out.
    Lines Releases(const std::set<std::string> &others = {}) {
        Lines releases;
        for (const Simulator::JournalEntry &entry : simulation().GetJournal().Entries()) {
            const bool isLast = entry.function.ends_with("::Release") && entry.arguments == "0";
            if (isLast || entry.function == "CoUninitialize" || entry.function == "RegCloseKey" ||
                entry.function == "SysFreeString" || others.contains(entry.function))
                releases.push_back(entry.function);
        }
        return releases;
    }

private:
    const Simulator::NotedReleases m_noted;
};

/// What the making of the profile gives back, which keeps only that and the policy.
const Lines kMade{"INetFwPolicy::Release", "INetFwMgr::Release"};

TEST_F(FirewallReleases, OfATurningOffEndWithTheProfileThePolicyAndCom) {
    (void)TurnOff();
    EXPECT_EQ(Releases({"RegSetValueExW"}), (kMade + Lines{"RegSetValueExW", "RegCloseKey", "INetFwProfile::Release",
                                                           "INetFwPolicy2::Release", "CoUninitialize"}));
}

TEST_F(FirewallReleases, OfATurningOffThatFailsAreTheSame) {
    (void)faults().FailNth("INetFwPolicy2::put_FirewallEnabled", 2, kDenied);
    (void)TurnOff();
    EXPECT_EQ(Releases(), (kMade + Lines{"INetFwProfile::Release", "INetFwPolicy2::Release", "CoUninitialize"}));
}

TEST_F(FirewallReleases, OfATurningOnCloseTheKeyBeforeTheObjects) {
    PutFlag(MaskFlag(7));
    (void)TurnOn();
    EXPECT_EQ(Releases({"RegDeleteValueW"}), (kMade + Lines{"RegDeleteValueW", "RegCloseKey", "INetFwProfile::Release",
                                                            "INetFwPolicy2::Release", "CoUninitialize"}));
}

TEST_F(FirewallReleases, OfATurningOnThatFailsCloseTheKeyBeforeTheObjectsToo) {
    PutFlag(MaskFlag(7));
    (void)faults().FailNth("INetFwPolicy2::put_FirewallEnabled", 1, kDenied);
    (void)TurnOn();
    EXPECT_EQ(Releases(),
              (kMade + Lines{"RegCloseKey", "INetFwProfile::Release", "INetFwPolicy2::Release", "CoUninitialize"}));
}

TEST_F(FirewallReleases, OfATurningOnWithoutComCloseTheKeyBeforeTheServiceIsStopped) {
    MakeSystemOld();
    PutService({.status = {SERVICE_STOPPED}});
    PutFlag(MaskFlag(1));
    (void)faults().FailNth("CoInitializeEx", 1, kDenied);
    (void)TurnOn();
    EXPECT_EQ(Releases({"ControlService"}), (Lines{"RegCloseKey", "ControlService"}));
}

TEST_F(FirewallReleases, OfAnAdditionLeaveProfileAndCom) {
    EXPECT_EQ(Call("WindowsFirewallAddApp('C:\\\\agent.exe', 'Agent')").result, "true");
    EXPECT_EQ(Releases({"INetFwAuthorizedApplications::Add"}),
              (kMade + Lines{"SysFreeString", "INetFwAuthorizedApplications::Release",
                             "INetFwAuthorizedApplications::Add", "SysFreeString", "SysFreeString",
                             "INetFwAuthorizedApplication::Release", "INetFwAuthorizedApplications::Release"}));
}

TEST_F(FirewallReleases, OfAnAdditionThatFailsEndWithTheProfileThePolicyAndCom) {
    (void)TurnOff();  // it asks for the version, so that there is a policy
    (void)faults().FailNth("INetFwAuthorizedApplications::Add", 1, kDenied);
    EXPECT_EQ(Call("WindowsFirewallAddApp('C:\\\\agent.exe', 'Agent')").result, "false");
    const Lines releases = Releases();
    ASSERT_GE(releases.size(), 3U);
    EXPECT_EQ(Lines(releases.end() - 3, releases.end()),
              (Lines{"INetFwProfile::Release", "INetFwPolicy2::Release", "CoUninitialize"}));
}

TEST_F(FirewallReleases, OfARemovalThatFailsFreeTheTextAndTheListFirst) {
    (void)faults().FailNth("INetFwAuthorizedApplications::Remove", 1, kDenied);
    EXPECT_EQ(Call("WindowsFirewallRemoveApp('C:\\\\agent.exe')").result, "false");
    EXPECT_EQ(Releases(), (kMade + Lines{"SysFreeString", "INetFwAuthorizedApplications::Release",
                                         "INetFwProfile::Release", "CoUninitialize"}));
}

}  // namespace
