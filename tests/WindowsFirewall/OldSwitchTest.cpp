// Switching the native firewall off and on through SLB.filter, on systems that have one switch and a service for it.

#include <string>

#include <gtest/gtest.h>

#include "FirewallFixture.h"

namespace {

const Lines kOldOff{"DisableFirewall()", kOldStart, kStarting};
const Lines kOldOn{"EnableFirewall()", kOldStart, kStarting};
const Lines kOldRestored{"Turning Windows Firewall back on, previous Setting was 1", "put_FirewallEnabled true"};
const LeftThings kHandlesLeft{{"service handle", 2}};

using OldNativeFirewall = OldFirewallFixture;

TEST_F(OldNativeFirewall, TurnsOffTheCurrentProfileAndRemembersIt) {
    EXPECT_EQ(TurnOff(),
              (kOldOff + Lines{"fwPolicy->get_FirewallEnabled returned -1",
                               "The windows firewall is enabled going to disable it", "put_FirewallEnabled false",
                               "Writing the registry key to flag that vantry turned off the windows firewall 1"}));
    EXPECT_EQ(CurrentProfile(), VARIANT_FALSE);
    EXPECT_EQ(Flag(), MaskFlag(1));
    EXPECT_EQ(Left(), LeftThings());
    EXPECT_EQ(Calls("CoCreateInstance").size(), 1U) << "only the manager";
    EXPECT_EQ(Profiles(), 7) << "there are none";
}

TEST_F(OldNativeFirewall, TurnsTheCurrentProfileOnAgain) {
    (void)TurnOff();
    EXPECT_EQ(TurnOn(), kOldOn + kOldRestored);
    EXPECT_EQ(CurrentProfile(), VARIANT_TRUE);
    EXPECT_EQ(Flag(), std::nullopt);
    EXPECT_EQ(Left(), LeftThings());
    EXPECT_EQ(Calls("ControlService"), Lines()) << "the service ran before";
}

TEST_F(OldNativeFirewall, RemembersOneForAnyNonzeroSwitch) {
    PutCurrentProfile(5);
    EXPECT_EQ(TurnOff().at(3), "fwPolicy->get_FirewallEnabled returned 5");
    EXPECT_EQ(Flag(), MaskFlag(1));
    (void)TurnOn();
    EXPECT_EQ(CurrentProfile(), VARIANT_TRUE);
}

TEST_F(OldNativeFirewall, ChangesNothingThatIsOff) {
    PutCurrentProfile(VARIANT_FALSE);
    EXPECT_EQ(TurnOff(), kOldOff + Lines{"fwPolicy->get_FirewallEnabled returned 0"});
    EXPECT_EQ(Calls("INetFwProfile::put"), Lines());
    EXPECT_EQ(Flag(), std::nullopt);
}

TEST_F(OldNativeFirewall, TurnsOnForAnyNonzeroMask) {
    PutCurrentProfile(VARIANT_FALSE);
    PutFlag(MaskFlag(8));
    EXPECT_EQ(TurnOn(),
              (kOldOn + Lines{"Turning Windows Firewall back on, previous Setting was 8", "put_FirewallEnabled true"}));
    EXPECT_EQ(CurrentProfile(), VARIANT_TRUE);
    EXPECT_EQ(Flag(), std::nullopt);
}

TEST_F(OldNativeFirewall, ChangesNothingWhenTheSwitchCannotBeRead) {
    (void)faults().FailNth("INetFwProfile::get_FirewallEnabled", 1, kDenied);
    EXPECT_EQ(TurnOff(), kOldOff + Lines{"get_FirewallEnabled failed: 0x80070005"});
    EXPECT_EQ(CurrentProfile(), VARIANT_TRUE);
    EXPECT_EQ(Flag(), std::nullopt);
    EXPECT_EQ(Left(), LeftThings());
}

TEST_F(OldNativeFirewall, WritesNoFlagWhenTheSwitchCannotBeTurnedOff) {
    (void)faults().FailNth("INetFwProfile::put_FirewallEnabled", 1, kDenied);
    EXPECT_EQ(TurnOff(), (kOldOff + Lines{"fwPolicy->get_FirewallEnabled returned -1",
                                          "The windows firewall is enabled going to disable it",
                                          "put_FirewallEnabled false", "put_FirewallEnabled failed: 0x80070005"}));
    EXPECT_EQ(Flag(), std::nullopt);
}

TEST_F(OldNativeFirewall, KeepsTheFlagWhenTheSwitchCannotBeTurnedOn) {
    (void)TurnOff();
    (void)faults().FailNth("INetFwProfile::put_FirewallEnabled", 1, kDenied);
    EXPECT_EQ(TurnOn(), kOldOn + kOldRestored + Lines{"put_FirewallEnabled failed: 0x80070005"});
    EXPECT_EQ(Flag(), MaskFlag(1));
    EXPECT_EQ(CurrentProfile(), VARIANT_FALSE);
    (void)TurnOn();
    EXPECT_EQ(CurrentProfile(), VARIANT_TRUE);
}

TEST_F(OldNativeFirewall, ChangesNothingWhileItsServiceIsStopped) {
    PutService({.status = {SERVICE_STOPPED}});
    EXPECT_EQ(TurnOff(), kOldOff + Lines{"Windows firewall(SharedService) is not enabled"});
    EXPECT_EQ(Calls("Co"), Lines()) << "no COM";
    EXPECT_EQ(Calls("Reg"), Lines());
    EXPECT_EQ(Calls("StartServiceW"), Lines()) << "it is only checked";
    EXPECT_EQ(OldService().status.state, static_cast<DWORD>(SERVICE_STOPPED));
    EXPECT_EQ(Left(), kHandlesLeft);
}

TEST_F(OldNativeFirewall, ChangesNothingWhenItsServiceCannotBeQueried) {
    (void)faults().FailNth("OpenSCManagerW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(TurnOff(), (kOldOff + Lines{"Error opening service control manager: 0x000005",
                                          "StartFirewallService returned false when disabling windows firewall"}));
    EXPECT_EQ(Calls("Co"), Lines());
    EXPECT_EQ(CurrentProfile(), VARIANT_TRUE);
}

TEST_F(OldNativeFirewall, ContinuesWhenItsServiceIsMissing) {
    simulation().GetServices().Remove(kOldService);
    const std::string missing = "Service 'SharedAccess' doesn't exist. Continuing without trying to start it.";
    EXPECT_EQ(TurnOff().at(3), missing);
    EXPECT_EQ(CurrentProfile(), VARIANT_FALSE);
    EXPECT_EQ(Flag(), MaskFlag(1));
    EXPECT_EQ(TurnOn(), kOldOn + Lines{missing} + kOldRestored);
    EXPECT_EQ(CurrentProfile(), VARIANT_TRUE);
    EXPECT_EQ(Left(), LeftThings());
}

TEST_F(OldNativeFirewall, KeepsTheFlagAndAnOpenKeyWhenTheServiceCannotBeStarted) {
    PutFlag(MaskFlag(1));
    PutService({.startError = ERROR_SERVICE_LOGON_FAILED});
    EXPECT_EQ(TurnOn(), (kOldOn + Lines{"Error starting 'SharedAccess' service: 0x00042d",
                                        "StartFirewallService returned false when enabling windows firewall"}));
    EXPECT_EQ(Calls("Co"), Lines());
    EXPECT_EQ(Flag(), MaskFlag(1));
    EXPECT_EQ(Left(), (LeftThings{{"key", 1}}));
}

TEST_F(OldNativeFirewall, StopsTheServiceThatItHadToStart) {
    PutCurrentProfile(VARIANT_FALSE);
    PutFlag(MaskFlag(1));
    PutService({.status = {SERVICE_STOPPED}});
    EXPECT_EQ(TurnOn(), kOldOn + kOldRestored + Lines{kStopping});
    EXPECT_EQ(CurrentProfile(), VARIANT_TRUE);
    EXPECT_EQ(OldService().status.state, static_cast<DWORD>(SERVICE_STOPPED));
    EXPECT_EQ(Flag(), std::nullopt);
    EXPECT_EQ(Left(), LeftThings());
}

TEST_F(OldNativeFirewall, StopsTheServiceEvenAfterAnInvalidFlag) {
    PutFlag({REG_SZ, {'1', 0}});
    PutService({.status = {SERVICE_STOPPED}});
    EXPECT_EQ(TurnOn(), kOldOn + Lines{kStopping});
    EXPECT_EQ(Calls("INetFwProfile::"), Lines());
    EXPECT_EQ(OldService().status.state, static_cast<DWORD>(SERVICE_STOPPED));
    EXPECT_EQ(Flag(), std::nullopt);
}

TEST_F(OldNativeFirewall, StopsTheServiceEvenAfterAFailure) {
    const struct {
        const char *function;
        Lines log;
    } failures[] = {
        {"CoInitializeEx", {"CoInitializeEx failed: 0x80070005"}},
        {"CoCreateInstance",
         {"CoCreateInstance(NetFwMgr) failed: 0x80070005", "WindowsFirewallInitialize failed: 0x80070005"}},
        {"INetFwProfile::put_FirewallEnabled", kOldRestored + Lines{"put_FirewallEnabled failed: 0x80070005"}},
    };
    for (const auto &failure : failures) {
        PutFlag(MaskFlag(1));
        PutService({.status = {SERVICE_STOPPED}});
        (void)faults().FailNth(failure.function, 1, kDenied);
        EXPECT_EQ(TurnOn(), kOldOn + failure.log + Lines{kStopping}) << failure.function;
        EXPECT_EQ(OldService().status.state, static_cast<DWORD>(SERVICE_STOPPED));
        EXPECT_EQ(Flag(), MaskFlag(1));
        EXPECT_EQ(Left(), LeftThings());
    }
}

TEST_F(OldNativeFirewall, LogsNothingMoreWhenTheServiceCannotBeStopped) {
    PutFlag(MaskFlag(1));
    PutService({.status = {SERVICE_STOPPED}, .controlError = ERROR_ACCESS_DENIED});
    EXPECT_EQ(TurnOn(), (kOldOn + kOldRestored + Lines{kStopping, "Error stopping 'SharedAccess' service: 0x000005"}));
    EXPECT_EQ(Flag(), std::nullopt) << "the restore is complete";
}

TEST_F(OldNativeFirewall, DoesNotTouchTheServiceWithoutAFlag) {
    PutService({.status = {SERVICE_STOPPED}});
    simulation().GetRegistry().PutKey(HKEY_LOCAL_MACHINE, kAgentKey);
    EXPECT_EQ(TurnOn(), Lines{"EnableFirewall()"});
    EXPECT_EQ(Calls("OpenSCManagerW"), Lines());
    EXPECT_EQ(Calls("Co"), Lines());
}

TEST_F(OldNativeFirewall, UsesTheOldProfileAndNoNewPolicy) {
    (void)TurnOff();
    EXPECT_EQ(Calls("INetFwPolicy2::"), Lines());
    EXPECT_EQ(Calls("INetFwProfile::").size(), 2U);
}

}  // namespace
