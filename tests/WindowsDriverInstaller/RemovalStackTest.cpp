// The stacks that support gets from a removal that hangs: each of our functions is named.
#include <set>
#include <string>
#include <vector>

#include "HungRemoval.h"
#include "StackText.h"

namespace {

using Strings = std::vector<std::string>;

using StackOfARemoval = HungRemoval;

TEST_F(StackOfARemoval, NamesEachOfOurFunctionsWhicheverStepTheWorkerHangsIn) {
    PutRight();
    std::set<std::string> steps{"ThreadRunning"};  // not killed, so no stack
    for (const Place &place : PlacesOf(Uninstall())) {
        if (!steps.insert(place.step).second)
            continue;
        SCOPED_TRACE(place.step);
        PutRight();
        const Hang hang = HangIn(place.function, place.nth, place.deadlineMs);
        ASSERT_EQ(hang.Stacks().size(), 1U);
        const std::string stack = hang.Stacks()[0];
        EXPECT_EQ(NamelessFramesOfOurs(stack), Strings{}) << stack;
        EXPECT_TRUE(HasFrame(stack, FunctionsOfSteps().at(place.step))) << stack;
        EXPECT_TRUE(HasFrame(stack, "CDriverUninstallerThread::Run")) << stack;
        hung.ClearAway(hang.left);
    }
    EXPECT_EQ(steps, StepsWithin(LimitsOfRemoval()));
}

}  // namespace
