// What an iteration queries from the platform.

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <pdhmsg.h>

#include "SamplingFixture.h"
#include "slb3_control.h"

namespace {

using namespace Health;

/// Those whose failure ends an iteration.
const std::set<std::string> kFailable{"PdhOpenQueryW", "PdhAddCounterW", "PdhCollectQueryData",
                                      "PdhGetFormattedCounterValue", "GlobalMemoryStatusEx"};

TEST_F(Sampling, AnIterationQueriesThePlatformInThisOrder) {
    WriteConfig(kRunQueue);
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(TakePlatformCalls(),
              (std::vector<std::string>{"PdhOpenQueryW", "PdhAddCounterW", "PdhCollectQueryData", "Sleep 100",
                                        "PdhCollectQueryData", "PdhGetFormattedCounterValue", "PdhCloseQuery",
                                        "GetSystemInfo", "GlobalMemoryStatusEx"}));
}

TEST_F(Sampling, EachIterationTakesItsOwnSample) {
    WriteConfig(kRunQueue);
    ASSERT_EQ(Check(), kNormal);
    const std::vector<std::string> first = TakePlatformCalls();
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(TakePlatformCalls(), first);
}

TEST_F(Sampling, TheQueueIsReadFromTheSystemsCounterWithoutADataSource) {
    WriteConfig(kRunQueue);
    ASSERT_EQ(Check(), kNormal);
    std::string opened;
    std::string added;
    for (const Simulator::JournalEntry &entry : simulation().GetJournal().Take()) {
        opened = entry.function == "PdhOpenQueryW" ? entry.arguments : opened;
        added = entry.function == "PdhAddCounterW" ? entry.arguments : added;
    }
    EXPECT_TRUE(opened.starts_with("null, 0, ")) << opened;
    EXPECT_NE(added.find("\"\\System\\Processor Queue Length\""), std::string::npos) << added;
}

TEST_F(Sampling, TheProcessorsAreCountedInEachIteration) {
    WriteConfig(kRunQueue);
    ASSERT_EQ(Check(), kNormal);
    machine().processorCount = 64;
    Forget();
    ASSERT_EQ(Check(), kNormal);
    EXPECT_TRUE(Has(TakeTracedMessages("SysHealth.eng"), "rqlen=1.000000 numCpus=64 rqlen_pct=1.000000"));
}

TEST_F(Sampling, MemoryIsKeptInWholeKibibytes) {
    WriteConfig(kFreeMemory);
    machine().memoryTotal = 4096 + 1023;
    machine().memoryAvailable = 2048 + 1023;
    ASSERT_EQ(Check(), kNormal);
    EXPECT_TRUE(Has(TakeTracedMessages("SysHealth.eng"), "fremem pages=2 phsymem MB=4 fremem_pct=50.000000"));
}

struct FailingStep {
    const char *function;
    unsigned nth;
    const char *trace;
    bool closes;
};
constexpr FailingStep kQueueSteps[] = {
    {"PdhOpenQueryW", 1, "PdhOpenQuery failed", false},
    {"PdhAddCounterW", 1, "PdhAddCounter failed for Processor Queue Length", true},
    {"PdhCollectQueryData", 1, "PdhCollectQueryData failed", true},
    {"PdhCollectQueryData", 2, "Second PdhCollectQueryData failed", true},
    {"PdhGetFormattedCounterValue", 1, "PdhGetFormattedCounterValue failed", true},
};

TEST_F(Sampling, AFailingStepOfTheQueueIsTracedAndEndsTheIteration) {
    WriteConfig(kRunQueue);
    for (const FailingStep &step : kQueueSteps) {
        SCOPED_TRACE(step.trace);
        Forget();
        const auto plan = simulation().GetFaults().FailNth(step.function, step.nth, PDH_INVALID_DATA);
        EXPECT_EQ(Check(), kCollectFailed);
        EXPECT_TRUE(plan->Hit());
        EXPECT_EQ(TakeTracedMessages("SysHealth.eng"),
                  (std::vector<std::string>{"cloud_config size[0]: ", step.trace, "failed to collect rqLen, exiting",
                                            "Setting status: enabled"}));
        EXPECT_TRUE(log.Take().empty());
        simulation().GetFaults().Clear();
    }
    EXPECT_EQ(Check(), kNormal);
}

TEST_F(Sampling, AFailingStepOfTheQueueClosesTheQueryAndEndsTheSampling) {
    WriteConfig(kRunQueue);
    for (const FailingStep &step : kQueueSteps) {
        SCOPED_TRACE(step.trace);
        Forget();
        const auto plan = simulation().GetFaults().FailNth(step.function, step.nth, PDH_INVALID_DATA);
        EXPECT_EQ(Check(), kCollectFailed);
        std::vector<std::string> calls = TakePlatformCalls();
        ASSERT_FALSE(calls.empty());
        if (step.closes) {
            EXPECT_EQ(calls.back(), "PdhCloseQuery");
            calls.pop_back();
        }
        ASSERT_FALSE(calls.empty());
        EXPECT_EQ(calls.back(), step.function);
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "PdhCloseQuery"), 0);
        simulation().GetFaults().Clear();
    }
}

TEST_F(Sampling, AQueryThatCannotBeClosedAffectsNothingElse) {
    WriteConfig(kRunQueue);
    const auto plan = simulation().GetFaults().FailNth("PdhCloseQuery", 1, PDH_INVALID_HANDLE);
    EXPECT_EQ(Check(), kNormal);
    EXPECT_TRUE(plan->Hit());
    EXPECT_EQ(Metric("rqpct").value, 1);
}

TEST_F(Sampling, NoProcessorsEndTheIterationBeforeMemoryIsQueried) {
    WriteConfig(kRunQueue);
    machine().processorCount = 0;
    EXPECT_EQ(Check(), kCollectFailed);
    EXPECT_EQ(TakeTracedMessages("SysHealth.eng"),
              (std::vector<std::string>{"cloud_config size[0]: ", "failed to collect numCpus, exiting",
                                        "Setting status: enabled"}));
    EXPECT_EQ(TakePlatformCalls().back(), "GetSystemInfo");
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(Sampling, UnreadableMemoryEndsTheIterationBeforeTheDriverIsQueried) {
    WriteConfig(kDriverMetrics);
    const auto plan = simulation().GetFaults().FailNth("GlobalMemoryStatusEx", 1, ERROR_GEN_FAILURE);
    EXPECT_EQ(Check(), kMemoryFailed);
    EXPECT_TRUE(plan->Hit());
    EXPECT_EQ(TakeTracedMessages("SysHealth.eng"),
              (std::vector<std::string>{"cloud_config size[0]: ", "GlobalMemoryStatusEx failed",
                                        "failed to collect memory metrics, exiting", "Setting status: enabled"}));
    EXPECT_TRUE(TakeDriverCalls().empty());
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(Sampling, EachPlatformCallMayFailWithoutALeak) {
    WriteConfig(kRunQueue + kDriverMetrics);
    const auto iterationWithFault = [this](unsigned nth, std::string &failed) {
        simulation().GetFaults().Clear();
        const auto plan = simulation().GetFaults().FailNthOf(kFailable, nth, PDH_INVALID_DATA);
        const int action = Check();
        failed = plan->HitFunction();
        Forget();
        lua_gc(lua, LUA_GCCOLLECT, 0);
        return action;
    };
    for (unsigned nth = 1; nth <= 6; ++nth) {
        SCOPED_TRACE("call " + std::to_string(nth));
        std::string failed;
        iterationWithFault(nth, failed);
        const Simulator::BalanceSnapshot before = balance().Take();
        const int action = iterationWithFault(nth, failed);
        EXPECT_EQ(balance().Difference(before, balance().Take()), "");
        EXPECT_EQ(action, failed == "GlobalMemoryStatusEx" ? kMemoryFailed : kCollectFailed);
        EXPECT_NE(failed, "");
        ExpectLockFree();
    }
    std::string failed;
    EXPECT_EQ(iterationWithFault(7, failed), kNormal);
    EXPECT_EQ(failed, "") << "these are all";
}

TEST_F(Sampling, ReadOutsAreAnsweredWhileASampleHangs) {
    WriteConfig(kRunQueue);
    ASSERT_EQ(Check(), kNormal);
    LuaState other;
    Open(other);
    SLB3::Control::PushInstance(other, "SLB.Dom", &dom);
    lua_setglobal(other, "dom");
    ASSERT_EQ(luaL_loadstring(other, "SLB.filter.CheckSystemHealthMetrics(dom, 'Deactivated', '')"), LUA_OK);
    const auto plan = simulation().GetFaults().HangNth("PdhCollectQueryData", 2);
    Worker iteration([&] { EXPECT_EQ(lua_pcall(other, 0, 0, 0), LUA_OK); });
    EXPECT_TRUE(plan->WaitUntilHit(60'000));
    ExpectLockFree();
    plan->Release();
    EXPECT_TRUE(iteration.EndsWithin(60'000));
}

}  // namespace
