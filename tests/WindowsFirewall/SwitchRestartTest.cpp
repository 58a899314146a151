// The firewall switched off in one process and on in another: only the registry survives.

#include <memory>

#include <gtest/gtest.h>

#include "FirewallFixture.h"

namespace {

class RestartedFirewall : public FirewallFixture {
protected:
    /// A new module, for another Lua state: it knows nothing of the old ones.
    Lines TurnOnInAnotherState() {
        Reload();
        const LuaState other;
        Open(other);
        lua_getglobal(other, "SLB");
        lua_getfield(other, -1, "filter");
        lua_getfield(other, -1, "EnableNativeFirewall");
        lua_call(other, 0, 1);
        EXPECT_EQ(lua_tointeger(other, -1), 0);
        return {};
    }
};

TEST_F(RestartedFirewall, RestoresWhatAnotherProcessTurnedOff) {
    for (int mask = 0; mask < 8; ++mask) {
        PutProfiles(mask);
        (void)TurnOff();
        EXPECT_EQ(Profiles(), 0);
        (void)TurnOnInAnotherState();
        EXPECT_EQ(Profiles(), mask);
        EXPECT_EQ(Flag(), std::nullopt);
    }
}

TEST_F(RestartedFirewall, RestoresNothingAfterACrashBetweenTheSwitchesAndTheFlag) {
    // The process ends while the flag is written: the call never returns.
    const auto plan = faults().FailNth("RegCreateKeyW", 1, ERROR_SHUTDOWN_IN_PROGRESS);
    (void)TurnOff();
    EXPECT_TRUE(plan->Hit());
    Reload();
    EXPECT_EQ(TurnOn(), Lines{"EnableFirewall()"});
    EXPECT_EQ(Profiles(), 0);
}

TEST_F(RestartedFirewall, RepeatsAFailedRestoreInTheNextProcess) {
    (void)TurnOff();
    (void)faults().FailNth("INetFwPolicy2::put_FirewallEnabled", 3, static_cast<DWORD>(E_FAIL));
    (void)TurnOn();
    EXPECT_EQ(Profiles(), 3);
    Reload();
    EXPECT_EQ(TurnOn().at(2), "Turning Windows Firewall back on, previous Setting was 7");
    EXPECT_EQ(Profiles(), 7);
}

TEST_F(RestartedFirewall, KeepsTheFlagWhenANewProcessTurnsOffAgain) {
    (void)TurnOff();
    Reload();
    (void)TurnOff();
    EXPECT_EQ(Flag(), MaskFlag(7));
    Reload();
    (void)TurnOn();
    EXPECT_EQ(Profiles(), 7);
}

TEST_F(RestartedFirewall, RestoresTheProfileOfTheFlagAfterAnUpgradeFromAnOldSystem) {
    MakeSystemOld();
    (void)TurnOff();
    EXPECT_EQ(Flag(), MaskFlag(1));
    PutProfiles(0);
    simulation().GetMachine().osMajor = 10;
    Reload();
    (void)TurnOn();
    EXPECT_EQ(Profiles(), 1) << "the bit is that of the domain profile now";
    EXPECT_EQ(CurrentProfile(), VARIANT_FALSE);
}

}  // namespace
