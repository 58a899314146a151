#include "Faults.h"

#include <gtest/gtest.h>

#include "SimulatorTestSupport.h"

using namespace Simulator;

TEST(Faults, FailsOnlyTheNthCall) {
    Faults faults;
    const auto plan = faults.FailNth("f", 2, ERROR_ACCESS_DENIED);
    EXPECT_FALSE(faults.Ask("f", true).fails);
    EXPECT_FALSE(faults.Ask("g", true).fails);
    EXPECT_FALSE(plan->Hit());
    const Verdict second = faults.Ask("f", true);
    EXPECT_TRUE(second.fails);
    EXPECT_EQ(second.code, static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(plan->Hit());
    EXPECT_EQ(plan->HitFunction(), "f");
    EXPECT_FALSE(faults.Ask("f", true).fails);
    EXPECT_EQ(plan->Hits(), 1U);
}

TEST(Faults, FailsEveryCall) {
    Faults faults;
    const auto plan = faults.FailEvery("f", 5);
    EXPECT_TRUE(faults.Ask("f", true).fails);
    EXPECT_TRUE(faults.Ask("f", true).fails);
    EXPECT_FALSE(faults.Ask("g", true).fails);
    EXPECT_EQ(plan->Hits(), 2U);
}

TEST(Faults, CountsFromTheCreationOfThePlan) {
    Faults faults;
    (void)faults.Ask("f", true);
    (void)faults.FailNth("f", 1, 5);
    EXPECT_TRUE(faults.Ask("f", true).fails);
    EXPECT_EQ(faults.Calls("f"), 2U);
}

TEST(Faults, NumbersThreadsByTheOrderOfTheirFirstCalls) {
    Faults faults;
    const auto call = [&faults](const char *function) {
        bool fails = false;
        {
            const SimulatorTest::TestThread thread([&] { fails = faults.Ask(function, true).fails; });
        }
        return fails;
    };
    EXPECT_FALSE(call("f")) << "before the making of the plans";
    const auto mine = faults.FailNth("f", 2, 5, 0);
    const auto others = faults.FailNth("f", 1, 5, 2);
    EXPECT_FALSE(faults.Ask("f", true).fails);
    EXPECT_FALSE(call("g")) << "thread 1 has come with another function";
    EXPECT_TRUE(call("f"));
    EXPECT_TRUE(others->Hit());
    EXPECT_FALSE(mine->Hit()) << "its second call has yet to come";
    EXPECT_TRUE(faults.Ask("f", true).fails);
    EXPECT_TRUE(mine->Hit());
}

TEST(Faults, ReportsWhichThreadHangs) {
    Faults faults;
    const auto plan = faults.HangEvery("f");
    DWORD id = 0;
    const SimulatorTest::TestThread thread([&] {
        id = GetCurrentThreadId();
        faults.Ask("f", true).hangs.at(0)->Hang();
    });
    ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
    EXPECT_TRUE(faults.Hangs(id));
    EXPECT_FALSE(faults.Hangs(GetCurrentThreadId()));
    plan->Release();
    EXPECT_FALSE(faults.Hangs(id));
}

TEST(Faults, FailsTheNthOfAllThatCanFail) {
    Faults faults;
    const auto plan = faults.FailNthOfAny(2, 5);
    EXPECT_FALSE(faults.Ask("f", true).fails);
    EXPECT_FALSE(faults.Ask("Sleep", false).fails);
    EXPECT_TRUE(faults.Ask("g", true).fails);
    EXPECT_EQ(plan->HitFunction(), "g");
    EXPECT_EQ(faults.FailableCalls(), 2U);
}

TEST(Faults, FailsTheNthOfAChosenSet) {
    Faults faults;
    (void)faults.FailNthOf({"f", "g"}, 2, 5);
    EXPECT_FALSE(faults.Ask("f", true).fails);
    EXPECT_FALSE(faults.Ask("h", true).fails);
    EXPECT_TRUE(faults.Ask("g", true).fails);
}

TEST(Faults, NeverFailsAFunctionThatCannotFail) {
    Faults faults;
    const auto plan = faults.FailEvery("Sleep", 5);
    EXPECT_FALSE(faults.Ask("Sleep", false).fails);
    EXPECT_FALSE(plan->Hit());
}

TEST(Faults, UsesTheCodeOfTheFirstOfSeveralPlans) {
    Faults faults;
    const auto first = faults.FailEvery("f", 5);
    const auto second = faults.FailEvery("f", 6);
    EXPECT_EQ(faults.Ask("f", true).code, 5U);
    EXPECT_TRUE(second->Hit());
}

TEST(Faults, AddsDelays) {
    Faults faults;
    (void)faults.DelayEvery("f", 100);
    (void)faults.DelayNth("f", 2, 30);
    EXPECT_EQ(faults.Ask("f", false).delayMs, 100U);
    EXPECT_EQ(faults.Ask("f", false).delayMs, 130U);
}

TEST(Faults, HangsUntilThePlanIsReleased) {
    Faults faults;
    const auto plan = faults.HangEvery("f");
    const Verdict verdict = faults.Ask("f", true);
    ASSERT_EQ(verdict.hangs.size(), 1U);
    EXPECT_FALSE(verdict.fails);
    EXPECT_FALSE(plan->Hit()) << "it does not hang yet";
    const SimulatorTest::TestThread thread([&verdict] { verdict.hangs[0]->Hang(); });
    EXPECT_TRUE(plan->WaitUntilHit(kPatienceMs));
    EXPECT_TRUE(plan->Hit());
    EXPECT_EQ(plan->HitFunction(), "f");
    EXPECT_TRUE(thread.Runs());
    faults.ReleaseHung();
    EXPECT_TRUE(thread.Join(kPatienceMs));
    EXPECT_TRUE(faults.Ask("f", true).hangs.empty()) << "a released plan is over";
}

TEST(Faults, WakesThoseWhoWaitForAHitWhenThePlanIsReleased) {
    Faults faults;
    const auto plan = faults.HangEvery("f");
    bool hit = true;
    const SimulatorTest::TestThread thread([&] { hit = plan->WaitUntilHit(INFINITE); });
    EXPECT_TRUE(thread.Runs());
    plan->Release();
    ASSERT_TRUE(thread.Join(kPatienceMs));
    EXPECT_FALSE(hit);
}

TEST(Faults, ReleasesOnlyHungCallsByReleaseHung) {
    Faults faults;
    (void)faults.FailEvery("f", 5);
    faults.ReleaseHung();
    EXPECT_TRUE(faults.Ask("f", true).fails);
}

TEST(Faults, ForgetsPlansButNotCountsWhenCleared) {
    Faults faults;
    const auto hang = faults.HangNth("f", 1);
    const Verdict verdict = faults.Ask("f", true);
    (void)faults.FailEvery("f", 5);
    faults.Clear();
    const SimulatorTest::TestThread thread([&verdict] { verdict.hangs.at(0)->Hang(); });
    EXPECT_TRUE(thread.Join(kPatienceMs));
    EXPECT_FALSE(faults.Ask("f", true).fails);
    EXPECT_EQ(faults.Calls("f"), 2U);
    EXPECT_EQ(faults.Calls("g"), 0U);
}
