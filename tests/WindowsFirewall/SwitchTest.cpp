// Switching the native firewall off and on through SLB.filter, on systems that have a switch for each profile.

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "FirewallFixture.h"

namespace {

const Lines kNewOff{"DisableFirewall()", kNoStart};
const Lines kNewOn{"EnableFirewall()", kNoStart};
constexpr char kNoStop[] = "OS is Vista or greater - no need to stop the SharedAccess service.";

Lines Read(int domainProfile, int privateProfile, int publicProfile) {
    const std::string read = "fwPolicy2->get_FirewallEnabled NET_FW_PROFILE2_";
    return {read + "DOMAIN returned " + std::to_string(domainProfile),
            read + "PRIVATE returned " + std::to_string(privateProfile),
            read + "PUBLIC returned " + std::to_string(publicProfile)};
}

class NativeFirewall : public FirewallFixture {
protected:
    /// The put_FirewallEnabled of the last call, as "profile, value".
    Lines Puts() {
        Lines puts;
        for (const Simulator::JournalEntry &entry : simulation().GetJournal().Entries()) {
            if (entry.function == "INetFwPolicy2::put_FirewallEnabled")
                puts.push_back(entry.arguments);
        }
        return puts;
    }
    /// Calls of COM, the switches and the service manager.
    void ExpectNothingTouched() {
        for (const char *name : {"CoInitializeEx", "CoCreateInstance", "INetFw", "OpenSCManagerW"})
            EXPECT_EQ(Calls(name), Lines()) << name;
    }
};

TEST_F(NativeFirewall, TurnsOffEveryProfileThatIsOnAndRemembersThem) {
    EXPECT_EQ(TurnOff(), (kNewOff + Read(-1, -1, -1) +
                          Lines{"The windows firewall is enabled going to disable it",
                                "put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) false",
                                "put_FirewallEnabled(NET_FW_PROFILE2_PRIVATE) false",
                                "put_FirewallEnabled(NET_FW_PROFILE2_PUBLIC) false",
                                "Writing the registry key to flag that vantry turned off the windows firewall 7"}));
    EXPECT_EQ(Puts(), (Lines{"1, 0", "2, 0", "4, 0"}));
    EXPECT_EQ(Profiles(), 0);
    EXPECT_EQ(Flag(), MaskFlag(7));
    EXPECT_EQ(Left(), LeftThings());
    EXPECT_EQ(CurrentProfile(), VARIANT_TRUE) << "the legacy switch is not touched";
}

TEST_F(NativeFirewall, TurnsOnWhatItTurnedOffAndForgetsIt) {
    (void)TurnOff();
    EXPECT_EQ(TurnOn(), (kNewOn + Lines{"Turning Windows Firewall back on, previous Setting was 7",
                                        "put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) true",
                                        "put_FirewallEnabled(NET_FW_PROFILE2_PRIVATE) true",
                                        "put_FirewallEnabled(NET_FW_PROFILE2_PUBLIC) true"}));
    EXPECT_EQ(Puts(), (Lines{"1, -1", "2, -1", "4, -1"}));
    EXPECT_EQ(Profiles(), 7);
    EXPECT_EQ(Flag(), std::nullopt);
    EXPECT_EQ(Left(), LeftThings());
}

TEST_F(NativeFirewall, CreatesTheObjectsByTheirPublishedNamesInProcess) {
    (void)TurnOff();
    Lines made;
    for (const Simulator::JournalEntry &entry : simulation().GetJournal().Entries()) {
        if (entry.function == "CoCreateInstance")
            made.push_back(entry.arguments.substr(0, entry.arguments.rfind(',')));
        if (entry.function == "CoInitializeEx") {
            EXPECT_EQ(entry.arguments, "null, 6");
        }
    }
    EXPECT_EQ(made, (Lines{"{E2B3C97F-6AE1-41AC-817A-F6F92166D7DD}, null, 1, {98325047-C671-4174-8D81-DEFCD3F03186}",
                           "{304CE942-6E39-40D8-943A-B913C40C9CD4}, null, 1, {F7898AF5-CAC4-4632-A2EC-DA06E5111AF2}"}));
}

TEST_F(NativeFirewall, ClosesComAsOftenAsItInitialisesIt) {
    (void)TurnOff();
    EXPECT_EQ(Calls("CoInitializeEx").size(), 1U);
    EXPECT_EQ(Calls("CoUninitialize").size(), 1U);
    (void)TurnOn();
    EXPECT_EQ(Calls("CoInitializeEx").size(), 1U);
    EXPECT_EQ(Calls("CoUninitialize").size(), 1U);
}

TEST_F(NativeFirewall, ChangesNothingWhenAllIsOff) {
    PutProfiles(0);
    EXPECT_EQ(TurnOff(), kNewOff + Read(0, 0, 0));
    EXPECT_EQ(Puts(), Lines());
    EXPECT_FALSE(simulation().GetRegistry().HasKey(HKEY_LOCAL_MACHINE, kAgentKey));
    simulation().GetRegistry().PutKey(HKEY_LOCAL_MACHINE, kAgentKey);
    EXPECT_EQ(TurnOn(), Lines{"EnableFirewall()"});
    EXPECT_EQ(Calls("RegDeleteValueW").size(), 1U) << "of the absent value";
    ExpectNothingTouched();
    EXPECT_EQ(Left(), LeftThings());
}

TEST_F(NativeFirewall, RestoresOnlyThePrivateProfileIfOnlyThatWasOn) {
    PutProfiles(2);
    (void)TurnOff();
    EXPECT_EQ(Puts(), Lines{"2, 0"});
    EXPECT_EQ(Flag(), MaskFlag(2));
    (void)TurnOn();
    EXPECT_EQ(Puts(), Lines{"2, -1"});
    EXPECT_EQ(Profiles(), 2);
}

TEST_F(NativeFirewall, TreatsAnyNonzeroSwitchAsOn) {
    simulation().GetFirewall().Use([](Simulator::FirewallState &state) {
        state.domainProfile = 1;
        state.privateProfile = 0;
        state.publicProfile = -2;
    });
    const Lines log = TurnOff();
    EXPECT_EQ(Lines(log.begin(), log.begin() + 5), kNewOff + Read(1, 0, -2));
    EXPECT_EQ(Flag(), MaskFlag(5));
    (void)TurnOn();
    EXPECT_EQ(simulation().GetFirewall().Read().domainProfile, VARIANT_TRUE);
    EXPECT_EQ(simulation().GetFirewall().Read().publicProfile, VARIANT_TRUE);
}

TEST_F(NativeFirewall, KeepsTheFlagWhenTurnedOffTwice) {
    (void)TurnOff();
    EXPECT_EQ(TurnOff(), kNewOff + Read(0, 0, 0));
    EXPECT_EQ(Flag(), MaskFlag(7));
    EXPECT_EQ(Calls("RegCreateKeyW"), Lines());
}

TEST_F(NativeFirewall, ForgetsTheFirstMaskWhenTheUserTurnsAProfileOnInBetween) {
    (void)TurnOff();
    PutProfiles(4);
    (void)TurnOff();
    EXPECT_EQ(Flag(), MaskFlag(4));
    (void)TurnOn();
    EXPECT_EQ(Profiles(), 4) << "the others stay off for good";
    EXPECT_EQ(Flag(), std::nullopt);
}

TEST_F(NativeFirewall, TurnsOnWhatTheUserHasAlreadyTurnedOn) {
    (void)TurnOff();
    PutProfiles(3);
    (void)TurnOn();
    EXPECT_EQ(Puts().size(), 3U);
    EXPECT_EQ(Profiles(), 7);
}

TEST_F(NativeFirewall, RemembersNothingThatWasTurnedOffBeforeAFailure) {
    (void)faults().FailNth("INetFwPolicy2::put_FirewallEnabled", 2, kDenied);
    EXPECT_EQ(TurnOff(), (kNewOff + Read(-1, -1, -1) +
                          Lines{"The windows firewall is enabled going to disable it",
                                "put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) false",
                                "put_FirewallEnabled(NET_FW_PROFILE2_PRIVATE) false",
                                "put_FirewallEnabled(NET_FW_PROFILE2_PRIVATE) failed: 0x80070005"}));
    EXPECT_EQ(Profiles(), 6);
    EXPECT_EQ(Flag(), std::nullopt);
    EXPECT_EQ(Left(), LeftThings());
    EXPECT_EQ(TurnOn(), Lines{"EnableFirewall()"});
    EXPECT_EQ(Profiles(), 6);
}

TEST_F(NativeFirewall, ChangesNothingWhenASwitchCannotBeRead) {
    const char *const names[] = {"DOMAIN", "PRIVATE", "PUBLIC"};
    for (unsigned nth = 1; nth <= 3; ++nth) {
        faults().Clear();
        (void)faults().FailNth("INetFwPolicy2::get_FirewallEnabled", nth, kDenied);
        const Lines all = Read(-1, -1, -1);
        const std::string failure =
            std::string("get_FirewallEnabled(NET_FW_PROFILE2_") + names[nth - 1] + ") failed: 0x80070005";
        EXPECT_EQ(TurnOff(), kNewOff + Lines(all.begin(), all.begin() + nth - 1) + Lines{failure});
        EXPECT_EQ(Profiles(), 7);
        EXPECT_EQ(Flag(), std::nullopt);
        EXPECT_EQ(Left(), LeftThings());
    }
}

TEST_F(NativeFirewall, KeepsTheWholeFlagWhenARestoreFailsHalfWayAndRepeatsAllOfIt) {
    (void)TurnOff();
    (void)faults().FailNth("INetFwPolicy2::put_FirewallEnabled", 2, kDenied);
    EXPECT_EQ(TurnOn(), (kNewOn + Lines{"Turning Windows Firewall back on, previous Setting was 7",
                                        "put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) true",
                                        "put_FirewallEnabled(NET_FW_PROFILE2_PRIVATE) true",
                                        "put_FirewallEnabled(NET_FW_PROFILE2_PRIVATE) failed: 0x80070005"}));
    EXPECT_EQ(Profiles(), 1);
    EXPECT_EQ(Flag(), MaskFlag(7));
    EXPECT_EQ(Left(), LeftThings());
    (void)TurnOn();
    EXPECT_EQ(Puts(), (Lines{"1, -1", "2, -1", "4, -1"}));
    EXPECT_EQ(Profiles(), 7);
    EXPECT_EQ(Flag(), std::nullopt);
}

TEST_F(NativeFirewall, ChangesNothingWithoutCom) {
    (void)faults().FailNth("CoInitializeEx", 1, static_cast<DWORD>(E_OUTOFMEMORY));
    EXPECT_EQ(TurnOff(), kNewOff + Lines{"CoInitializeEx failed: 0x8007000e"});
    EXPECT_EQ(Profiles(), 7);
    EXPECT_EQ(Calls("CoUninitialize"), Lines());
    (void)TurnOff();
    (void)faults().FailNth("CoInitializeEx", 1, static_cast<DWORD>(E_OUTOFMEMORY));
    EXPECT_EQ(TurnOn(), kNewOn + Lines{"CoInitializeEx failed: 0x8007000e"});
    EXPECT_EQ(Flag(), MaskFlag(7));
    EXPECT_EQ(Left(), LeftThings());
    EXPECT_EQ(Calls("CoUninitialize"), Lines());
}

TEST_F(NativeFirewall, ChangesNothingWithoutTheFirewallsObjects) {
    const struct {
        const char *function;
        unsigned nth;
        const char *line;
    } failures[] = {
        {"CoCreateInstance", 1, "CoCreateInstance(NetFwPolicy2) failed: 0x80070005"},
        {"CoCreateInstance", 2, "CoCreateInstance(NetFwMgr) failed: 0x80070005"},
        {"INetFwMgr::get_LocalPolicy", 1, "get_LocalPolicy failed: 0x80070005"},
        {"INetFwPolicy::get_CurrentProfile", 1, "get_CurrentProfile failed: 0x80070005"},
    };
    for (const auto &failure : failures) {
        const Lines lines{failure.line, "WindowsFirewallInitialize failed: 0x80070005"};
        PutProfiles(7);
        auto plan = faults().FailNth(failure.function, failure.nth, kDenied);
        EXPECT_EQ(TurnOff(), kNewOff + lines);
        EXPECT_EQ(Profiles(), 7);
        EXPECT_EQ(Left(), LeftThings());
        PutFlag(MaskFlag(7));
        plan = faults().FailNth(failure.function, failure.nth, kDenied);
        EXPECT_EQ(TurnOn(), kNewOn + lines);
        EXPECT_TRUE(plan->Hit());
        EXPECT_EQ(Flag(), MaskFlag(7));
        EXPECT_EQ(Left(), LeftThings());
        EXPECT_EQ(Calls("CoUninitialize").size(), 1U);
        simulation().GetRegistry().Remove(HKEY_LOCAL_MACHINE, kAgentKey);
    }
}

TEST_F(NativeFirewall, TreatsASuccessWithoutAnObjectAsAFailure) {
    for (const char *method : {"INetFwMgr::get_LocalPolicy", "INetFwPolicy::get_CurrentProfile"}) {
        (void)faults().FailNth(method, 1, static_cast<DWORD>(S_FALSE));
        const Lines log = TurnOff();
        ASSERT_EQ(log.size(), 4U);
        EXPECT_EQ(log.back(), "WindowsFirewallInitialize failed: 0x80004002");
        EXPECT_EQ(Left(), LeftThings());
    }
    EXPECT_EQ(Profiles(), 7);
}

TEST_F(NativeFirewall, WorksInAThreadOfAnotherModelAndStillClosesComOnce) {
    simulation().GetCom().threadsHaveApartments = true;
    (void)faults().FailEvery("CoInitializeEx", static_cast<DWORD>(RPC_E_CHANGED_MODE));
    (void)TurnOff();
    EXPECT_EQ(Profiles(), 0);
    EXPECT_EQ(Flag(), MaskFlag(7));
    EXPECT_EQ(Calls("CoUninitialize").size(), 1U);
    (void)TurnOn();
    EXPECT_EQ(Profiles(), 7);
    EXPECT_EQ(Flag(), std::nullopt);
    EXPECT_EQ(Calls("CoUninitialize").size(), 1U);
}

TEST_F(NativeFirewall, LogsNothingWhenTheKeyOfTheFlagCannotBeCreated) {
    (void)faults().FailNth("RegCreateKeyW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(TurnOff().back(), "put_FirewallEnabled(NET_FW_PROFILE2_PUBLIC) false");
    EXPECT_EQ(Profiles(), 0);
    EXPECT_EQ(Left(), LeftThings());
    EXPECT_EQ(TurnOn(), Lines{"EnableFirewall()"});
    EXPECT_EQ(Profiles(), 0) << "they cannot be restored";
}

TEST_F(NativeFirewall, LogsThatTheFlagCannotBeWritten) {
    (void)faults().FailNth("RegSetValueExW", 1, ERROR_DISK_FULL);
    const Lines log = TurnOff();
    ASSERT_GT(log.size(), 2U);
    EXPECT_EQ(Lines(log.end() - 2, log.end()),
              (Lines{"Writing the registry key to flag that vantry turned off the windows firewall 7",
                     "Error writing registry key."}));
    EXPECT_EQ(Flag(), std::nullopt);
    EXPECT_EQ(Profiles(), 0);
    EXPECT_EQ(Left(), LeftThings());
}

TEST_F(NativeFirewall, LogsThatTheFlagCannotBeDeletedAndRestoresAgainTheNextTime) {
    (void)TurnOff();
    (void)faults().FailNth("RegDeleteValueW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(TurnOn().back(), "RegDeleteValue('WindowsFirewallDisabledByInstaller') failed: 0x00000005");
    EXPECT_EQ(Profiles(), 7);
    EXPECT_EQ(Flag(), MaskFlag(7));
    EXPECT_EQ(Left(), LeftThings());
    EXPECT_EQ(TurnOn().size(), 6U);
    EXPECT_EQ(Puts().size(), 3U);
    EXPECT_EQ(Flag(), std::nullopt);
}

TEST_F(NativeFirewall, LogsNothingWhenTheFlagIsGoneBeforeItIsDeleted) {
    (void)TurnOff();
    (void)faults().FailNth("RegDeleteValueW", 1, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(TurnOn().back(), "put_FirewallEnabled(NET_FW_PROFILE2_PUBLIC) true");
}

TEST_F(NativeFirewall, RestoresNothingWithoutTheKey) {
    EXPECT_EQ(TurnOn(), Lines{"EnableFirewall()"});
    ExpectNothingTouched();
    EXPECT_EQ(Calls("Reg"), Lines{"RegOpenKeyW"});
    EXPECT_FALSE(simulation().GetRegistry().HasKey(HKEY_LOCAL_MACHINE, kAgentKey));
}

TEST_F(NativeFirewall, RemovesAFlagOfAnotherTypeAndTouchesNoSwitch) {
    for (const StoredFlag &odd :
         {StoredFlag{REG_SZ, {'7', 0}}, StoredFlag{REG_SZ, {'7', 0, 0, 0}}, StoredFlag{REG_BINARY, {7, 0, 0, 0}},
          StoredFlag{REG_DWORD_BIG_ENDIAN, {0, 0, 0, 7}}}) {
        PutProfiles(0);
        PutFlag(odd);
        EXPECT_EQ(TurnOn(), kNewOn);
        EXPECT_EQ(Calls("INetFwPolicy2"), Lines());
        EXPECT_EQ(Calls("CoCreateInstance").size(), 2U);
        EXPECT_EQ(Profiles(), 0);
        EXPECT_EQ(Flag(), std::nullopt);
        EXPECT_EQ(Left(), LeftThings());
    }
}

TEST_F(NativeFirewall, RemovesALongerFlag) {
    for (const StoredFlag &odd :
         {StoredFlag{REG_SZ, {'7', 0, '7', 0, 0, 0}}, StoredFlag{REG_QWORD, {7, 0, 0, 0, 0, 0, 0, 0}},
          StoredFlag{REG_DWORD, {7, 0, 0, 0, 0}}}) {
        PutFlag(odd);
        EXPECT_EQ(TurnOn(), Lines{"EnableFirewall()"});
        ExpectNothingTouched();
        EXPECT_EQ(Flag(), std::nullopt);
        EXPECT_EQ(Left(), LeftThings());
    }
}

TEST_F(NativeFirewall, RemovesAFlagOfZero) {
    for (const StoredFlag &zero : {MaskFlag(0), StoredFlag{REG_DWORD, {}}}) {
        PutProfiles(0);
        PutFlag(zero);
        EXPECT_EQ(TurnOn(), kNewOn);
        EXPECT_EQ(Profiles(), 0);
        EXPECT_EQ(Flag(), std::nullopt);
    }
}

TEST_F(NativeFirewall, PadsAShorterFlagWithZeros) {
    PutProfiles(0);
    PutFlag({REG_DWORD, {6}});
    (void)TurnOn();
    EXPECT_EQ(Profiles(), 6);
}

TEST_F(NativeFirewall, IgnoresBitsThatAreNotProfiles) {
    PutProfiles(0);
    PutFlag(MaskFlag(8));
    EXPECT_EQ(TurnOn(), kNewOn + Lines{"Turning Windows Firewall back on, previous Setting was 8"});
    EXPECT_EQ(Puts(), Lines());
    EXPECT_EQ(Flag(), std::nullopt);
    PutFlag(MaskFlag(0xFFFFFFFA));
    EXPECT_EQ(TurnOn(), (kNewOn + Lines{"Turning Windows Firewall back on, previous Setting was -6",
                                        "put_FirewallEnabled(NET_FW_PROFILE2_PRIVATE) true"}));
    EXPECT_EQ(Profiles(), 2);
}

TEST_F(NativeFirewall, UsesNoServiceOnANewSystem) {
    PutService({.status = {SERVICE_STOPPED}});
    (void)TurnOff();
    EXPECT_EQ(Calls("OpenSCManagerW"), Lines());
    const Lines log = TurnOn();
    EXPECT_EQ(std::count(log.begin(), log.end(), kNoStop), 0) << "nothing was started, so nothing is stopped";
    EXPECT_EQ(Calls("OpenSCManagerW"), Lines());
    EXPECT_EQ(Profiles(), 7);
}

TEST_F(NativeFirewall, JudgesTheSystemOnlyByItsMajorVersion) {
    simulation().GetMachine().osMajor = 6;
    simulation().GetMachine().osMinor = 0;
    EXPECT_EQ(TurnOff().at(1), kNoStart);
    EXPECT_EQ(Flag(), MaskFlag(7));
}

TEST_F(NativeFirewall, QueriesTheVersionOncePerProcess) {
    (void)TurnOff();
    EXPECT_EQ(Calls("GetVersionExW").size(), 1U);
    (void)TurnOn();
    EXPECT_EQ(Calls("GetVersionExW").size(), 0U);
    Reload();
    (void)TurnOn();
    EXPECT_EQ(Calls("GetVersionExW").size(), 1U);
}

TEST_F(NativeFirewall, TreatsASystemWhoseVersionCannotBeReadAsOldFromThenOn) {
    (void)faults().FailNth("GetVersionExW", 1, ERROR_INVALID_PARAMETER);
    EXPECT_EQ(TurnOff().at(1), "Windows version is 0, which is less than Vista, attempting to start service");
    EXPECT_EQ(Profiles(), 7);
    EXPECT_EQ(CurrentProfile(), VARIANT_FALSE);
    EXPECT_EQ(TurnOn().at(1), "Windows version is 0, which is less than Vista, attempting to start service");
    EXPECT_EQ(CurrentProfile(), VARIANT_TRUE);
}

TEST_F(NativeFirewall, IgnoresArguments) {
    EXPECT_EQ(Call("DisableNativeFirewall(1, {}, 'x')").result, "0");
    EXPECT_EQ(Profiles(), 0);
    EXPECT_EQ(Call("EnableNativeFirewall(nil)").result, "0");
    EXPECT_EQ(Profiles(), 7);
}

}  // namespace
