// Two calls of a script at once, from two Lua states of the process: installations and removals that meet in the
// network configuration. Both take the write lock under the same description, so each continues while the other holds
// it; whoever releases it releases it for both.
#include <algorithm>
#include <atomic>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "InstallFixture.h"
#include "slb3_control.h"
#include "WindowsFunctions.h"

namespace {

using Simulator::BalanceItem;
using Simulator::BalanceSnapshot;
using Simulator::FaultPlanHandle;

constexpr char kInstall[] = "SLB.filter.InstallOrUpdateDriver(dom, ndis, wfp)";
constexpr char kRemove[] = "SLB.filter.UninstallDriver(dom, ndis, wfp)";
constexpr DWORD kPatienceOfATestMs = 60'000;  ///< A longer wait fails the test.
constexpr int kRounds = 25;

/// What two calls returned and sent.
struct Meeting : InstallOutcome {
    std::string first, second;

    /// How many installations have sent their outcome.
    [[nodiscard]] std::size_t Ends() const { return EventTexts(1004).size() + EventTexts(1007).size(); }
};

class DriverCallsAtOnce : public InstallFixture {
protected:
    DriverCallsAtOnce() {
        Open(m_other);
        SLB3::Control::PushInstance(m_other, "SLB.Dom", &dom);
        lua_setglobal(m_other, "dom");
        m_other.Run("ndis, wfp = " + lua.Eval("string.format('%q, %q', ndis, wfp)"));
        // Sleeps do not move the clock, so that no step of one overruns while the other sleeps.
        simulation().Functions().Put<Simulator::System::Sleep>(
            [](const auto &, DWORD) { Simulator::System::Sleep::Real(1); }, Simulator::Depth::Watch);
        (void)Uninstall();  // a process's first call loads the stack library for good
    }

    /// Both at once.
    Meeting Meet(const std::string &first, const std::string &second) {
        const int objects = Begin();
        Meeting meeting;
        std::atomic<int> ready{0};
        const auto call = [&ready](LuaState &state, const std::string &code) {
            for (++ready; ready < 2;)
                Simulator::System::Sleep::Real(0);
            return state.Eval(code);
        };
        std::thread other([&] { meeting.second = call(m_other, second); });
        meeting.first = call(lua, first);
        other.join();
        End(meeting, objects);
        return meeting;
    }

    /// The second runs from beginning to end while the first hangs in that call.
    Meeting MeetWhileTheFirstHangs(const std::string &first, const std::string &function, const std::string &second) {
        const int objects = Begin();
        const FaultPlanHandle hang = simulation().GetFaults().HangNth(function, 1);
        Meeting meeting;
        std::atomic<bool> returnedTooSoon{true};
        std::thread other([&] {
            meeting.first = m_other.Eval(first);
            EXPECT_FALSE(returnedTooSoon) << first << " did not wait";
        });
        EXPECT_TRUE(hang->WaitUntilHit(kPatienceOfATestMs)) << function;
        meeting.second = lua.Eval(second);
        returnedTooSoon = false;
        hang->Release();
        other.join();
        End(meeting, objects);
        return meeting;
    }

    /// Expects that nothing stays open but one event for each removal.
    void ExpectNothingLeft(std::size_t removals) {
        std::vector<BalanceItem> left;
        for (DWORD waited = 0; waited < kPatienceOfATestMs; waited += 10) {
            left = Left();
            if (left.size() == removals)
                break;
            Simulator::System::Sleep::Real(10);
        }
        EXPECT_EQ(left.size(), removals);
        for (const BalanceItem &item : left)
            EXPECT_STREQ(item.function, "CreateEventW") << item.kind;
        EXPECT_FALSE(network().Read().lock.has_value());
    }

    [[nodiscard]] DWORD StateOfService() { return simulation().GetServices().Get(L"qbimwfp").status.state; }

private:
    int Begin() {
        (void)simulation().GetJournal().Take();
        (void)TakeTracedMessages();
        m_before = balance().Take();
        return VtaCore::Control::LiveObjects();
    }

    void End(Meeting &meeting, int objects) {
        AwaitThreads(objects);
        simulation().GetFaults().Clear();
        TakeRecords(meeting);
        meeting.traces = TakeTracedMessages("NDIS");
    }

    std::vector<BalanceItem> Left() {
        std::vector<BalanceItem> items = Simulator::Balance::Left(m_before, balance().Take());
        std::erase_if(items,
                      [](const BalanceItem &item) { return item.kind == std::string_view(Simulator::Kind::kBlock); });
        return items;
    }

    LuaState m_other;
    BalanceSnapshot m_before;
};

// ---- Both at once, in any order of the threads

TEST_F(DriverCallsAtOnce, TwoInstallationsEndWithOneEventEach) {
    dom.Set("vtp.filter.ForceDriverInstall", true);  // also for the one that finds the other's driver
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        const Meeting meeting = Meet(kInstall, kInstall);
        EXPECT_EQ(meeting.first, "true");
        EXPECT_EQ(meeting.second, "true");
        EXPECT_EQ(meeting.Ends(), 2U);
        ExpectNothingLeft(0);
    }
}

TEST_F(DriverCallsAtOnce, AnInstallationEndsWithOneEventWhateverARemovalRemoves) {
    dom.Set("vtp.filter.ForceDriverInstall", true);
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        const Meeting meeting = Meet(kInstall, kRemove);
        EXPECT_EQ(meeting.first, "true");
        EXPECT_TRUE(meeting.second == "true" || meeting.second == "false") << meeting.second;
        EXPECT_EQ(meeting.Ends(), 1U);
        ExpectNothingLeft(1);
    }
}

TEST_F(DriverCallsAtOnce, TwoRemovalsLeaveNoDriver) {
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        InstallDrivers();
        const Meeting meeting = Meet(kRemove, kRemove);
        EXPECT_TRUE(meeting.first == "true" || meeting.second == "true");
        EXPECT_FALSE(network().Has(L"qbimvta"));
        ExpectNothingLeft(2);
    }
}

// ---- One within the other

TEST_F(DriverCallsAtOnce, AnInstallationLosesTheLockToOneThatEndsMeanwhile) {
    const Meeting meeting = MeetWhileTheFirstHangs(kInstall, "INetCfgClassSetup::Install", kInstall);
    EXPECT_EQ(meeting.first, "true");
    EXPECT_EQ(meeting.second, "true");
    EXPECT_EQ(meeting.EventTexts(1007).size(), 1U);
    ASSERT_EQ(meeting.EventTexts(1004).size(), 1U);
    EXPECT_TRUE(meeting.EventTexts(1004)[0].starts_with("InstallingDriver|")) << meeting.EventTexts(1004)[0];
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_TRUE(IsBound(kSecond));
    ExpectNothingLeft(0);
}

TEST_F(DriverCallsAtOnce, AnInstallationReportsThatARemovalTookItsLock) {
    const Meeting meeting = MeetWhileTheFirstHangs(kInstall, "INetCfgClassSetup::Install", kRemove);
    EXPECT_EQ(meeting.first, "true");
    EXPECT_EQ(meeting.second, "true");
    ASSERT_EQ(meeting.events.size(), 3U);
    EXPECT_TRUE(meeting.events[0].starts_with("3005|INetCfgClassSetup::Install()|")) << meeting.events[0];
    EXPECT_TRUE(meeting.events[1].starts_with("3005|INetCfgLock::ReleaseWriteLock|")) << meeting.events[1];
    EXPECT_TRUE(meeting.events[2].starts_with("1004|InstallingDriver|")) << meeting.events[2];
    EXPECT_FALSE(network().Has(L"qbimvta"));
    EXPECT_FALSE(HasService());
    ExpectNothingLeft(1);
}

TEST_F(DriverCallsAtOnce, ARemovalRemovesWhatWasInstalledAndNotApplied) {
    const Meeting meeting = MeetWhileTheFirstHangs(kInstall, "INetCfg::Apply", kRemove);
    EXPECT_EQ(meeting.first, "true");
    EXPECT_EQ(meeting.second, "true");
    ASSERT_EQ(meeting.EventTexts(1004).size(), 1U);
    EXPECT_TRUE(meeting.EventTexts(1004)[0].starts_with("ApplyingInetCfgChanges|")) << meeting.EventTexts(1004)[0];
    EXPECT_FALSE(network().Has(L"qbimvta"));
    ExpectNothingLeft(1);
}

TEST_F(DriverCallsAtOnce, ARemovalFailsOnceAnInstallationHasTakenItsLock) {
    InstallOldDriver({1, 2, 3, 4});
    const Meeting meeting = MeetWhileTheFirstHangs(kRemove, "INetCfgClassSetup::DeInstall", kInstall);
    EXPECT_EQ(meeting.first, "false");
    EXPECT_EQ(meeting.second, "true");
    EXPECT_EQ(meeting.EventTexts(1007).size(), 1U);
    EXPECT_EQ(meeting.EventTexts(1004).size(), 0U);
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_TRUE(IsBound(kSecond));
    EXPECT_EQ(StateOfService(), DWORD{SERVICE_RUNNING});
    ExpectNothingLeft(1);
}

// ---- The lock of another process

TEST_F(DriverCallsAtOnce, TwoInstallationsBothReportWhoHoldsTheLock) {
    for (const wchar_t *inf : {L"netqbimvta.inf", L"netqbimvtam.inf", L"netqbimvtap.inf"})
        std::filesystem::remove(NdisFolder() / inf);  // the simulated system does not copy two files at a time
    network().LockFromElsewhere(L"Network Wizard");
    const Meeting meeting = Meet(kInstall, kInstall);
    EXPECT_EQ(meeting.first, "true");
    EXPECT_EQ(meeting.second, "true");
    ASSERT_EQ(meeting.EventTexts(1004).size(), 2U);
    for (const std::string &text : meeting.EventTexts(1004))
        EXPECT_TRUE(text.starts_with("GettingNetworkConfigLock|")) << text;
    // From the removal before, and from the installation.
    EXPECT_EQ(meeting.notifications.size(), 4U) << testing::PrintToString(meeting.events);
    for (const VtaCore::Control::Notification &notification : meeting.notifications)
        EXPECT_EQ(notification.text,
                  "Unable to proceed - the network configuration is currently locked by Network Wizard.");
    network().Use([](Simulator::NetworkState &state) { state.lock.reset(); });
    ExpectNothingLeft(0);
}

}  // namespace
