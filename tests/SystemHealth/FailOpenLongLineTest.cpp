// The long log line of an iteration.

#include "FailOpenFixture.h"

namespace {

using namespace Health;

constexpr char kLineOfDisabledMetrics[] = " refusalpct=0.000(0.000) estab=0.000(0.000) scanmb=0.000(0.000)";

TEST_F(FailOpen, TheLongLineOfANormalIteration) {
    WriteConfig(kRunQueue);
    ASSERT_EQ(CheckAt(0.25), kNormal);
    const std::vector<LogLine> lines = log.Take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, static_cast<wxLogLevel>(wxLOG_Info));
    EXPECT_EQ(lines[0].text,
              "SysHealth: rc=0 tval= 459571712.250000 delta_t=0.000 startSt=Deact endSt=Deact min_dur=1800 act_dur=0 "
              "backoff=0 next_chk=0 port=0 rqpct=1.000(50.000)" +
                  std::string(kLineOfDisabledMetrics) + " frepct=0.000(0.000) delta_t=0.000(45.000)");
}

TEST_F(FailOpen, TheLongLineWithAllMetrics) {
    WriteConfig(kDriverMetrics + kRunQueue + kFreeMemory + kInterval);
    SetTotals({});
    ASSERT_EQ(CheckAt(0), kNormal);
    SetTotals({.connNew = 1000, .established = 400, .halfOpenToClose = 45, .bytesForward = 10 << 20});
    ASSERT_EQ(CheckAt(10.000007), kNormal);
    EXPECT_EQ(TakeLongLine(),
              "SysHealth: rc=0 tval= 459571722.000007 delta_t=10.000 startSt=Deact endSt=Deact min_dur=1800 act_dur=0 "
              "backoff=0 next_chk=0 port=443 rqpct=1.000(50.000) refusalpct=4.500(10.000) estab=10.000(100.000) "
              "scanmb=0.250(8.000) frepct=50.000(20.000) delta_t=10.000(60.000)");
}

TEST_F(FailOpen, TheLongLineOfATransition) {
    Overload(true);
    ASSERT_EQ(CheckAt(0), kFailOpen);
    EXPECT_EQ(TakeLongLine(),
              "SysHealth: rc=1 tval= 459571712.000000 delta_t=0.000 startSt=Deact endSt=Act min_dur=1800 act_dur=0 "
              "backoff=0 next_chk=0 port=0 rqpct=51.000(50.000)" +
                  std::string(kLineOfDisabledMetrics) + " frepct=0.000(0.000) delta_t=0.000(60.000)");
}

TEST_F(FailOpen, TheLongLineInTheBackoff) {
    Overload(true);
    ASSERT_EQ(CheckAt(0), kFailOpen);
    ASSERT_EQ(CheckAt(10, "Activated"), kFailOpen);
    ASSERT_EQ(CheckAt(10 + 125.5, "Activated"), kFailOpen);
    EXPECT_EQ(TakeLongLine(),
              "SysHealth: rc=1 tval= 459571847.500000 delta_t=125.500 startSt=Act endSt=Act min_dur=1800 act_dur=135 "
              "backoff=30 next_chk=28 port=0 rqpct=51.000(50.000)" +
                  std::string(kLineOfDisabledMetrics) + " frepct=0.000(0.000) delta_t=125.500(60.000)");
}

TEST_F(FailOpen, TheLongLineOfAFailedRecoveryCheck) {
    WriteConfig(kRunQueue + kInterval + "SYSTEM_RECOVERY_FACTOR=75\n");
    Overload(true);
    ASSERT_EQ(CheckAt(0), kFailOpen);
    ASSERT_EQ(CheckAt(10, "Activated"), kFailOpen);
    ASSERT_EQ(CheckActivatedAt(10 + 1800), kFailOpen);
    EXPECT_EQ(TakeLongLine(),
              "SysHealth: rc=1 tval= 459573522.000000 delta_t=30.000 startSt=Act endSt=Act min_dur=1800 act_dur=1810 "
              "backoff=60 next_chk=60 port=0 rqpct=51.000(37.500)" +
                  std::string(kLineOfDisabledMetrics) + " frepct=0.000(0.000) delta_t=30.000(45.000)");
}

TEST_F(FailOpen, TheLongLineOfARecovery) {
    WriteConfig(kRunQueue + kFreeMemory + "SYSTEM_RECOVERY_FACTOR=80\nSYSTEM_MIN_ACT_DURATION=2\n");
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    ASSERT_EQ(CheckActivatedAt(120), kNormal);
    EXPECT_EQ(TakeLongLine(),
              "SysHealth: rc=0 tval= 459571832.000000 delta_t=30.000 startSt=Act endSt=Deact min_dur=120 "
              "act_dur=13344473720 backoff=0 next_chk=0 port=0 rqpct=1.000(40.000)" +
                  std::string(kLineOfDisabledMetrics) + " frepct=50.000(25.000) delta_t=30.000(36.000)");
}

TEST_F(FailOpen, ARecoveryForgetsTheTimeOfActivation) {
    Overload(true);
    ASSERT_EQ(CheckAt(0), kFailOpen);
    ASSERT_EQ(CheckAt(1, "Activated"), kFailOpen);
    Overload(false);
    ASSERT_EQ(CheckActivatedAt(1801), kNormal);
    ASSERT_EQ(CheckAt(1802, "Activated"), kFailOpen);
    EXPECT_EQ(FieldOf(TakeLongLine(), "act_dur"), std::to_string(13344473600 + 1802));
}

TEST_F(FailOpen, TheLongLineNeedsTheVerboseFlag) {
    wxLog::SetVerbose(false);
    ASSERT_EQ(Check(), kNormal);
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(FailOpen, TheLongLineNeedsItsLogLevel) {
    const wxLogLevel before = wxLog::GetLogLevel();
    wxLog::SetLogLevel(wxLOG_Info - 1);
    EXPECT_EQ(Check(), kNormal);
    const std::vector<LogLine> withoutLevel = log.Take();
    wxLog::SetLogLevel(wxLOG_Info);
    EXPECT_EQ(Check(), kNormal);
    const std::vector<LogLine> withLevel = log.Take();
    wxLog::SetLogLevel(before);
    EXPECT_TRUE(withoutLevel.empty());
    EXPECT_EQ(withLevel.size(), 1u);
}

TEST_F(FailOpen, IterationsThatDecideNothingWriteNoLongLine) {
    EXPECT_EQ(Check("bad"), kBadArgument);
    EXPECT_EQ(TakeLongLine(), "");
    machine().processorCount = 0;
    EXPECT_EQ(Check(), kCollectFailed);
    EXPECT_EQ(TakeLongLine(), "");
    machine().processorCount = 4;
    const auto plan = simulation().GetFaults().FailNth("GlobalMemoryStatusEx", 1, ERROR_GEN_FAILURE);
    EXPECT_EQ(Check(), kMemoryFailed);
    EXPECT_EQ(TakeLongLine(), "");
    RemoveConfig();
    EXPECT_EQ(Check(), kDisabled);
    EXPECT_EQ(TakeLongLine(), "");
}

}  // namespace
