// The firewall switched off in one process and on in another: only the registry survives.

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "FirewallFixture.h"
#include "LogCollector.h"
#include "Patience.h"
#include "UniqueHandle.h"

namespace {

/// A thread that is ended from outside.
class EndedThread {
public:
    explicit EndedThread(std::function<void()> body) : m_body(std::move(body)) {
        const Simulator::InsideSimulator inside;
        m_thread.reset(CreateThread(nullptr, 0, &Run, this, 0, nullptr));
    }
    EndedThread(const EndedThread &) = delete;
    EndedThread &operator=(const EndedThread &) = delete;
    ~EndedThread() { End(); }

    void End() const {
        const Simulator::InsideSimulator inside;
        (void)TerminateThread(m_thread.get(), 0);
        (void)WaitForSingleObject(m_thread.get(), kPatienceMs);
    }

private:
    static DWORD WINAPI Run(void *self) {
        static_cast<EndedThread *>(self)->m_body();
        return 0;
    }

    std::function<void()> m_body;
    Simulator::UniqueHandle m_thread;
};

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

    /// A call at which the process ends, and the profiles that are on then.
    struct Place {
        const char *function;
        unsigned nth;
        int profiles;
    };
    /// Calls SLB.filter.<call> in a process that ends when it reaches that call, before this does anything: the thread
    /// is ended within it, and the next process loads the module again.
    void CrashIn(const std::string &call, const std::string &function, unsigned nth) {
        lua_State *const state = luaL_newstate();  // never closed: its thread is still in a call
        luaL_openlibs(state);
        Open(state);
        ASSERT_EQ(luaL_loadstring(state, ("SLB.filter." + call + "()").c_str()), LUA_OK);
        const auto plan = faults().HangNth(function, nth);
        std::atomic<bool> returned{false};
        const EndedThread thread([state, &returned] {
            (void)lua_pcall(state, 0, 0, 0);
            returned = true;
        });
        EXPECT_TRUE(plan->WaitUntilHit(kPatienceMs));
        thread.End();
        faults().Clear();
        EXPECT_FALSE(returned);
        (void)TakeTracedLines();
        Reload();
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

TEST_F(RestartedFirewall, RestoresNothingAfterACrashBeforeTheFlagIsWritten) {
    for (const auto &[function, nth, profiles] :
         {Place{"INetFwPolicy2::put_FirewallEnabled", 1, 7}, Place{"INetFwPolicy2::put_FirewallEnabled", 3, 4},
          Place{"RegCreateKeyW", 1, 0}, Place{"RegSetValueExW", 1, 0}}) {
        SCOPED_TRACE(std::string(function) + " " + std::to_string(nth));
        PutProfiles(7);
        CrashIn("DisableNativeFirewall", function, nth);
        EXPECT_EQ(Flag(), std::nullopt);
        EXPECT_EQ(Profiles(), profiles);
        EXPECT_EQ(TurnOn(), Lines{"EnableFirewall()"});
        EXPECT_EQ(Profiles(), profiles) << "what went off stays off";
    }
}

TEST_F(RestartedFirewall, RestoresAllAfterACrashBehindTheWritingOfTheFlag) {
    CrashIn("DisableNativeFirewall", "RegCloseKey", 1);
    EXPECT_EQ(Flag(), MaskFlag(7));
    EXPECT_EQ(Profiles(), 0);
    (void)TurnOn();
    EXPECT_EQ(Profiles(), 7);
    EXPECT_EQ(Flag(), std::nullopt);
}

TEST_F(RestartedFirewall, RestoresAllAfterACrashWithinTheRestore) {
    for (const auto &[function, nth, profiles] :
         {Place{"INetFwPolicy2::put_FirewallEnabled", 2, 1}, Place{"RegDeleteValueW", 1, 7}}) {
        SCOPED_TRACE(std::string(function) + " " + std::to_string(nth));
        PutProfiles(7);
        (void)TurnOff();
        CrashIn("EnableNativeFirewall", function, nth);
        EXPECT_EQ(Profiles(), profiles);
        EXPECT_EQ(Flag(), MaskFlag(7));
        (void)TurnOn();
        EXPECT_EQ(Profiles(), 7);
        EXPECT_EQ(Flag(), std::nullopt);
    }
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
