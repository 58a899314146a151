// The rates that an iteration computes from the driver's totals, and unusual numbers.

#include <array>
#include <cstdint>
#include <limits>

#include "SamplingFixture.h"

namespace {

using namespace Health;

// ---- Rates

TEST_F(Sampling, TheFirstPassSetsABaselineAndTheSecondGivesRates) {
    WriteConfig(kDriverMetrics);
    SetTotals({.established = 1'000'000});
    ASSERT_EQ(CheckAt(0), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "estab"), "0.000(100.000)");
    SetTotals({.established = 1'000'500});
    ASSERT_EQ(CheckAt(10), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "estab"), "12.500(100.000)") << "500 in 10 s on 4 processors";
}

TEST_F(Sampling, TheFirstPassOnlySetsTheBaselineEvenIfSecondsHavePassed) {
    WriteConfig(kRunQueue);
    ASSERT_EQ(CheckAt(0), kNormal);
    WriteConfig(kDriverMetrics);
    SetTotals({.established = 1'000'000});
    ASSERT_EQ(CheckAt(10), kNormal) << "seconds have passed, yet it is the first pass";
    EXPECT_EQ(FieldOf(TakeLongLine(), "estab"), "0.000(100.000)");
}

TEST_F(Sampling, ADecreasedTotalGivesARateOfZeroAndTheNewBaseline) {
    WriteConfig(kDriverMetrics);
    SetTotals({.established = 1000});
    ASSERT_EQ(CheckAt(0), kNormal);
    SetTotals({.established = 400});
    ASSERT_EQ(CheckAt(10), kNormal);
    Forget();
    EXPECT_EQ(Metric("estab").value, 0);
    SetTotals({.established = 1200});
    ASSERT_EQ(CheckAt(20), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "estab"), "20.000(100.000)") << "800 in 10 s on 4 processors";
}

TEST_F(Sampling, OneDecreasedTotalDoesNotAffectTheOtherRates) {
    WriteConfig(kDriverMetrics);
    SetTotals({.connNew = 1000, .halfOpenToClose = 0});
    ASSERT_EQ(CheckAt(0), kNormal);
    SetTotals({.connNew = 2000, .halfOpenToClose = 50, .bytesForward = 1});
    ASSERT_EQ(CheckAt(10), kNormal);
    SetTotals({.connNew = 3000, .halfOpenToClose = 90, .bytesForward = 0});
    ASSERT_EQ(CheckAt(20), kNormal);
    EXPECT_EQ(Metric("refusalpct").value, 4);
    EXPECT_EQ(Metric("scanmb").value, 0);
}

TEST_F(Sampling, DifferencesCoverTheWholeRangeOf64Bits) {
    WriteConfig(kDriverMetrics);
    SetTotals({});
    ASSERT_EQ(CheckAt(0), kNormal);
    SetTotals({.established = std::numeric_limits<std::uint64_t>::max()});
    ASSERT_EQ(CheckAt(1), kFailOpen);
    lua.Run("done, metrics = f.GetSysHealthMetrics()");
    EXPECT_EQ(lua.Eval("metrics[3].value == 2^62"), "true") << "a quarter of it, in a second";
}

TEST_F(Sampling, AFailedScanKeepsTheBaselineButTimeAdvances) {
    WriteConfig(kDriverMetrics);
    SetTotals({});
    ASSERT_EQ(CheckAt(0), kNormal);
    driver().faults["vti_get_scan_metrics"] = {.status = 1, .error = "x", .remaining = 1};
    SetTotals({.established = 300});
    ASSERT_EQ(CheckAt(10), kNormal);
    Forget();
    SetTotals({.established = 800});
    ASSERT_EQ(CheckAt(20), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "estab"), "20.000(100.000)") << "800 since the baseline, 10 s, 4 processors";
}

TEST_F(Sampling, AnIterationWithoutThePortKeepsTheBaseline) {
    WriteConfig(kDriverMetrics);
    SetTotals({});
    ASSERT_EQ(CheckAt(0), kNormal);
    WriteConfig(kRunQueue);
    ASSERT_EQ(CheckAt(10), kNormal);
    WriteConfig(kDriverMetrics);
    SetTotals({.established = 400});
    ASSERT_EQ(CheckAt(20), kNormal);
    EXPECT_EQ(Metric("estab").value, 10);
}

TEST_F(Sampling, RatesAreStillComputedInFailOpenThoughTheyAreNotChecked) {
    WriteConfig(kDriverMetrics);
    SetTotals({});
    ASSERT_EQ(CheckAt(0), kNormal);
    SetTotals({.established = 100'000});
    ASSERT_EQ(CheckAt(10, "Activated"), kFailOpen);
    EXPECT_EQ(Metric("estab"), (ReadOut{"estab", 0, 0}));
    SetTotals({.established = 100'400});
    ASSERT_EQ(CheckAt(20), kNormal) << "only the last ten seconds count";
    EXPECT_EQ(Metric("estab").value, 10);
}

TEST_F(Sampling, TwoIterationsInTheSameMicrosecondDivideByZeroSeconds) {
    WriteConfig(kPort + kEstablished);
    SetTotals({.established = 100});
    ASSERT_EQ(CheckAt(0), kNormal);
    SetTotals({.established = 101});
    EXPECT_EQ(CheckAt(0), kFailOpen) << "an infinite rate exceeds its limit";
    EXPECT_TRUE(
        Has(TakeTracedMessages("SysHealth.eng"), "SysHealth transitioning to Fail-Open, metrics over threshold = 1"));
    EXPECT_EQ(CheckAt(0), kNormal) << "nothing in no time is NaN, which exceeds no limit";
    EXPECT_EQ(FieldOf(TakeLongLine(), "delta_t"), "0.000(45.000)");
    ExpectLockFree();
}

TEST_F(Sampling, RefusalsPerConnectionsInNoTimeAreNotANumber) {
    WriteConfig(kPort + kRefusals);
    SetTotals({});
    ASSERT_EQ(CheckAt(0), kNormal);
    SetTotals({.connNew = 10, .halfOpenToClose = 10});
    EXPECT_EQ(CheckAt(0), kNormal);
}

TEST_F(Sampling, ADriverThatReturnsNoRowsKeepsRatesAndBaseline) {
    WriteConfig(kDriverMetrics);
    SetTotals({});
    ASSERT_EQ(CheckAt(0), kNormal);
    SetTotals({.established = 400});
    ASSERT_EQ(CheckAt(10), kNormal);
    SetTotals({.established = 999'999});
    for (const std::array<std::uint32_t, 2> shape :
         {std::array<std::uint32_t, 2>{10, 0}, {0, 1}, {0, 0}, {10, 0xFFFFFFFF}, {0x80000000, 1}}) {
        SCOPED_TRACE(std::to_string(shape[0]) + " by " + std::to_string(shape[1]));
        driver().scanShape = shape;
        ASSERT_EQ(CheckAt(20), kNormal);
        EXPECT_EQ(Metric("estab"), (ReadOut{"estab", 10, 100}));
    }
    driver().scanShape = {10, 1};
    SetTotals({.established = 1200});
    ASSERT_EQ(CheckAt(30), kNormal);
    EXPECT_EQ(Metric("estab").value, 20) << "800 more than what was last counted";
}

TEST_F(Sampling, ADriverThatClaimsMoreThanOneRowOfTenCountersIsNotReadBeyondTheRecord) {
    WriteConfig(kDriverMetrics);
    std::uint64_t established = 0;
    double at = 0;
    for (const std::array<std::uint32_t, 2> shape :
         {std::array<std::uint32_t, 2>{10, 1}, {11, 1}, {10, 2}, {0x7FFFFFFF, 1}, {0x7FFFFFFF, 0x7FFFFFFF}}) {
        SCOPED_TRACE(std::to_string(shape[0]) + " by " + std::to_string(shape[1]));
        driver().scanShape = shape;
        SetTotals({.established = established += 400});
        ASSERT_EQ(CheckAt(at), kNormal);
        EXPECT_EQ(Metric("estab").value, at == 0 ? 0 : 10);
        at += 10;
    }
}

TEST_F(Sampling, ADriverThatFillsFewerCountersGivesRatesOnlyForThose) {
    WriteConfig(kDriverMetrics);
    SetTotals({});
    ASSERT_EQ(CheckAt(0), kNormal);
    SetTotals({.bytesForward = 40 * 1024 * 1024});
    ASSERT_EQ(CheckAt(10), kNormal);
    ASSERT_EQ(Metric("scanmb").value, 1);
    driver().scanShape = {3, 1};
    SetTotals({.established = 400, .bytesForward = 400 * 1024 * 1024});
    ASSERT_EQ(CheckAt(20), kNormal);
    EXPECT_EQ(Metric("estab").value, 10);
    EXPECT_EQ(Metric("scanmb").value, 1) << "the rate of the last answer that had it";
}

TEST_F(Sampling, CountersMissingFromOneAnswerKeepTheirBaseline) {
    WriteConfig(kDriverMetrics);
    const Totals before{.connNew = 1'000'000, .established = 1'000'000, .bytesForward = 4'000'000'000'000};
    SetTotals(before);
    ASSERT_EQ(CheckAt(0), kNormal);
    driver().scanShape = {6, 1};
    SetTotals({.connNew = 1'000'400, .established = 1'000'400});
    ASSERT_EQ(CheckAt(10), kNormal);
    EXPECT_EQ(Metric("estab").value, 10);
    driver().scanShape = {10, 1};
    SetTotals({.connNew = 1'000'800, .established = 1'000'800, .bytesForward = before.bytesForward + (40 << 20)});
    ASSERT_EQ(CheckAt(20), kNormal) << "no more was scanned than allowed";
    EXPECT_EQ(FieldOf(TakeLongLine(), "scanmb"), "1.000(8.000)") << "40 MiB since the baseline, 10 s, 4 processors";
    Forget();
    SetTotals({.connNew = 1'000'800, .established = 1'000'800, .bytesForward = before.bytesForward + (120 << 20)});
    ASSERT_EQ(CheckAt(30), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "scanmb"), "2.000(8.000)") << "80 MiB in 10 s on 4 processors";
}

TEST_F(Sampling, CountersMissingFromTheFirstAnswerSetTheirBaselineWhenTheyAppear) {
    WriteConfig(kDriverMetrics);
    driver().scanShape = {3, 1};
    SetTotals({.connNew = 1'000'000, .established = 1'000'000});
    ASSERT_EQ(CheckAt(0), kNormal);
    driver().scanShape = {10, 1};
    Totals totals{.connNew = 1'000'400,
                  .established = 1'000'400,
                  .halfOpenToClose = 1'000'000,
                  .bytesForward = 4'000'000'000'000};
    SetTotals(totals);
    ASSERT_EQ(CheckAt(10), kNormal);
    EXPECT_EQ(Metric("estab").value, 10);
    EXPECT_EQ(Metric("refusalpct").value, 0);
    EXPECT_EQ(Metric("scanmb").value, 0);
    totals.bytesForward += 80 << 20;
    SetTotals(totals);
    ASSERT_EQ(CheckAt(20), kNormal);
    EXPECT_EQ(Metric("scanmb").value, 2);
}

TEST_F(Sampling, AFirstAnswerOfOneCounterSetsItsBaseline) {
    WriteConfig(kDriverMetrics);
    driver().scanShape = {1, 1};
    SetTotals({.connNew = 1'000'000});
    ASSERT_EQ(CheckAt(0), kNormal);
    (void)TakeDriverCalls();
    (void)TakeTracedLines();
    driver().scanShape = {10, 1};
    SetTotals({.connNew = 1'000'400});
    ASSERT_EQ(CheckAt(10), kNormal);
    EXPECT_FALSE(HasBeginning(TakeDriverCalls(), "vti_set_scan_monitoring"));
    EXPECT_TRUE(HasBeginning(TakeTracedMessages("SysHealth.eng"), "conn_halfopen2close=0.000000 conn_new=40.000000 "));
}

TEST_F(Sampling, AFirstAnswerWithoutRowsSetsNoBaselineAndTheDriverGetsItsPortAgain) {
    WriteConfig(kDriverMetrics);
    driver().scanShape = {10, 0};
    SetTotals({.established = 5000});
    ASSERT_EQ(CheckAt(0), kNormal);
    (void)TakeDriverCalls();
    driver().scanShape = {10, 1};
    ASSERT_EQ(CheckAt(10), kNormal);
    EXPECT_TRUE(HasBeginning(TakeDriverCalls(), "vti_set_scan_monitoring"));
    EXPECT_EQ(Metric("estab").value, 0) << "this pass sets the baseline";
}

// ---- Unusual numbers

TEST_F(Sampling, AQueueThatIsNotANumberExceedsNoLimit) {
    WriteConfig(kRunQueue);
    machine().processorQueue = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(Check(), kNormal);
    ExpectLockFree();
}

TEST_F(Sampling, AnInfiniteQueueExceedsItsLimit) {
    WriteConfig(kRunQueue);
    machine().processorQueue = std::numeric_limits<double>::infinity();
    EXPECT_EQ(Check(), kFailOpen);
    ExpectLockFree();
}

TEST_F(Sampling, ANegativeQueueIsKept) {
    WriteConfig(kRunQueue);
    machine().processorQueue = -7.9;
    EXPECT_EQ(Check(), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "rqpct"), "-7.900(50.000)");
}

TEST_F(Sampling, NoMemoryAtAllExceedsNoLimit) {
    WriteConfig(kFreeMemory);
    machine().memoryTotal = 0;
    machine().memoryAvailable = 0;
    EXPECT_EQ(Check(), kNormal) << "zero divided by zero is NaN";
    ExpectLockFree();
}

TEST_F(Sampling, FreeMemoryOutOfNoneIsInfinite) {
    WriteConfig(kFreeMemory);
    machine().memoryTotal = 0;
    machine().memoryAvailable = 1 << 20;
    EXPECT_EQ(Check(), kNormal) << "infinity is not below a lower limit";
    EXPECT_TRUE(HasBeginning(TakeTracedMessages("SysHealth.eng"), "fremem pages=1024 phsymem MB=0 fremem_pct="));
    ExpectLockFree();
}

TEST_F(Sampling, MoreFreeMemoryThanTotalIsMoreThanAHundredPercent) {
    WriteConfig(kFreeMemory);
    machine().memoryTotal = 1 << 20;
    machine().memoryAvailable = 3 << 20;
    EXPECT_EQ(Check(), kNormal);
    EXPECT_EQ(Metric("frepct"), (ReadOut{"frepct", 300, 20}));
}

TEST_F(Sampling, NumbersBeyond32BitsAreKept) {
    WriteConfig(kFreeMemory);
    machine().memoryTotal = std::uint64_t{1} << 62;
    machine().memoryAvailable = std::uint64_t{1} << 61;
    EXPECT_EQ(Check(), kNormal);
    EXPECT_TRUE(Has(TakeTracedMessages("SysHealth.eng"),
                    "fremem pages=2251799813685248 phsymem MB=4503599627370496 fremem_pct=50.000000"));
}

}  // namespace
