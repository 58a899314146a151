// The six metrics: which are checked, how each is calculated, and where its limit lies.

#include "IterationFixture.h"

namespace {

using namespace Health;

class HealthMetrics : public IterationFixture {
protected:
    HealthMetrics() { WriteConfig(kDriverMetrics + kRunQueue + kFreeMemory + kInterval); }

    /// An iteration without totals, and ten seconds later one with these.
    int CheckWithTotals(const Totals &totals) {
        SetTotals({});
        EXPECT_EQ(CheckAt(0), kNormal);
        SetTotals(totals);
        Forget();
        return CheckAt(10);
    }

    /// The engine's traces since the last call, without those of every iteration.
    static std::vector<std::string> TakeFindings() {
        std::vector<std::string> findings = TakeTracedMessages("SysHealth.eng");
        std::erase_if(findings, [](const std::string &line) {
            return line.starts_with("cloud_config size") || line.starts_with("loadBackoffState()") ||
                   line.starts_with("clearBackoffState()") || line.starts_with("saveBackoffState()") ||
                   line.starts_with("Setting status:") || line.starts_with("SysHealth ");
        });
        return findings;
    }

    /// The number of metrics past their limit at the last recovery check.
    static std::string TakeFailedRecovery() {
        const std::string beginning = "SysHealth backoff increased, metrics over threshold = ";
        for (const std::string &line : TakeTracedMessages("SysHealth.eng"))
            if (line.starts_with(beginning))
                return line.substr(beginning.size(), line.find(',', beginning.size()) - beginning.size());
        return "no failed recovery check";
    }
};

// ---- Which are checked

TEST_F(HealthMetrics, EachConfiguredThresholdEnablesOnlyItsMetric) {
    const struct {
        std::string config;
        ReadOut metric;
    } cases[] = {{kRunQueue, {"rqpct", 1, 50}},
                 {kPort + kRefusals, {"refusalpct", 0, 10}},
                 {kPort + kEstablished, {"estab", 0, 100}},
                 {kPort + kScanned, {"scanmb", 0, 8}},
                 {kFreeMemory, {"frepct", 50, 20}}};
    double seconds = 0;
    for (const auto &[config, metric] : cases) {
        WriteConfig(config);
        ASSERT_EQ(CheckAt(seconds), kNormal);
        seconds += 0.5;
        for (const ReadOut &row : Metrics()) {
            const ReadOut off{row.name, 0, row.name == "delta_t" ? 45 : 0};
            EXPECT_EQ(row, row.name == metric.name ? metric : off) << "with " << config;
        }
    }
}

TEST_F(HealthMetrics, ARemovedThresholdDisablesItsMetric) {
    machine().processorQueue = 7;
    ASSERT_EQ(Check(), kNormal);
    ASSERT_EQ(Metric("rqpct"), (ReadOut{"rqpct", 7, 50}));
    WriteConfig(kFreeMemory);
    machine().processorQueue = 1000;
    ASSERT_EQ(Check(), kNormal) << "not checked";
    EXPECT_EQ(Metric("rqpct"), (ReadOut{"rqpct", 0, 0}));
    ASSERT_EQ(Metric("frepct"), (ReadOut{"frepct", 50, 20}));
    WriteConfig(kPort);
    machine().memoryAvailable = 0;
    ASSERT_EQ(Check(), kNormal) << "not checked";
    EXPECT_EQ(Metric("frepct"), (ReadOut{"frepct", 0, 0}));
}

TEST_F(HealthMetrics, WithoutThresholdsOnlyTheIterationIntervalIsEnabled) {
    WriteConfig(kPort);
    machine().processorQueue = 1e9;
    machine().memoryAvailable = 0;
    ASSERT_EQ(CheckAt(0), kNormal);
    ASSERT_EQ(CheckAt(44), kNormal);
    const std::vector<ReadOut> expected{{"rqpct", 0, 0},  {"refusalpct", 0, 0}, {"estab", 0, 0},
                                        {"scanmb", 0, 0}, {"frepct", 0, 0},     {"delta_t", 44, 45}};
    EXPECT_EQ(Metrics(), expected);
}

TEST_F(HealthMetrics, TheIntervalsThresholdIsTheConfiguredOneOr45) {
    ASSERT_EQ(CheckAt(0), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "delta_t"), "0.000(60.000)");
    WriteConfig(kRunQueue);
    ASSERT_EQ(CheckAt(10), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "delta_t"), "10.000(45.000)");
}

TEST_F(HealthMetrics, FortySixSecondsBetweenIterationsCauseFailOpen) {
    WriteConfig(kPort);
    ASSERT_EQ(CheckAt(0), kNormal);
    Forget();
    ASSERT_EQ(CheckAt(46), kFailOpen);
    const std::vector<std::string> traces = TakeTracedMessages("SysHealth.eng");
    EXPECT_TRUE(Has(traces,
                    "iteration interval value of 46.000000 exceeds threshold of 45.000000 "
                    "(1.000000 x 45.000000) "));
    EXPECT_TRUE(Has(traces, "SysHealth transitioning to Fail-Open, metrics over threshold = 1"));
}

TEST_F(HealthMetrics, TheFirstIterationHasNoIntervalWhateverTheClockSays) {
    ASSERT_EQ(CheckAt(1e9), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "delta_t"), "0.000(60.000)");
}

// ---- How they are calculated

TEST_F(HealthMetrics, AllAreTracedInTheOrderOfCalculation) {
    machine().processorQueue = 7;
    machine().processorCount = 8;
    machine().memoryTotal = std::uint64_t{1} << 20;
    machine().memoryAvailable = std::uint64_t{1} << 19;
    ASSERT_EQ(CheckWithTotals({.connNew = 1000,
                               .established = 400,
                               .halfOpenToClose = 50,
                               .bytesForward = 10 << 20,
                               .bytesBackward = 30 << 20}),
              kNormal);
    const std::string scanned =
        "scanbytes_fwd=1048576.000000 scanbytes_bwd=3145728.000000 numCpus=8.000000 "
        "scan_mbytes_per_cpu=0.500000";
    EXPECT_EQ(TakeFindings(),
              (std::vector<std::string>{"rqlen=7.000000 numCpus=8 rqlen_pct=7.000000",
                                        "conn_halfopen2close=5.000000 conn_new=100.000000 conn_ref_pct=5.000000",
                                        "conn_established=40.000000 numCpus=8.000000 conn_est_per_cpu=5.000000",
                                        scanned, "fremem pages=512 phsymem MB=1024 fremem_pct=50.000000"}));
}

TEST_F(HealthMetrics, AQueueOfSevenOnEightProcessorsReadsAsSeven) {
    machine().processorQueue = 7;
    machine().processorCount = 8;
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "rqpct"), "7.000(50.000)");
}

TEST_F(HealthMetrics, RefusalsCountFromMoreThanFiveConnectionsASecond) {
    ASSERT_EQ(CheckWithTotals({.connNew = 50, .halfOpenToClose = 1'000'000}), kNormal);
    EXPECT_TRUE(Has(TakeTracedMessages("SysHealth.eng"),
                    "conn_halfopen2close=100000.000000 conn_new=5.000000 conn_ref_pct=0.000000"));
    SetTotals({.connNew = 50 + 51, .halfOpenToClose = 1'000'000 + 51});
    ASSERT_EQ(CheckAt(20), kFailOpen);
    EXPECT_EQ(FieldOf(TakeLongLine(), "refusalpct"), "100.000(10.000)");
}

TEST_F(HealthMetrics, WithoutConnectionsThereAreNoRefusals) {
    ASSERT_EQ(CheckWithTotals({.halfOpenToClose = 1'000'000}), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "refusalpct"), "0.000(10.000)");
}

TEST_F(HealthMetrics, RefusalsMayExceedAHundredPercent) {
    ASSERT_EQ(CheckWithTotals({.connNew = 100, .halfOpenToClose = 350}), kFailOpen);
    EXPECT_EQ(FieldOf(TakeLongLine(), "refusalpct"), "350.000(10.000)");
}

TEST_F(HealthMetrics, ScannedBytesOfBothDirectionsCount) {
    ASSERT_EQ(CheckWithTotals({.bytesForward = 100 << 20}), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "scanmb"), "2.500(8.000)");
    SetTotals({.bytesForward = 100 << 20, .bytesBackward = 60 << 20});
    ASSERT_EQ(CheckAt(20), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "scanmb"), "1.500(8.000)");
}

TEST_F(HealthMetrics, DisabledOnesAreNotTraced) {
    WriteConfig(kFreeMemory);
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(TakeFindings(),
              (std::vector<std::string>{"fremem pages=4194304 phsymem MB=8388608 fremem_pct=50.000000"}));
}

// ---- Limits

TEST_F(HealthMetrics, AValueAtItsLimitIsAccepted) {
    machine().processorQueue = 50;
    machine().memoryTotal = 1000 << 10;
    machine().memoryAvailable = 200 << 10;
    SetTotals({});
    ASSERT_EQ(CheckAt(0), kNormal);
    SetTotals({.connNew = 60'000, .established = 24'000, .halfOpenToClose = 6000, .bytesForward = 1920 << 20});
    ASSERT_EQ(CheckAt(60), kNormal);
    const std::vector<ReadOut> atTheirLimits{{"rqpct", 50, 50}, {"refusalpct", 10, 10}, {"estab", 100, 100},
                                             {"scanmb", 8, 8},  {"frepct", 20, 20},     {"delta_t", 60, 60}};
    EXPECT_EQ(Metrics(), atTheirLimits);
}

TEST_F(HealthMetrics, AllSixPastTheirLimitsAreCountedInTableOrder) {
    SetTotals({});
    ASSERT_EQ(CheckAt(0), kNormal);
    machine().processorQueue = 51;
    machine().memoryTotal = 1000 << 10;
    machine().memoryAvailable = 190 << 10;
    SetTotals({.connNew = 1000, .established = 40'000, .halfOpenToClose = 200, .bytesBackward = 4000ull << 20});
    Forget();
    ASSERT_EQ(CheckAt(80), kFailOpen);
    const std::string refusals =
        "connections_refused_per_new_conn_pct value of 20.000000 exceeds threshold of 10.000000 "
        "(1.000000 x 10.000000) ";
    const std::string established =
        "connections_established_per_cpu value of 125.000000 exceeds threshold of 100.000000 "
        "(1.000000 x 100.000000) ";
    std::vector<std::string> traces = TakeTracedMessages("SysHealth.eng");
    EXPECT_TRUE(Has(traces, "SysHealth transitioning to Fail-Open, metrics over threshold = 6"));
    std::erase_if(traces, [](const std::string &line) { return line.find(" threshold of ") == std::string::npos; });
    EXPECT_EQ(
        traces,
        (std::vector<std::string>{
            "runnable_processes_per_cpu_pct value of 51.000000 exceeds threshold of 50.000000 (1.000000 x 50.000000) ",
            refusals, established,
            "total_scan_mbytes_per_cpu value of 12.500000 exceeds threshold of 8.000000 (1.000000 x 8.000000) ",
            "free_memory_pct value of 19.000000 less than threshold of 20.000000 (20.000000 / 1.000000) ",
            "iteration interval value of 80.000000 exceeds threshold of 60.000000 (1.000000 x 60.000000) "}));
}

TEST_F(HealthMetrics, OneMetricPastItsLimitIsEnoughWhicheverItIs) {
    const Totals busy[] = {{.connNew = 100, .halfOpenToClose = 11}, {.established = 4010}, {.bytesForward = 321 << 20}};
    double seconds = 0;
    for (const Totals &totals : busy) {
        SetTotals({});
        ASSERT_EQ(CheckAt(seconds), kNormal);
        SetTotals(totals);
        EXPECT_EQ(CheckAt(seconds + 10), kFailOpen);
        EXPECT_TRUE(Has(TakeTracedMessages("SysHealth.eng"),
                        "SysHealth transitioning to Fail-Open, metrics over threshold = 1"));
        seconds += 20;
    }
    machine().memoryAvailable = machine().memoryTotal / 6;
    EXPECT_EQ(CheckAt(seconds), kFailOpen);
}

TEST_F(HealthMetrics, AFailedIterationKeepsTheTable) {
    machine().processorQueue = 7;
    ASSERT_EQ(CheckAt(10), kNormal);
    const std::vector<ReadOut> before = Metrics();
    machine().processorQueue = 9;
    machine().processorCount = 0;
    ASSERT_EQ(CheckAt(20), kCollectFailed);
    EXPECT_EQ(Metrics(), before);
    const auto plan = simulation().GetFaults().FailEvery("GlobalMemoryStatusEx", ERROR_GEN_FAILURE);
    machine().processorCount = 1;
    ASSERT_EQ(CheckAt(30), kMemoryFailed);
    EXPECT_EQ(Metrics(), before);
    RemoveConfig();
    ASSERT_EQ(CheckAt(40), kDisabled);
    EXPECT_EQ(Metrics(), before);
    ASSERT_EQ(Check("nonsense"), kBadArgument);
    EXPECT_EQ(Metrics(), before);
}

// ---- The factor of a recovery check

TEST_F(HealthMetrics, AFactorBelowAHundredPercentTightensUpperAndLowerLimits) {
    WriteConfig(kRunQueue + kFreeMemory + kInterval + "SYSTEM_RECOVERY_FACTOR=50\n");
    machine().processorQueue = 25.5;
    machine().memoryTotal = 1000 << 10;
    machine().memoryAvailable = 390 << 10;
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    EXPECT_EQ(FieldOf(TakeLongLine(), "frepct"), "39.000(20.000)") << "in the backoff the factor is 1";
    ASSERT_EQ(CheckActivatedAt(30 * 60), kFailOpen);
    EXPECT_EQ(
        TakeFindings(),
        (std::vector<std::string>{
            "rqlen=25.500000 numCpus=4 rqlen_pct=25.500000", "fremem pages=390 phsymem MB=1000 fremem_pct=39.000000",
            "runnable_processes_per_cpu_pct value of 25.500000 exceeds threshold of 25.000000 "
            "(0.500000 x 50.000000) ",
            "free_memory_pct value of 39.000000 less than threshold of 40.000000 (20.000000 / 0.500000) "}));
    const std::string line = TakeLongLine();
    EXPECT_EQ(FieldOf(line, "rqpct"), "25.500(25.000)");
    EXPECT_EQ(FieldOf(line, "frepct"), "39.000(40.000)");
    EXPECT_EQ(FieldOf(line, "delta_t"), "30.000(30.000)");
}

TEST_F(HealthMetrics, ValuesAtTheTightenedLimitsPassTheRecoveryCheck) {
    WriteConfig(kRunQueue + kFreeMemory + kInterval + "SYSTEM_RECOVERY_FACTOR=50\n");
    machine().processorQueue = 25;
    machine().memoryTotal = 1000 << 10;
    machine().memoryAvailable = 400 << 10;
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    EXPECT_EQ(CheckActivatedAt(30 * 60), kNormal);
}

TEST_F(HealthMetrics, AFactorOfAHundredRecoversAtTheLimitsOfEntry) {
    WriteConfig(kRunQueue + kFreeMemory + kInterval + "SYSTEM_RECOVERY_FACTOR=100\n");
    machine().processorQueue = 50;
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    ASSERT_EQ(CheckActivatedAt(30 * 60), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "rqpct"), "50.000(50.000)");
}

TEST_F(HealthMetrics, WithoutAFactorRecoveryUsesTheLimitsOfEntry) {
    WriteConfig(kRunQueue + kInterval);
    machine().processorQueue = 50;
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    ASSERT_EQ(CheckActivatedAt(30 * 60), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "rqpct"), "50.000(50.000)");
}

TEST_F(HealthMetrics, TheFactorDoesNotTightenTheEntry) {
    WriteConfig(kRunQueue + "SYSTEM_RECOVERY_FACTOR=10\n");
    machine().processorQueue = 50;
    EXPECT_EQ(Check(), kNormal);
}

TEST_F(HealthMetrics, AFactorOfZeroFromAPolicyNeverRecovers) {
    const std::string policy = R"({"SYS_CONF_RECOVER_FACTOR": 0, "SYS_THR_RUNQ": {"value": 200},
        "SYS_THR_FREE_MEM": {"value": 1}, "SYS_CONF_MIN_ACT_DURATION": 1, "SYS_CONF_MAX_ACT_DURATION": 1})";
    machine().processorQueue = 0;
    machine().memoryAvailable = machine().memoryTotal;
    ASSERT_EQ(CheckAt(0, "Activated", policy), kFailOpen);
    for (int minute = 1; minute <= 5; ++minute) {
        ASSERT_EQ(CheckAt(minute * 60 - 1, "Activated", policy), kFailOpen);
        Forget();
        ASSERT_EQ(CheckAt(minute * 60, "Activated", policy), kFailOpen);
        EXPECT_EQ(TakeFailedRecovery(), "2") << "the floor is infinite, the interval above zero";
    }
}

}  // namespace
