// The configuration file: which lines count, and what happens to the others.

#include <cerrno>

#include "ConfigurationFixture.h"
#include "LocaleScope.h"
#include "TracedPlaces.h"

namespace {

using Lines = std::vector<std::string>;

class ConfigurationFile : public ConfigurationFixture {
protected:
    static constexpr std::size_t kReadAtOnce = 1023;  ///< The number of characters of a line that are read at once.

    Simulator::FaultPlanHandle FailOpening(unsigned nth) {
        return simulation().GetFaults().FailNthOf({"fopen", "_wfopen", "fopen_s", "_wfopen_s"}, nth, EACCES);
    }
};

std::string AllSettings() {
    return "SYSTEM_DISABLE_FAIL_OPEN=0.5\nSYSTEM_UNLOAD_DRIVER=0.25\nSYSTEM_MAX_ITERATION_INTERVAL=59\n"
           "SYSTEM_MIN_FREE_MEM_PCT=12.5\nSYSTEM_TOTAL_SCAN_MBYTES_PER_CPU=99999\n"
           "SYSTEM_CONNECTION_ESTABLISHED_PER_CPU=10000000\nSYSTEM_RUNQ_PCT_THRESHOLD=50\n"
           "SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD=10\nSYSTEM_MAX_ACT_DURATION=200\nSYSTEM_MIN_ACT_DURATION=20\n"
           "SYSTEM_RECOVERY_FACTOR=80\nSYSTEM_CONNECTION_REFUSAL_OUTBOUND=1\nSYSTEM_CONNECTION_REFUSAL_PORT=8080\n";
}

constexpr char kAllWritten[] =
    "{\r\n"
    "\t\"SYS_CONF_CONN_REFUSAL_PORT\":\t8080,\r\n"
    "\t\"SYS_CONF_CONN_REFUSAL_OUTBOUND\":\t1,\r\n"
    "\t\"SYS_CONF_RECOVER_FACTOR\":\t80,\r\n"
    "\t\"SYS_CONF_MIN_ACT_DURATION\":\t20,\r\n"
    "\t\"SYS_CONF_MAX_ACT_DURATION\":\t200,\r\n"
    "\t\"SYS_THR_CONN_REFUSAL_PCT\":\t{\r\n\t\t\"value\":\t10\r\n\t},\r\n"
    "\t\"SYS_THR_RUNQ\":\t{\r\n\t\t\"value\":\t50\r\n\t},\r\n"
    "\t\"SYS_THR_CONN_EST_PER_CPU\":\t{\r\n\t\t\"value\":\t10000000\r\n\t},\r\n"
    "\t\"SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU\":\t{\r\n\t\t\"value\":\t99999\r\n\t},\r\n"
    "\t\"SYS_THR_FREE_MEM\":\t{\r\n\t\t\"value\":\t12.5\r\n\t},\r\n"
    "\t\"SYS_THR_MAX_ITERATION_INVL\":\t{\r\n\t\t\"value\":\t59\r\n\t},\r\n"
    "\t\"SYS_CONF_UNLOAD_DRIVER\":\t0.25,\r\n"
    "\t\"SYS_CONF_DISABLE_FAIL_OPEN\":\t0.5\r\n"
    "}\r\n";

// ---- The file as a whole

TEST_F(ConfigurationFile, AMissingFileDisablesSilentlyAndKeepsTheUnloadFlag) {
    for (const bool flag : {true, false}) {
        dom.Set(kUnloadFlag, flag);
        const Heard heard = Iterate("Deactivated", "");
        EXPECT_EQ(heard.action, kDisabled);
        EXPECT_FALSE(heard.count);
        EXPECT_EQ(heard.configuration, Lines());
        EXPECT_EQ(heard.errors, Lines());
        EXPECT_EQ(Flag(kUnloadFlag), flag ? "true" : "false");
        EXPECT_EQ(WrittenJson(), kNothingWritten);
    }
}

TEST_F(ConfigurationFile, AMissingFileDoesNotSetTheUnloadFlag) {
    (void)Iterate("Deactivated", "");
    EXPECT_EQ(Flag(kUnloadFlag), "unset");
}

TEST_F(ConfigurationFile, AFileThatCannotBeOpenedCountsAsMissing) {
    (void)ReadFile("SYSTEM_UNLOAD_DRIVER=1\nSYSTEM_RUNQ_PCT_THRESHOLD=50\n");
    const auto fault = FailOpening(1);
    const Heard heard = Iterate("Deactivated", "");
    EXPECT_TRUE(fault->Hit());
    EXPECT_EQ(heard.action, kDisabled);
    EXPECT_FALSE(heard.count);
    EXPECT_EQ(heard.configuration, Lines());
    EXPECT_EQ(heard.errors, Lines());
    EXPECT_EQ(Flag(kUnloadFlag), "true") << "as the file that could be read left it";
    EXPECT_EQ(WrittenJson(), kNothingWritten) << "the settings of the earlier file are gone";
}

TEST_F(ConfigurationFile, ASettingRemovedFromTheFileIsNoLongerInForce) {
    EXPECT_EQ(ReadFile("SYSTEM_RUNQ_PCT_THRESHOLD=50\nSYSTEM_UNLOAD_DRIVER=1\n").count, 2);
    EXPECT_EQ(Flag(kUnloadFlag), "true");
    EXPECT_EQ(ReadFile("SYSTEM_MIN_FREE_MEM_PCT=5\n").count, 1);
    EXPECT_EQ(WrittenKeys(), Lines{"SYS_THR_FREE_MEM"});
    EXPECT_EQ(Flag(kUnloadFlag), "false");
}

TEST_F(ConfigurationFile, AFileWithoutAKnownLineDisablesAndClearsTheUnloadFlag) {
    for (const char *text : {"", "\n\n", "[section]\n# SYSTEM_RUNQ_PCT_THRESHOLD=50\nSYSTEM_OTHER=1\n",
                             "\xEF\xBB\xBFSYSTEM_RUNQ_PCT_THRESHOLD=50\n"}) {
        SCOPED_TRACE(testing::PrintToString(text));
        dom.Set(kUnloadFlag, true);
        const Heard heard = ReadFile(text);
        EXPECT_EQ(heard.action, kDisabled);
        EXPECT_FALSE(heard.count);
        EXPECT_EQ(heard.configuration, Lines());
        EXPECT_EQ(heard.errors, Lines());
        EXPECT_EQ(Flag(kUnloadFlag), "false");
        EXPECT_EQ(WrittenJson(), kNothingWritten);
    }
}

TEST_F(ConfigurationFile, IsWrittenInTheOrderOfTheSettingsWhateverItsOwnOrder) {
    const Heard heard = ReadFile(AllSettings());
    EXPECT_EQ(heard.action, kNormal);
    EXPECT_EQ(heard.count, 13);
    EXPECT_EQ(heard.errors, Lines());
    EXPECT_EQ(WrittenJson(), kAllWritten);
}

TEST_F(ConfigurationFile, TheCountIsTracedByItsReader) {
    const Heard heard = ReadFile("SYSTEM_RUNQ_PCT_THRESHOLD=50\n");
    EXPECT_EQ(heard.count, 1);
    ExpectTraced(heard.traces, {{"readSystemHealthConfig returning", "readSystemHealthConfig", "HealthConfig.cpp"}});
}

TEST_F(ConfigurationFile, ItsSwitchesAreTracedByItsReader) {
    WriteConfig("SYSTEM_UNLOAD_DRIVER=1\nSYSTEM_DISABLE_FAIL_OPEN=1\n");
    (void)TakeTracedLines();
    ASSERT_EQ(Check(), kDisabled);
    ExpectTraced(TakeTracedLines(),
                 {{"Windows driver unload enabled for fail-open", "readSystemHealthConfig", "HealthConfig.cpp"},
                  {"VTA_SYSHEALTH_DISABLE_FAIL_OPEN", "readSystemHealthConfig", "HealthConfig.cpp",
                   "IsDisabledByHealthConfig("}});
}

TEST_F(ConfigurationFile, IsClosedAtTheEnd) {
    for (const char *text : {"", "SYSTEM_RUNQ_PCT_THRESHOLD=50\n", "SYSTEM_DISABLE_FAIL_OPEN=1\n"}) {
        (void)ReadFile(text);
        EXPECT_EQ(balance().Take().Count(Simulator::Kind::kFile), 0u) << text;
    }
}

// ---- Which lines are settings

TEST_F(ConfigurationFile, OnlyAKeyAtTheStartOfALineInTheRightCaseIsASetting) {
    const Heard heard = ReadFile(
        " SYSTEM_RUNQ_PCT_THRESHOLD=50\n\tSYSTEM_RUNQ_PCT_THRESHOLD=50\nsystem_runq_pct_threshold=50\n"
        "SYSTEM_RUNQ_PCT_THRESHOLD 50\nSYSTEM_RUNQ_PCT_THRESHOLD =50\nSYSTEM_RUNQ_PCT_THRESHOL=50\n"
        "x SYSTEM_RUNQ_PCT_THRESHOLD=50\nSYSTEM_RUNQ_PCT_THRESHOLD\n#SYSTEM_RUNQ_PCT_THRESHOLD=50\n");
    EXPECT_FALSE(heard.count);
    EXPECT_EQ(heard.errors, Lines());
    EXPECT_EQ(WrittenJson(), kNothingWritten);
}

TEST_F(ConfigurationFile, TextAfterANumberIsIgnored) {
    const Heard heard = ReadFile("SYSTEM_RUNQ_PCT_THRESHOLD=50 percent=60\nSYSTEM_MIN_FREE_MEM_PCT=7.5.5\n");
    EXPECT_EQ(heard.count, 2);
    EXPECT_EQ(Written("SYS_THR_RUNQ"), 50);
    EXPECT_EQ(Written("SYS_THR_FREE_MEM"), 7.5);
}

TEST_F(ConfigurationFile, NumbersMayHaveAnyFormOfTheCLibrary) {
    const Heard heard = ReadFile(
        "SYSTEM_RUNQ_PCT_THRESHOLD= \t+5e1\nSYSTEM_MIN_FREE_MEM_PCT=.5\nSYSTEM_MAX_ITERATION_INTERVAL=0x1p4\n");
    EXPECT_EQ(heard.count, 3);
    EXPECT_EQ(Written("SYS_THR_RUNQ"), 50);
    EXPECT_EQ(Written("SYS_THR_FREE_MEM"), 0.5);
    EXPECT_EQ(Written("SYS_THR_MAX_ITERATION_INVL"), 16);
}

TEST_F(ConfigurationFile, NumbersHaveSinglePrecision) {
    (void)ReadFile("SYSTEM_RUNQ_PCT_THRESHOLD=0.1\nSYSTEM_MIN_FREE_MEM_PCT=16.777217\n");
    EXPECT_NE(WrittenJson().find("0.1000000014901161"), std::string::npos) << WrittenJson();
    EXPECT_EQ(Written("SYS_THR_RUNQ"), static_cast<double>(0.1F));
    EXPECT_EQ(Written("SYS_THR_FREE_MEM"), static_cast<double>(16.777217F));
}

TEST_F(ConfigurationFile, NumbersHaveTheDecimalSeparatorOfTheLocale) {
    const LocaleScope locale("German_Germany");
    ASSERT_TRUE(locale.IsKnown());
    EXPECT_EQ(ReadFile("SYSTEM_RUNQ_PCT_THRESHOLD=0,5\nSYSTEM_RECOVERY_FACTOR=33.5\n").count, 2);
    EXPECT_NE(WrittenJson().find("\"value\":\t0.5\r\n"), std::string::npos) << WrittenJson();
    EXPECT_NE(WrittenJson().find("\"SYS_CONF_RECOVER_FACTOR\":\t33,"), std::string::npos) << WrittenJson();
}

TEST_F(ConfigurationFile, AKeyOnTwoLinesCountsTwiceAndItsLastNumberWins) {
    const Heard heard = ReadFile("SYSTEM_RUNQ_PCT_THRESHOLD=50\nSYSTEM_RUNQ_PCT_THRESHOLD=60\n");
    EXPECT_EQ(heard.count, 2);
    EXPECT_EQ(Written("SYS_THR_RUNQ"), 60);
    EXPECT_EQ(WrittenKeys(), Lines{"SYS_THR_RUNQ"});
}

TEST_F(ConfigurationFile, LinesMayEndInCrLfAndTheLastLineNeedsNoEnd) {
    const Heard heard = ReadFile("SYSTEM_RUNQ_PCT_THRESHOLD=50\r\nSYSTEM_MIN_FREE_MEM_PCT=5\r\nSYSTEM_UNLOAD_DRIVER=1");
    EXPECT_EQ(heard.count, 3);
    EXPECT_EQ(heard.errors, Lines());
}

TEST_F(ConfigurationFile, ALineEndsAtANulCharacter) {
    using namespace std::string_literals;
    const Heard heard = ReadFile(
        "SYSTEM_RUNQ_PCT_THRESHOLD=5\0"
        "0\n\0SYSTEM_UNLOAD_DRIVER=1\nSYSTEM_MIN_FREE_MEM_PCT=5\n"s);
    EXPECT_EQ(heard.count, 2);
    EXPECT_EQ(Written("SYS_THR_RUNQ"), 5);
    EXPECT_EQ(Written("SYS_THR_FREE_MEM"), 5);
}

TEST_F(ConfigurationFile, TheRestOfALongLineIsASeparateLine) {
    const std::string setting = "SYSTEM_RUNQ_PCT_THRESHOLD=50\n";
    EXPECT_EQ(ReadFile(std::string(kReadAtOnce, 'x') + setting).count, 1);
    EXPECT_EQ(ReadFile(std::string(4 * kReadAtOnce, 'x') + setting).count, 1);
    EXPECT_FALSE(ReadFile(std::string(kReadAtOnce - 1, 'x') + setting).count);
    EXPECT_FALSE(ReadFile(std::string(kReadAtOnce + 1, 'x') + setting).count);
    EXPECT_EQ(ReadFile(std::string(kReadAtOnce, 'x') + setting + setting).count, 2);
}

TEST_F(ConfigurationFile, ANumberIsTruncatedWhereTheFirstPartOfALongLineEnds) {
    std::string line = "SYSTEM_RUNQ_PCT_THRESHOLD=";
    line += std::string(kReadAtOnce - line.size() - 2, ' ') + "1234\n";
    const Heard heard = ReadFile(line);
    EXPECT_EQ(heard.count, 1);
    EXPECT_EQ(Written("SYS_THR_RUNQ"), 12);
    EXPECT_EQ(heard.errors, Lines());
}

// ---- Ranges

TEST_F(ConfigurationFile, EverySettingIsAcceptedAtItsMaximum) {
    for (const SettingNames &setting : kSettings) {
        SCOPED_TRACE(setting.key);
        const Heard heard = ReadFile(setting.line + Fixed(setting.max) + "\n");
        EXPECT_EQ(heard.RangeErrors(), Lines());
        EXPECT_EQ(Written(setting.key), setting.max);
        if (setting.key != "SYS_CONF_DISABLE_FAIL_OPEN") {
            EXPECT_EQ(heard.count, 1);
        }
    }
}

TEST_F(ConfigurationFile, ValuesAboveAMaximumAreRejected) {
    for (const SettingNames &setting : kSettings) {
        for (const std::string &number :
             {Fixed(setting.max * 1.001), std::string("1e30"), std::string("1e999"), std::string("inf"),
              std::string("99999999999999999999999999999999999999999")}) {
            SCOPED_TRACE(setting.line + number);
            const Heard heard = ReadFile(setting.line + number + "\n");
            EXPECT_EQ(heard.errors, Lines{OutOfRange(setting, 0)});
            EXPECT_FALSE(heard.count);
            EXPECT_EQ(WrittenJson(), kNothingWritten);
        }
    }
}

TEST_F(ConfigurationFile, ZeroNegativeValuesAndTextsAreRejected) {
    for (const SettingNames &setting : kSettings) {
        for (const std::string number : {"0", "0.0", "-0", "-1", "-1e-30", "-inf", "nan", "", "yes", " ", "=1"}) {
            SCOPED_TRACE(setting.line + number);
            const Heard heard = ReadFile(setting.line + number + "\n");
            EXPECT_EQ(heard.errors, Lines{OutOfRange(setting, 0)});
            EXPECT_FALSE(heard.count);
            EXPECT_EQ(WrittenJson(), kNothingWritten);
        }
    }
}

TEST_F(ConfigurationFile, AnOutOfRangeLineIsLoggedAsAnErrorAndNotTraced) {
    WriteConfig("SYSTEM_DISABLE_FAIL_OPEN=0\n");
    (void)log.Take();
    (void)TakeTracedLines();
    EXPECT_EQ(Check(), kDisabled);
    std::vector<LogLine> lines = log.Take();
    std::erase_if(lines, [](const LogLine &line) { return !line.text.starts_with("value "); });
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, wxLOG_Error);
    EXPECT_EQ(lines[0].text, "value 0.000000 for  SYSTEM_DISABLE_FAIL_OPEN= is out of range, max= 1.000000");
    EXPECT_EQ(TakeTracedMessages("SysHealth.conf"), Lines());
}

TEST_F(ConfigurationFile, TheRunQueueThresholdIsAcceptedAt200AndRejectedAt200Point1) {
    EXPECT_EQ(ReadFile("SYSTEM_RUNQ_PCT_THRESHOLD=200\n").count, 1);
    EXPECT_EQ(Written("SYS_THR_RUNQ"), 200);
    const Heard heard = ReadFile("SYSTEM_RUNQ_PCT_THRESHOLD=200.1\n");
    EXPECT_FALSE(heard.count);
    EXPECT_EQ(heard.errors, Lines{"value 0.000000 for  SYSTEM_RUNQ_PCT_THRESHOLD= is out of range, max= 200.000000"});
}

TEST_F(ConfigurationFile, ZeroDoesNotDisableASetting) {
    const Heard heard = ReadFile(
        "SYSTEM_CONNECTION_REFUSAL_OUTBOUND=1\nSYSTEM_CONNECTION_REFUSAL_OUTBOUND=0\n"
        "SYSTEM_UNLOAD_DRIVER=1\nSYSTEM_UNLOAD_DRIVER=0\n");
    EXPECT_EQ(heard.count, 2);
    EXPECT_EQ(Written("SYS_CONF_CONN_REFUSAL_OUTBOUND"), 1);
    EXPECT_EQ(Flag(kUnloadFlag), "true");
    EXPECT_EQ(heard.errors, (Lines{OutOfRange(SettingOf("SYS_CONF_CONN_REFUSAL_OUTBOUND"), 1),
                                   OutOfRange(SettingOf("SYS_CONF_UNLOAD_DRIVER"), 1)}));
}

TEST_F(ConfigurationFile, AnOutOfRangeLineReportsAndKeepsTheNumberOfTheValidLineBefore) {
    const Heard heard = ReadFile("SYSTEM_RUNQ_PCT_THRESHOLD=50.5\nSYSTEM_RUNQ_PCT_THRESHOLD=201\n");
    EXPECT_EQ(heard.count, 1);
    EXPECT_EQ(heard.errors, Lines{"value 50.500000 for  SYSTEM_RUNQ_PCT_THRESHOLD= is out of range, max= 200.000000"});
    EXPECT_EQ(Written("SYS_THR_RUNQ"), 50.5);
}

TEST_F(ConfigurationFile, AMinimumAboveTheMaximumIsAccepted) {
    const Heard heard = ReadFile("SYSTEM_MIN_ACT_DURATION=30\nSYSTEM_MAX_ACT_DURATION=10\n");
    EXPECT_EQ(heard.count, 2);
    EXPECT_EQ(heard.configuration, Lines());
    EXPECT_EQ(Written("SYS_CONF_MIN_ACT_DURATION"), 30);
    EXPECT_EQ(Written("SYS_CONF_MAX_ACT_DURATION"), 10);
}

// ---- The two switches

TEST_F(ConfigurationFile, TheUnloadSwitchDoesNotTurnTheSubsystemOff) {
    const Heard heard = ReadFile("SYSTEM_UNLOAD_DRIVER=1\n");
    EXPECT_EQ(heard.action, kNormal);
    EXPECT_EQ(heard.count, 1);
    EXPECT_EQ(heard.configuration, Lines{"Windows driver unload enabled for fail-open"});
    EXPECT_EQ(Flag(kUnloadFlag), "true");
    EXPECT_EQ(lua.Eval("f.GetSysHealthEnabled()"), "true");
}

TEST_F(ConfigurationFile, SwitchesTakeEffectOnlyAtExactlyOne) {
    dom.Set(kUnloadFlag, true);
    const Heard heard = ReadFile("SYSTEM_DISABLE_FAIL_OPEN=0.5\nSYSTEM_UNLOAD_DRIVER=0.999\n");
    EXPECT_EQ(heard.action, kNormal);
    EXPECT_EQ(heard.count, 2);
    EXPECT_EQ(heard.configuration, Lines());
    EXPECT_EQ(Flag(kUnloadFlag), "false");
    EXPECT_EQ(lua.Eval("f.GetSysHealthEnabled()"), "true");
}

TEST_F(ConfigurationFile, TheDisablingSwitchDisablesWhateverElseTheFileContains) {
    const Heard heard = ReadFile(AllSettings() + "SYSTEM_DISABLE_FAIL_OPEN=1\nSYSTEM_UNLOAD_DRIVER=1\n");
    EXPECT_EQ(heard.action, kDisabled);
    EXPECT_FALSE(heard.count);
    EXPECT_EQ(heard.configuration,
              (Lines{"Windows driver unload enabled for fail-open", "VTA_SYSHEALTH_DISABLE_FAIL_OPEN  return 0"}));
    EXPECT_EQ(Flag(kUnloadFlag), "true");
    EXPECT_EQ(lua.Eval("f.GetSysHealthEnabled()"), "false");
    EXPECT_EQ(WrittenKeys().size(), 13u);
}

// ---- In fail-open

TEST_F(ConfigurationFile, InFailOpenTheDriverMetricsAreOffButCounted) {
    const Heard heard = ReadFile(AllSettings(), "Activated");
    EXPECT_EQ(heard.count, 13);
    EXPECT_EQ(WrittenKeys(),
              (Lines{"SYS_CONF_CONN_REFUSAL_PORT", "SYS_CONF_CONN_REFUSAL_OUTBOUND", "SYS_CONF_RECOVER_FACTOR",
                     "SYS_CONF_MIN_ACT_DURATION", "SYS_CONF_MAX_ACT_DURATION", "SYS_THR_RUNQ", "SYS_THR_FREE_MEM",
                     "SYS_THR_MAX_ITERATION_INVL", "SYS_CONF_UNLOAD_DRIVER", "SYS_CONF_DISABLE_FAIL_OPEN"}));
}

TEST_F(ConfigurationFile, InFailOpenADriverMetricNeedsNoPort) {
    const Heard heard = ReadFile("SYSTEM_TOTAL_SCAN_MBYTES_PER_CPU=8\n", "Activated");
    EXPECT_EQ(heard.action, kFailOpen);
    EXPECT_EQ(heard.count, 1);
    EXPECT_EQ(heard.errors, Lines());
    EXPECT_EQ(WrittenJson(), kNothingWritten);
}

TEST_F(ConfigurationFile, TheDisablingSwitchKeepsTheDriverMetricsOnInFailOpen) {
    const Heard heard = ReadFile(AllSettings() + "SYSTEM_DISABLE_FAIL_OPEN=1\n", "Activated");
    EXPECT_EQ(heard.action, kDisabled);
    EXPECT_EQ(WrittenKeys().size(), 13u);
    EXPECT_EQ(Written("SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU"), 99999);
}

}  // namespace
