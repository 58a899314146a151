// A driver of another version that is still loaded behind an installation: the pauses of its rebinding, and the
// heartbeats, without which the caller warns after a minute.
#include <algorithm>
#include <string>
#include <vector>

#include "HungLine.h"
#include "InstallMachine.h"

namespace {

SIMULATOR_FUNCTION(vti_get_version, "vti.dll", CannotFail);

constexpr std::int64_t kTwoThirdsOfAMinuteMs = 40'000;

class StaleDriver : public InstallMachine {
protected:
    StaleDriver() {
        SetVersionAfterInstall(Version{1, 9, 9, 9});
        simulation().Functions().PassThrough<vti_get_version>();
    }

    /// A call of the watchdog, counted from the beginning of the installation.
    [[nodiscard]] FaultPlan HangWatchdogIn(const std::string &function, unsigned nth) {
        return faults().HangNth(function, nth, kWatchdogThread);
    }
    /// The watchdog takes so long for the call that two of them are more than a minute.
    template <class Hung>
    void Stall(Hung &hung) {
        ASSERT_TRUE(hung.WaitUntilHit(kPatienceMs));
        AdvanceMs(kTwoThirdsOfAMinuteMs);
        EXPECT_TRUE(AwaitPolls());
        hung.Release();
    }
    template <class First, class Second>
    void ExpectHeartbeatBetween(First &first, Second &second) {
        const InstallOutcome outcome = InstallWhile([&] {
            Stall(first);
            Stall(second);
        });
        EXPECT_EQ(outcome.Lines(wxLOG_Warning), Lines{});
        EXPECT_TRUE(Succeeded(outcome));
        EXPECT_EQ(outcome.EventTexts(1006), Lines{"1"});
    }
    void ExpectHeartbeatBetween(const FaultPlan &first, const FaultPlan &second) {
        ExpectHeartbeatBetween(*first, *second);
    }
};

TEST_F(StaleDriver, IsAskedForAPauseOfASecondBehindTheUnbindingAndBehindTheBinding) {
    (void)Install();
    const auto entries = simulation().GetJournal().Entries();
    const auto version = std::find_if(entries.begin(), entries.end(),
                                      [](const auto &entry) { return entry.function == "vti_get_version"; });
    ASSERT_NE(version, entries.end());
    Lines calls;
    int versions = 0;
    for (auto entry = version; entry != entries.end() && versions < 2; ++entry) {
        if (entry->thread != version->thread)
            continue;
        if (entry->function == "vti_get_version") {
            ++versions;
            calls.push_back(entry->function);
        } else if (entry->function == "Sleep" || entry->function == "INetCfgBindingPath::Enable") {
            calls.push_back(entry->function + " " + entry->arguments);
        }
    }
    EXPECT_EQ(calls,
              (Lines{"vti_get_version", "INetCfgBindingPath::Enable 0", "INetCfgBindingPath::Enable 0", "Sleep 1000",
                     "INetCfgBindingPath::Enable 1", "INetCfgBindingPath::Enable 1", "Sleep 1000", "vti_get_version"}));
}

TEST_F(StaleDriver, HasAHeartbeatBeforeTheAdaptersAreRead) {
    ExpectHeartbeatBetween(HangWatchdogIn("GetAdaptersInfo", 2), HangWatchdogIn("GetAdaptersInfo", 3));
}

TEST_F(StaleDriver, HasAHeartbeatBetweenTheUnbindingAndTheBinding) {
    ExpectHeartbeatBetween(HangWatchdogIn("INetCfg::Apply", 2), HangWatchdogIn("INetCfg::Apply", 3));
}

TEST_F(StaleDriver, HasAHeartbeatBetweenTheBindingAndTheVersionThatIsAskedForThen) {
    ExpectHeartbeatBetween(HangWatchdogIn("INetCfg::Apply", 4), HangWatchdogIn("vti_get_version", 2));
}

TEST_F(StaleDriver, HasAHeartbeatBehindTheSecondVersion) {
    HungLine line("Rebinding didn't help");
    const FaultPlan version = HangWatchdogIn("vti_get_version", 2);
    ExpectHeartbeatBetween(*version, line);
}

}  // namespace
