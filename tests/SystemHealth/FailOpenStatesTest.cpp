// The state machine of fail-open: backoff, recovery checks and recoveries.

#include "FailOpenFixture.h"

namespace {

using namespace Health;

TEST_F(FailOpen, DeactivatedWithinLimitsStaysDeactivated) {
    ASSERT_EQ(CheckAt(0), kNormal);
    const std::string line = TakeLongLine();
    EXPECT_EQ(FieldOf(line, "startSt") + " to " + FieldOf(line, "endSt"), "Deact to Deact");
    EXPECT_EQ(Setting("vtp.filter.SysHealthBackoffWait"), "") << "nothing is stored";
}

TEST_F(FailOpen, DeactivatedPastALimitGoesToFailOpenAndClearsTheBackoff) {
    dom.SettingStore("vtp.filter.SysHealthBackoffWait", "120");
    dom.SettingStore("vtp.filter.SysHealthLastRecoveryCheck", "77");
    Overload(true);
    ASSERT_EQ(CheckAt(0), kFailOpen);
    EXPECT_EQ(
        EngineTraces(),
        (std::vector<std::string>{
            "cloud_config size[0]: ", "loadBackoffState() backoff_wait=120 last_check=77",
            "rqlen=51.000000 numCpus=4 rqlen_pct=51.000000", kQueueOver, "clearBackoffState() cleared backoff state",
            "SysHealth transitioning to Fail-Open, metrics over threshold = 1", kSettingEnabled}));
    EXPECT_EQ(Setting("vtp.filter.SysHealthBackoffWait"), "0");
    EXPECT_EQ(Setting("vtp.filter.SysHealthLastRecoveryCheck"), "0");
}

TEST_F(FailOpen, TheFirstActivatedIterationStartsTheBackoff) {
    ASSERT_EQ(CheckAt(5, "Activated"), kFailOpen);
    EXPECT_EQ(EngineTraces(),
              (std::vector<std::string>{"cloud_config size[0]: ", "loadBackoffState() backoff_wait=0 last_check=0",
                                        "rqlen=1.000000 numCpus=4 rqlen_pct=1.000000",
                                        "saveBackoffState() backoff_wait=30 last_check=" + Microseconds(5),
                                        "SysHealth initializing backoff, wait=30 minutes",
                                        "SysHealth in backoff period, 30 minutes remaining", kSettingEnabled}));
    EXPECT_EQ(Setting("vtp.filter.SysHealthBackoffWait"), "30");
    EXPECT_EQ(Setting("vtp.filter.SysHealthLastRecoveryCheck"), Microseconds(5));
}

TEST_F(FailOpen, InTheBackoffAHealthyHostStaysInFailOpen) {
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    for (int minute = 1; minute < 30; ++minute) {
        Forget();
        ASSERT_EQ(CheckAt(minute * 60, "Activated"), kFailOpen);
        EXPECT_TRUE(
            Has(EngineTraces(), "SysHealth in backoff period, " + std::to_string(30 - minute) + " minutes remaining"));
    }
}

TEST_F(FailOpen, ElapsedMinutesAreWhole) {
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    ASSERT_EQ(CheckAt(59.999999, "Activated"), kFailOpen);
    EXPECT_TRUE(Has(EngineTraces(), "SysHealth in backoff period, 30 minutes remaining"));
    ASSERT_EQ(CheckActivatedAt(30 * 60 - 0.000001), kFailOpen);
    EXPECT_TRUE(Has(EngineTraces(), "SysHealth in backoff period, 1 minutes remaining"));
    ASSERT_EQ(CheckAt(30 * 60, "Activated"), kNormal);
}

TEST_F(FailOpen, InTheBackoffMetricsAreCalculatedButNotChecked) {
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    Forget();
    machine().processorQueue = 1000;
    ASSERT_EQ(CheckAt(60, "Activated"), kFailOpen);
    for (const std::string &line : EngineTraces())
        EXPECT_EQ(line.find("exceeds threshold"), std::string::npos) << line;
    EXPECT_EQ(FieldOf(TakeLongLine(), "rqpct"), "1000.000(50.000)");
}

TEST_F(FailOpen, ARecoveryCheckWithinLimitsEndsFailOpen) {
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    ASSERT_EQ(CheckActivatedAt(30 * 60), kNormal);
    EXPECT_EQ(EngineTraces(),
              (std::vector<std::string>{
                  "cloud_config size[0]: ", "loadBackoffState() backoff_wait=30 last_check=" + Microseconds(0),
                  "rqlen=1.000000 numCpus=4 rqlen_pct=1.000000", "clearBackoffState() cleared backoff state",
                  "SysHealth recovery successful, metrics over threshold = 0", kSettingEnabled}));
    EXPECT_EQ(Setting("vtp.filter.SysHealthBackoffWait"), "0");
    EXPECT_EQ(Setting("vtp.filter.SysHealthLastRecoveryCheck"), "0");
}

TEST_F(FailOpen, AFailedRecoveryCheckDoublesTheWait) {
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    Overload(true);
    ASSERT_EQ(CheckActivatedAt(30 * 60), kFailOpen);
    EXPECT_EQ(EngineTraces(),
              (std::vector<std::string>{
                  "cloud_config size[0]: ", "loadBackoffState() backoff_wait=30 last_check=" + Microseconds(0),
                  "rqlen=51.000000 numCpus=4 rqlen_pct=51.000000", kQueueOver,
                  "saveBackoffState() backoff_wait=60 last_check=" + Microseconds(30 * 60),
                  "SysHealth backoff increased, metrics over threshold = 1, next wait = 60 minutes", kSettingEnabled}));
    EXPECT_EQ(Setting("vtp.filter.SysHealthBackoffWait"), "60");
    EXPECT_EQ(Setting("vtp.filter.SysHealthLastRecoveryCheck"), Microseconds(30 * 60));
}

TEST_F(FailOpen, WaitsRun30And60And120AndThen240Minutes) {
    Overload(true);
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    double minute = 0;
    std::string wait = "30";
    for (const std::string next : {"60", "120", "240", "240", "240"}) {
        minute += std::stod(wait);
        ASSERT_EQ(CheckActivatedAt(minute * 60 - 1), kFailOpen);
        EXPECT_TRUE(Has(EngineTraces(), "SysHealth in backoff period, 1 minutes remaining"));
        ASSERT_EQ(CheckAt(minute * 60, "Activated"), kFailOpen);
        EXPECT_TRUE(Has(EngineTraces(),
                        "SysHealth backoff increased, metrics over threshold = 1, next wait = " + next + " minutes"));
        EXPECT_EQ(Setting("vtp.filter.SysHealthBackoffWait"), next);
        wait = next;
    }
}

TEST_F(FailOpen, TheCheckRunsAtTheFirstCallAfterTheWait) {
    Overload(true);
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    ASSERT_EQ(CheckActivatedAt(47 * 60 + 13), kFailOpen) << "the call before already exceeded the wait";
    EXPECT_TRUE(Has(EngineTraces(), "SysHealth in backoff period, 60 minutes remaining"));
    EXPECT_EQ(Setting("vtp.filter.SysHealthLastRecoveryCheck"), Microseconds(47 * 60 + 13 - 30));
}

TEST_F(FailOpen, TheCapAppliesToTheDoubledWait) {
    dom.SettingStore("vtp.filter.SysHealthBackoffWait", "200");
    dom.SettingStore("vtp.filter.SysHealthLastRecoveryCheck", wxString::FromUTF8(Microseconds(0)));
    Overload(true);
    ASSERT_EQ(CheckActivatedAt(200 * 60), kFailOpen);
    EXPECT_TRUE(
        Has(EngineTraces(), "SysHealth backoff increased, metrics over threshold = 1, next wait = 240 minutes"));
}

TEST_F(FailOpen, ConfiguredDurationsAreTruncatedToWholeMinutes) {
    WriteConfig(kRunQueue + kInterval + "SYSTEM_MIN_ACT_DURATION=7.9\nSYSTEM_MAX_ACT_DURATION=10.9\n");
    Overload(true);
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    EXPECT_TRUE(Has(EngineTraces(), "SysHealth initializing backoff, wait=7 minutes"));
    EXPECT_EQ(FieldOf(TakeLongLine(), "min_dur"), "420");
    ASSERT_EQ(CheckActivatedAt(7 * 60), kFailOpen);
    EXPECT_EQ(Setting("vtp.filter.SysHealthBackoffWait"), "10");
}

TEST_F(FailOpen, AFirstWaitBelowAMinuteMakesEveryIterationARecoveryCheck) {
    WriteConfig(kRunQueue + kInterval + "SYSTEM_MIN_ACT_DURATION=0.5\n");
    Overload(true);
    for (int second = 0; second < 3; ++second) {
        Forget();
        ASSERT_EQ(CheckAt(second, "Activated"), kFailOpen);
        const std::vector<std::string> traces = EngineTraces();
        EXPECT_TRUE(Has(traces, "SysHealth initializing backoff, wait=0 minutes"));
        EXPECT_TRUE(Has(traces, "SysHealth backoff increased, metrics over threshold = 1, next wait = 0 minutes"));
        EXPECT_EQ(Setting("vtp.filter.SysHealthBackoffWait"), "0");
        EXPECT_EQ(Setting("vtp.filter.SysHealthLastRecoveryCheck"), Microseconds(second));
    }
    Overload(false);
    EXPECT_EQ(CheckAt(3, "Activated"), kNormal);
}

TEST_F(FailOpen, AFirstWaitAboveTheMaximumDropsToItAtTheFirstGrowth) {
    WriteConfig(kRunQueue + kInterval + "SYSTEM_MIN_ACT_DURATION=20\nSYSTEM_MAX_ACT_DURATION=5\n");
    Overload(true);
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    EXPECT_TRUE(Has(EngineTraces(), "SysHealth in backoff period, 20 minutes remaining"));
    ASSERT_EQ(CheckActivatedAt(20 * 60), kFailOpen);
    EXPECT_TRUE(Has(EngineTraces(), "SysHealth backoff increased, metrics over threshold = 1, next wait = 5 minutes"));
}

TEST_F(FailOpen, AMaximumBelowAMinuteRestartsTheFirstWaitAfterEachFailedCheck) {
    WriteConfig(kRunQueue + kInterval + "SYSTEM_MIN_ACT_DURATION=5\nSYSTEM_MAX_ACT_DURATION=0.5\n");
    Overload(true);
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    ASSERT_EQ(CheckActivatedAt(5 * 60), kFailOpen);
    EXPECT_EQ(Setting("vtp.filter.SysHealthBackoffWait"), "0");
    Forget();
    ASSERT_EQ(CheckAt(5 * 60 + 30, "Activated"), kFailOpen);
    EXPECT_TRUE(Has(EngineTraces(), "SysHealth initializing backoff, wait=5 minutes"));
}

TEST_F(FailOpen, ARecoveryFactorOfZeroOrInQuotesNeverLetsAHostRecover) {
    for (const std::string factor : {"0", "\"80\""}) {
        SCOPED_TRACE(factor);
        const std::string policy =
            R"({"SYS_THR_RUNQ": {"value": 50}, "SYS_CONF_MIN_ACT_DURATION": 1, "SYS_CONF_RECOVER_FACTOR": )" + factor +
            "}";
        machine().processorQueue = 0;
        ASSERT_EQ(CheckAt(0, "Deactivated", policy), kNormal);
        for (const int second : {0, 30, 60, 61, 600, 1'000'000, 1'000'001})
            EXPECT_EQ(CheckAt(second, "Activated", policy), kFailOpen) << second;
        Reload();
        lua.Run("f = SLB.filter");
        dom.SettingStore("vtp.filter.SysHealthBackoffWait", "0");
    }
}

TEST_F(FailOpen, AfterARecoveryTheNextEpisodeStartsFromTheFirstWait) {
    Overload(true);
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    ASSERT_EQ(CheckActivatedAt(30 * 60), kFailOpen);
    Overload(false);
    ASSERT_EQ(CheckActivatedAt(90 * 60), kNormal);
    Overload(true);
    ASSERT_EQ(CheckAt(90 * 60 + 1), kFailOpen);
    Forget();
    ASSERT_EQ(CheckAt(90 * 60 + 2, "Activated"), kFailOpen);
    EXPECT_TRUE(Has(EngineTraces(), "SysHealth initializing backoff, wait=30 minutes"));
}

TEST_F(FailOpen, TheDriverMetricsAreNotCheckedInARecoveryCheck) {
    WriteConfig(kDriverMetrics + kInterval);
    SetTotals({});
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    ASSERT_EQ(CheckAt(30 * 60 - 30, "Activated"), kFailOpen);
    SetTotals({.connNew = 100'000, .established = 1'000'000, .halfOpenToClose = 100'000, .bytesForward = 1u << 31});
    EXPECT_EQ(CheckAt(30 * 60, "Activated"), kNormal);
}

TEST_F(FailOpen, TheIntervalIsCheckedInARecoveryCheck) {
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    ASSERT_EQ(CheckAt(30 * 60, "Activated"), kFailOpen);
    EXPECT_TRUE(Has(EngineTraces(), "SysHealth backoff increased, metrics over threshold = 1, next wait = 60 minutes"));
}

TEST_F(FailOpen, AClockSetBackCausesARecoveryCheckThatFails) {
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    Forget();
    ASSERT_EQ(CheckAt(-3600, "Activated"), kFailOpen);
    EXPECT_TRUE(Has(EngineTraces(), "SysHealth backoff increased, metrics over threshold = 1, next wait = 60 minutes"));
    EXPECT_EQ(Setting("vtp.filter.SysHealthLastRecoveryCheck"), Microseconds(-3600));
    ExpectLockFree();
}

TEST_F(FailOpen, AClockSetBackIsAnIntervalPastItsLimit) {
    ASSERT_EQ(CheckAt(0), kNormal);
    ASSERT_EQ(CheckAt(-1), kFailOpen);
    EXPECT_TRUE(HasBeginning(EngineTraces(), "iteration interval value of 18446744073708"));
    EXPECT_EQ(CheckAt(0), kNormal) << "one iteration only";
}

TEST_F(FailOpen, ACallerThatStaysDeactivatedGetsTheSameActionAgainAndTheTimeAdvances) {
    Overload(true);
    ASSERT_EQ(CheckAt(0), kFailOpen);
    Forget();
    ASSERT_EQ(CheckAt(10), kFailOpen);
    EXPECT_TRUE(Has(EngineTraces(), "SysHealth transitioning to Fail-Open, metrics over threshold = 1"));
    ASSERT_EQ(CheckAt(25, "Activated"), kFailOpen);
    EXPECT_EQ(FieldOf(TakeLongLine(), "act_dur"), "15");
}

}  // namespace
