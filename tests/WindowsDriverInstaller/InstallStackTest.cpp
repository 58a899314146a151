// The stacks that support gets from an installation that hangs: each of our functions is named.
#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "HungInstall.h"
#include "StackText.h"

namespace {

using Strings = std::vector<std::string>;

using StackOfAnInstallation = HungInstall;

TEST_F(StackOfAnInstallation, NamesEachOfOurFunctionsWhicheverStepTheWorkerHangsIn) {
    std::set<std::string> steps{"ThreadRunning", "GettingAdapterInfo"};  // these are not killed, or are the watchdog's
    for (const InstallPlace &place : InstallOn(Scenario::Upgrade).places) {
        if (place.thread != InstallPlace::Thread::Worker || !steps.insert(place.step).second)
            continue;
        SCOPED_TRACE(place.step);
        Take(Scenario::Upgrade);
        const HungOutcome outcome = HangAt(place);
        const Strings stacks = StacksIn(outcome.installation.log);
        ASSERT_EQ(stacks.size(), 1U);
        EXPECT_EQ(NamelessFramesOfOurs(stacks[0]), Strings{}) << stacks[0];
        EXPECT_TRUE(HasFrame(stacks[0], FunctionsOfSteps().at(place.step))) << stacks[0];
        EXPECT_TRUE(HasFrame(stacks[0], "CDriverInstallerThread::Run")) << stacks[0];
        hung.ClearAway(outcome.left);
    }
    EXPECT_EQ(steps, StepsWithin(LimitsOfInstallation()));
}

TEST_F(StackOfAnInstallation, NamesTheFunctionsOfAStalledWatchdogInItsEvent) {
    const std::vector<InstallPlace> places = InstallOn(Scenario::Upgrade).places;
    const auto place = std::find_if(places.begin(), places.end(), [](const InstallPlace &each) {
        return each.thread == InstallPlace::Thread::Watchdog && each.function == "INetCfg::Apply";
    });
    ASSERT_NE(place, places.end());
    Take(Scenario::Upgrade);
    const HungOutcome outcome = HangAt(*place);
    const Strings events = outcome.installation.EventTexts(1004);
    ASSERT_EQ(events.size(), 1U);
    ASSERT_TRUE(events[0].starts_with("OverallInstall|[00] ")) << events[0];
    EXPECT_EQ(NamelessFramesOfOurs(events[0]), Strings{}) << events[0];
    EXPECT_TRUE(HasFrame(events[0], "CDriverInstallerWatchdog::Run")) << events[0];
    hung.ClearAway(outcome.left);
}

}  // namespace
