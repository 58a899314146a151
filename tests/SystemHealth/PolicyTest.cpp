// The policy that the agent passes.

#include <algorithm>
#include <array>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "LocaleScope.h"
#include "PolicyFixture.h"
#include "TracedPlaces.h"
#include "vta_core_control.h"

namespace {

std::string Stored(const std::string &key, double number) {
    return "stored " + SettingOf(key).line + "  " + Fixed(number);
}

// ---- What is accepted

TEST_F(Policy, AllSettingsAreReadInOrderAndWritten) {
    const Heard heard = ReadPolicy(AllMembers());
    EXPECT_EQ(heard.action, kNormal);
    EXPECT_EQ(heard.count, 13);
    Messages expected;
    for (std::size_t i = 0; i < kSettings.size(); ++i)
        expected.push_back(Stored(kSettings[i].key, i < 11 ? kSettings[i].max / 2 : 0.5));
    EXPECT_EQ(heard.configuration, expected);
    EXPECT_EQ(heard.EngineLines(" value"), Messages());
    EXPECT_EQ(WrittenJson(), kAllMembersWritten);
}

TEST_F(Policy, TheCountIsTracedByItsReader) {
    const Heard heard = ReadPolicy(kGood);
    EXPECT_EQ(heard.count, 1);
    ExpectTraced(heard.traces, {{"readSystemHealthConfig returning", "readSystemHealthPolicy", "HealthPolicy.cpp"}});
}

TEST_F(Policy, TracesNameTheReaderAndTheirOwnLines) {
    (void)TakeTracedLines();
    ASSERT_EQ(Check("Deactivated", R"({"SYS_CONF_CONN_REFUSAL_PORT": 65536, "SYS_CONF_MIN_ACT_DURATION": 0,
        "SYS_THR_RUNQ": {"value": 50}, "SYS_THR_FREE_MEM": {"value": 26}, "SYS_CONF_UNLOAD_DRIVER": 1,
        "SYS_CONF_DISABLE_FAIL_OPEN": 1})"),
              kDisabled);
    const std::vector<TracedLine> lines = TakeTracedLines();
    ExpectTraced(lines,
                 {{"stored ", "readSystemHealthPolicy", "HealthPolicy.cpp", "StoreValue("},
                  {" value out of boundary", "readSystemHealthPolicy", "HealthPolicy.cpp", "TraceOutOfBoundary("},
                  {"min_dur(0.000000) <= 0", "invalidateConfig", "HealthConfig.cpp", "invalidating to use default"},
                  {"Windows driver unload enabled", "readSystemHealthPolicy", "HealthPolicy.cpp"},
                  {"VTA_SYSHEALTH_DISABLE_FAIL_OPEN", "readSystemHealthPolicy", "HealthPolicy.cpp",
                   "IsDisabledByHealthConfig("}});
    std::set<int> places;
    for (const TracedLine &line : lines)
        if (line.file == "HealthPolicy.cpp")
            places.insert(line.line);
    EXPECT_EQ(places.size(), 6U) << "numbers and thresholds have lines of their own";
}

TEST_F(Policy, ReplacesTheFile) {
    WriteConfig("SYSTEM_MIN_FREE_MEM_PCT=5\nSYSTEM_DISABLE_FAIL_OPEN=1\n");
    EXPECT_EQ(ReadPolicy(kGood).action, kNormal);
    EXPECT_EQ(WrittenKeys(), Messages{"SYS_THR_RUNQ"});
    EXPECT_EQ(ReadPolicy("").action, kDisabled);
    EXPECT_EQ(WrittenKeys(), (Messages{"SYS_THR_FREE_MEM", "SYS_CONF_DISABLE_FAIL_OPEN"}));
}

TEST_F(Policy, ASettingRemovedFromThePolicyIsNoLongerInForce) {
    EXPECT_EQ(ReadPolicy(AllMembers()).count, 13);
    EXPECT_EQ(ReadPolicy(kGood).count, 1);
    EXPECT_EQ(WrittenJson(), kGoodWritten);
}

TEST_F(Policy, KeysAreCaseInsensitive) {
    const Heard heard = ReadPolicy(R"({"sys_thr_runq": {"VaLuE": 50}, "Sys_Conf_Recover_Factor": 80})");
    EXPECT_EQ(heard.count, 2);
    EXPECT_EQ(heard.configuration, (Messages{Stored("SYS_CONF_RECOVER_FACTOR", 80), Stored("SYS_THR_RUNQ", 50)}));
    EXPECT_EQ(WrittenKeys(), (Messages{"SYS_CONF_RECOVER_FACTOR", "SYS_THR_RUNQ"}));
}

TEST_F(Policy, OfTwoMembersWithTheSameNameTheFirstCounts) {
    const Heard heard =
        ReadPolicy(R"({"sys_thr_runq": {"value": 50, "VALUE": 51}, "SYS_THR_RUNQ": {"value": 60}, "SYS_THR_RUNQ": 1})");
    EXPECT_EQ(heard.count, 1);
    EXPECT_EQ(WrittenJson(), kGoodWritten);
}

TEST_F(Policy, NumbersHaveDoublePrecision) {
    (void)ReadPolicy(R"({"SYS_THR_RUNQ": {"value": 0.1}, "SYS_CONF_RECOVER_FACTOR": 33.333333333333336})");
    EXPECT_EQ(Written("SYS_THR_RUNQ"), 0.1);
    EXPECT_EQ(Written("SYS_CONF_RECOVER_FACTOR"), 33.333333333333336);
    EXPECT_NE(WrittenJson().find("\t0.1\r\n"), std::string::npos) << WrittenJson();
}

TEST_F(Policy, TextAfterTheObjectAndSpacesBeforeItAreAllowed) {
    EXPECT_EQ(ReadPolicy(std::string(" \r\n\t") + kGood + " and more } %s").count, 1);
    EXPECT_EQ(WrittenJson(), kGoodWritten);
}

TEST_F(Policy, TheTextEndsAtANulCharacter) {
    using namespace std::string_literals;
    EXPECT_EQ(ReadPolicy(kGood + "\0{{{"s).count, 1);
    EXPECT_EQ(WrittenJson(), kGoodWritten);
    ExpectParseError("{\"SYS_THR_RUNQ\": \0{\"value\": 50}}"s);
    ExpectParseError("\0"s + kGood);
}

// ---- Types

TEST_F(Policy, AThresholdThatIsNotAnObjectWithANumberIsSkippedSilently) {
    for (const std::string threshold : {"50", "\"50\"", "null", "true", "[50]", "[{\"value\": 50}]", "{}",
                                        "{\"value\": \"50\"}", "{\"value\": null}", "{\"value\": {\"value\": 50}}",
                                        "{\"value\": true}", "{\"values\": 50}", "{\"value\": \"\", \"value\": 50}"}) {
        SCOPED_TRACE(threshold);
        ExpectNothingInIt("{\"SYS_THR_RUNQ\": " + threshold + "}");
    }
}

TEST_F(Policy, AValueThatIsNotANumberIsStoredAsZeroAndCounted) {
    for (const std::string item : {"{\"value\": 80}", "\"80\"", "null", "true", "false", "[80]"}) {
        SCOPED_TRACE(item);
        const Heard heard = ReadPolicy("{\"SYS_CONF_RECOVER_FACTOR\": " + item + "}");
        EXPECT_EQ(heard.action, kNormal);
        EXPECT_EQ(heard.count, 1);
        EXPECT_EQ(heard.configuration, Messages{Stored("SYS_CONF_RECOVER_FACTOR", 0)});
        EXPECT_EQ(Written("SYS_CONF_RECOVER_FACTOR"), 0);
    }
}

TEST_F(Policy, OtherMembersOfAThresholdAreIgnored) {
    EXPECT_EQ(ReadPolicy(R"({"SYS_THR_RUNQ": {"unit": "%", "value": 50, "x": [{}]}})").count, 1);
    EXPECT_EQ(WrittenJson(), kGoodWritten);
}

TEST_F(Policy, APolicyWithoutAKnownMemberDisablesAndClearsTheUnloadFlag) {
    for (const std::string policy :
         {"{}", "[]", "[1, {\"SYS_THR_RUNQ\": {\"value\": 50}}]", "5", "null", "\"SYS_THR_RUNQ\"", "{\"value\": 50}",
          "{\"policy\": {\"SYS_THR_RUNQ\": {\"value\": 50}}}", "{\"SYS_THR_RUNQ \": {\"value\": 50}}"}) {
        SCOPED_TRACE(policy);
        dom.Set(kUnloadFlag, true);
        ExpectNothingInIt(policy);
        EXPECT_EQ(Flag(kUnloadFlag), "false");
    }
}

// ---- Ranges

TEST_F(Policy, EverySettingIsAcceptedAtItsMaximum) {
    for (const SettingNames &setting : kSettings) {
        SCOPED_TRACE(setting.key);
        const Heard heard = ReadPolicy(PolicyOf(setting, Fixed(setting.max)));
        ASSERT_FALSE(heard.configuration.empty());
        EXPECT_EQ(heard.configuration.front(), Stored(setting.key, setting.max));
        EXPECT_EQ(Written(setting.key), setting.max);
        if (setting.key != "SYS_CONF_DISABLE_FAIL_OPEN") {
            EXPECT_EQ(heard.count, 1);
        }
    }
}

TEST_F(Policy, ValuesAboveAMaximumOrBelowZeroAreRejected) {
    for (const SettingNames &setting : kSettings) {
        for (const std::string &number : {Fixed(setting.max + 0.001), std::string("1e308"), std::string("1e999"),
                                          std::string("-0.001"), std::string("-1e999")}) {
            SCOPED_TRACE(setting.key + " " + number);
            const Heard heard = ReadPolicy(PolicyOf(setting, number));
            EXPECT_EQ(heard.EngineLines(" value out of boundary [").size(), 1u);
            EXPECT_EQ(heard.configuration, Messages());
            EXPECT_FALSE(heard.count);
            EXPECT_EQ(heard.errors, Messages());
            EXPECT_EQ(WrittenJson(), kNothingWritten);
        }
    }
}

TEST_F(Policy, ZeroIsOutOfBoundaryForAThresholdAndStoredForANumber) {
    for (const SettingNames &setting : kSettings) {
        SCOPED_TRACE(setting.key);
        const Heard heard = ReadPolicy(PolicyOf(setting, "0"));
        EXPECT_EQ(heard.EngineLines(" value out of boundary [").size(), setting.isThreshold ? 1u : 0u);
        if (setting.isThreshold) {
            EXPECT_EQ(heard.configuration, Messages());
        } else if (setting.key.find("_DURATION") == std::string::npos) {
            EXPECT_EQ(heard.count, 1);
        }
    }
}

TEST_F(Policy, FreeMemoryIsAcceptedAt25AndRejectedAt26) {
    EXPECT_EQ(ReadPolicy(R"({"SYS_THR_FREE_MEM": {"value": 25}})").count, 1);
    const Heard heard = ReadPolicy(R"({"SYS_THR_FREE_MEM": {"value": 26}})");
    EXPECT_EQ(heard.action, kDisabled);
    EXPECT_EQ(heard.EngineLines(" value"), Messages{" value out of boundary [26.000000]"});
}

TEST_F(Policy, ANumberOutOfBoundaryDoesNotStopTheOthersAndItsTraceShowsTheLastThreshold) {
    const Heard heard = ReadPolicy(
        R"({"SYS_CONF_CONN_REFUSAL_PORT": 65536, "SYS_CONF_RECOVER_FACTOR": 80, "SYS_THR_RUNQ": {"value": 50},
            "SYS_CONF_UNLOAD_DRIVER": 2, "SYS_CONF_DISABLE_FAIL_OPEN": 0})");
    EXPECT_EQ(heard.action, kNormal);
    EXPECT_EQ(heard.count, 3);
    const Messages lines = heard.EngineLines(" value out of boundary [");
    EXPECT_EQ(lines, (Messages{" value out of boundary [0.000000]", " value out of boundary [50.000000]"}));
    EXPECT_EQ(WrittenKeys(), (Messages{"SYS_CONF_RECOVER_FACTOR", "SYS_THR_RUNQ", "SYS_CONF_DISABLE_FAIL_OPEN"}));
}

TEST_F(Policy, TheTraceOfANumberOutOfBoundaryShowsTheLastThresholdEvenIfThatIsNoNumber) {
    const Heard heard = ReadPolicy(
        R"({"SYS_THR_RUNQ": {"value": 50}, "SYS_THR_FREE_MEM": {"value": "5"}, "SYS_CONF_UNLOAD_DRIVER": 2})");
    EXPECT_EQ(heard.count, 1);
    EXPECT_EQ(heard.EngineLines(" value out of boundary ["), Messages{" value out of boundary [0.000000]"});
}

TEST_F(Policy, PortZeroIsMonitored) {
    EXPECT_EQ(ReadPolicy(R"({"SYS_CONF_CONN_REFUSAL_PORT": 0, "SYS_THR_CONN_REFUSAL_PCT": {"value": 10}})").count, 2);
    const std::lock_guard lock(Vti::Lock());
    ASSERT_EQ(driver().monitorRequest.size(), sizeof(ScanMonitorRequest));
    std::vector<std::uint8_t> expected(sizeof(ScanMonitorRequest));
    expected[0] = 1;
    expected[offsetof(ScanMonitorRequest, inbound_ports)] = 1;
    EXPECT_EQ(driver().monitorRequest, expected);
}

// ---- The two durations

TEST_F(Policy, ADurationOfZeroIsStoredAndThenReset) {
    const Heard minimum = ReadPolicy(R"({"SYS_CONF_MIN_ACT_DURATION": 0})");
    EXPECT_EQ(minimum.action, kDisabled);
    EXPECT_FALSE(minimum.count);
    EXPECT_EQ(minimum.configuration, (Messages{Stored("SYS_CONF_MIN_ACT_DURATION", 0),
                                               "min_dur(0.000000) <= 0, invalidating to use default"}));
    const Heard maximum = ReadPolicy(R"({"SYS_CONF_MAX_ACT_DURATION": 0, "SYS_THR_RUNQ": {"value": 50}})");
    EXPECT_EQ(maximum.count, 1);
    EXPECT_EQ(maximum.configuration, (Messages{Stored("SYS_CONF_MAX_ACT_DURATION", 0), Stored("SYS_THR_RUNQ", 50),
                                               "max_dur(0.000000) <= 0, invalidating to use default"}));
    EXPECT_EQ(WrittenJson(), kGoodWritten);
}

TEST_F(Policy, AMinimumOfZeroIsCountedOnceAndSubtractedOnce) {
    const Heard heard = ReadPolicy(R"({"SYS_CONF_MIN_ACT_DURATION": 0, "SYS_THR_RUNQ": {"value": 50}})");
    EXPECT_EQ(heard.action, kNormal);
    EXPECT_EQ(heard.count, 1);
    EXPECT_EQ(heard.configuration, (Messages{Stored("SYS_CONF_MIN_ACT_DURATION", 0), Stored("SYS_THR_RUNQ", 50),
                                             "min_dur(0.000000) <= 0, invalidating to use default"}));
    EXPECT_EQ(WrittenJson(), kGoodWritten);
}

TEST_F(Policy, BothDurationsCanBeReset) {
    const Heard heard = ReadPolicy(R"({"SYS_CONF_MIN_ACT_DURATION": 0, "SYS_CONF_MAX_ACT_DURATION": "10"})");
    EXPECT_FALSE(heard.count);
    ASSERT_EQ(heard.configuration.size(), 4u);
    EXPECT_EQ(heard.configuration[2], "min_dur(0.000000) <= 0, invalidating to use default");
    EXPECT_EQ(heard.configuration[3], "max_dur(0.000000) <= 0, invalidating to use default");
    EXPECT_EQ(WrittenJson(), kNothingWritten);
}

TEST_F(Policy, OnlyAMaximumBelowTheMinimumIsReset) {
    const Heard heard = ReadPolicy(R"({"SYS_CONF_MIN_ACT_DURATION": 20, "SYS_CONF_MAX_ACT_DURATION": 10})");
    EXPECT_EQ(heard.count, 1);
    ASSERT_EQ(heard.configuration.size(), 3u);
    EXPECT_EQ(heard.configuration[2], "max_dur(10.000000) < min_dur(20.000000), invalidating to use default");
    EXPECT_EQ(Written("SYS_CONF_MIN_ACT_DURATION"), 20);
    EXPECT_EQ(Written("SYS_CONF_MAX_ACT_DURATION"), std::nullopt);
}

TEST_F(Policy, EqualDurationsAreAccepted) {
    const Heard heard = ReadPolicy(R"({"SYS_CONF_MIN_ACT_DURATION": 20, "SYS_CONF_MAX_ACT_DURATION": 20})");
    EXPECT_EQ(heard.count, 2);
    EXPECT_EQ(heard.configuration.size(), 2u);
}

TEST_F(Policy, AMaximumThatWasResetIs240Minutes) {
    machine().processorQueue = 5;
    dom.SettingStore("vtp.filter.SysHealthBackoffWait", "200");
    dom.SettingStore("vtp.filter.SysHealthLastRecoveryCheck", "1");
    const Heard heard = ReadPolicy(
        R"({"SYS_CONF_MIN_ACT_DURATION": 20, "SYS_CONF_MAX_ACT_DURATION": 10, "SYS_THR_RUNQ": {"value": 1}})",
        "Activated");
    EXPECT_EQ(heard.action, kFailOpen);
    EXPECT_EQ(Setting("vtp.filter.SysHealthBackoffWait"), "240");
}

// ---- The two switches

TEST_F(Policy, TheUnloadSwitchDoesNotTurnTheSubsystemOff) {
    const Heard heard = ReadPolicy(R"({"SYS_CONF_UNLOAD_DRIVER": 1})");
    EXPECT_EQ(heard.action, kNormal);
    EXPECT_EQ(heard.count, 1);
    EXPECT_EQ(heard.configuration, (Messages{Stored("SYS_CONF_UNLOAD_DRIVER", 1),
                                             "Windows driver unload enabled for fail-open (from policy)"}));
    EXPECT_EQ(Flag(kUnloadFlag), "true");
    EXPECT_EQ(lua.Eval("f.GetSysHealthEnabled()"), "true");
}

TEST_F(Policy, SwitchesTakeEffectOnlyAtExactlyOne) {
    for (const std::string number : {"0", "0.5", "0.9999999999", "\"1\""}) {
        SCOPED_TRACE(number);
        dom.Set(kUnloadFlag, true);
        const Heard heard =
            ReadPolicy("{\"SYS_CONF_UNLOAD_DRIVER\": " + number + ", \"SYS_CONF_DISABLE_FAIL_OPEN\": " + number + "}");
        EXPECT_EQ(heard.action, kNormal);
        EXPECT_EQ(heard.count, 2);
        EXPECT_EQ(heard.configuration.size(), 2u);
        EXPECT_EQ(Flag(kUnloadFlag), "false");
    }
}

TEST_F(Policy, TheDisablingSwitchDisablesWhateverElseThePolicyContains) {
    const Heard heard =
        ReadPolicy(R"({"SYS_CONF_DISABLE_FAIL_OPEN": 1, "SYS_CONF_UNLOAD_DRIVER": 1, "SYS_THR_RUNQ": {"value": 50}})");
    EXPECT_EQ(heard.action, kDisabled);
    EXPECT_FALSE(heard.count);
    EXPECT_EQ(heard.configuration, (Messages{Stored("SYS_THR_RUNQ", 50), Stored("SYS_CONF_UNLOAD_DRIVER", 1),
                                             Stored("SYS_CONF_DISABLE_FAIL_OPEN", 1),
                                             "Windows driver unload enabled for fail-open (from policy)",
                                             "VTA_SYSHEALTH_DISABLE_FAIL_OPEN  return 0"}));
    EXPECT_EQ(Flag(kUnloadFlag), "true");
    EXPECT_EQ(lua.Eval("f.GetSysHealthEnabled()"), "false");
    EXPECT_EQ(WrittenKeys().size(), 3u);
}

// ---- In fail-open

TEST_F(Policy, InFailOpenTheDriverMetricsAreOffButCounted) {
    const Heard heard = ReadPolicy(AllMembers(), "Activated");
    EXPECT_EQ(heard.count, 13);
    EXPECT_EQ(heard.configuration.size(), 13u);
    EXPECT_EQ(WrittenKeys(),
              (Messages{"SYS_CONF_CONN_REFUSAL_PORT", "SYS_CONF_CONN_REFUSAL_OUTBOUND", "SYS_CONF_RECOVER_FACTOR",
                        "SYS_CONF_MIN_ACT_DURATION", "SYS_CONF_MAX_ACT_DURATION", "SYS_THR_RUNQ", "SYS_THR_FREE_MEM",
                        "SYS_THR_MAX_ITERATION_INVL", "SYS_CONF_UNLOAD_DRIVER", "SYS_CONF_DISABLE_FAIL_OPEN"}));
}

TEST_F(Policy, TheDisablingSwitchKeepsTheDriverMetricsOnInFailOpen) {
    const Heard heard = ReadPolicy(
        R"({"SYS_CONF_DISABLE_FAIL_OPEN": 1, "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU": {"value": 8}})", "Activated");
    EXPECT_EQ(heard.action, kDisabled);
    EXPECT_EQ(WrittenKeys(), (Messages{"SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU", "SYS_CONF_DISABLE_FAIL_OPEN"}));
}

// ---- Locales

/// In the form of setlocale: language and country.
std::vector<std::string> LocaleNames() {
    std::vector<std::string> names;
    const auto add = [](wchar_t *name, DWORD, LPARAM to) -> BOOL {
        wchar_t language[128] = {};
        wchar_t country[128] = {};
        if (GetLocaleInfoEx(name, LOCALE_SENGLISHLANGUAGENAME, language, 128) > 0 &&
            GetLocaleInfoEx(name, LOCALE_SENGLISHCOUNTRYNAME, country, 128) > 1)
            reinterpret_cast<std::vector<std::string> *>(to)->push_back(
                (wxString(language) + "_" + country).utf8_string());
        return TRUE;
    };
    EnumSystemLocalesEx(add, LOCALE_WINDOWS, reinterpret_cast<LPARAM>(&names), nullptr);
    return names;
}

constexpr char kFractions[] = R"({"SYS_CONF_MIN_ACT_DURATION": 1.5e1, "SYS_CONF_RECOVER_FACTOR": 33.333333333333336,
    "SYS_THR_RUNQ": {"value": 0.5}, "SYS_THR_CONN_EST_PER_CPU": {"value": 1234567.25}, "SYS_CONF_CONN_REFUSAL_PORT": 443})";
constexpr char kFractionsWritten[] =
    "{\r\n"
    "\t\"SYS_CONF_CONN_REFUSAL_PORT\":\t443,\r\n"
    "\t\"SYS_CONF_RECOVER_FACTOR\":\t33.333333333333336,\r\n"
    "\t\"SYS_CONF_MIN_ACT_DURATION\":\t15,\r\n"
    "\t\"SYS_THR_RUNQ\":\t{\r\n\t\t\"value\":\t0.5\r\n\t},\r\n"
    "\t\"SYS_THR_CONN_EST_PER_CPU\":\t{\r\n\t\t\"value\":\t1234567.25\r\n\t}\r\n"
    "}\r\n";

TEST_F(Policy, IsTheSameWhenAScriptHasChosenADecimalComma) {
    machine().processorQueue = 5000;
    lua.Run("assert(os.setlocale('German_Germany') and ('%.1f'):format(0.5) == '0,5')");
    const Heard heard = ReadPolicy(R"({"SYS_THR_RUNQ": {"value": 0.5}})");
    lua.Run("assert(os.setlocale('C'))");
    EXPECT_EQ(heard.action, kFailOpen);
    EXPECT_EQ(heard.count, 1);
    EXPECT_EQ(WrittenJson(), "{\r\n\t\"SYS_THR_RUNQ\":\t{\r\n\t\t\"value\":\t0.5\r\n\t}\r\n}\r\n");
}

TEST_F(Policy, IsTheSameInEveryLocaleOfTheSystem) {
    int withoutPoint = 0;
    for (const std::string &name : LocaleNames()) {
        const LocaleScope locale(name.c_str());
        if (!locale.IsKnown())
            continue;
        SCOPED_TRACE(name);
        withoutPoint += std::string(std::localeconv()->decimal_point) != "." ? 1 : 0;
        RemoveWrittenJson();
        EXPECT_EQ(ReadPolicy(kFractions).count, 5);
        ASSERT_EQ(WrittenJson(), kFractionsWritten);
    }
    EXPECT_GE(withoutPoint, 20) << "most of Europe uses a comma";
}

// ---- Texts that are not JSON

TEST_F(Policy, MalformedTextLetsTheIterationContinueWithNothingSet) {
    for (const std::string policy : {" ", "{", "}", "x", "{\"SYS_THR_RUNQ\": {\"value\": 50}", "{\"SYS_THR_RUNQ\": }",
                                     "{'SYS_THR_RUNQ': 1}", "{\"a\": \"\\u12\"}", "{\"a\": \"\\ud800\"}", "[1,", "nul",
                                     "{\"a\": 1 \"b\": 2}", "\xFF\xFE{\"", "{\"a\": \"", "-"}) {
        SCOPED_TRACE(testing::PrintToString(policy));
        (void)ReadPolicy(R"({"SYS_CONF_UNLOAD_DRIVER": 1})");
        ExpectParseError(policy);
        EXPECT_EQ(Flag(kUnloadFlag), "true") << "unchanged";
    }
}

TEST_F(Policy, MalformedTextInFailOpenLeavesItInForce) {
    const Heard heard = ReadPolicy("{", "Activated");
    EXPECT_EQ(heard.action, kFailOpen);
    EXPECT_FALSE(heard.count);
    EXPECT_EQ(WrittenJson(), kNothingWritten);
}

TEST_F(Policy, AParsingErrorShowsTheTextAtItsPosition) {
    EXPECT_EQ(ReadPolicy(R"({"SYS_THR_RUNQ": x50})").EngineLines("json"), Messages{"json parsing error [x50}]"});
    EXPECT_EQ(ReadPolicy("nonsense").EngineLines("json"), Messages{"json parsing error [nonsense]"});
    EXPECT_EQ(ReadPolicy("{\"a\\").EngineLines("json"), Messages{"json parsing error [a\\]"});
}

TEST_F(Policy, AParsingErrorShowsLongTextsInFullAndPercentSignsUnchanged) {
    std::string text = "x%s%n%d%5$s%%%llu";
    while (text.size() < 2000)
        text += " %s%n 0123456789";
    EXPECT_EQ(ReadPolicy("{\"a\": " + text).EngineLines("json"), Messages{"json parsing error [" + text + "]"});
}

TEST_F(Policy, AParsingErrorIsTracedWhateverTheEncodingOfTheText) {
    for (const std::string text : {"x\xFF\xC3", "\xE4\xF6\xFC", "x\xED\xA0\x80", "x\xF5\x80\x80\x80", "x\x80"}) {
        SCOPED_TRACE(testing::PrintToString(text));
        (void)TakeTracedLines();
        EXPECT_EQ(Check("Deactivated", text), kNormal);
        const std::vector<VtaCore::Control::TraceLine> traces = VtaCore::Control::TakeTraces();
        const auto isWhole = [](const VtaCore::Control::TraceLine &line) {
            return line.message.StartsWith("json parsing error [") && line.message.EndsWith("]");
        };
        EXPECT_EQ(std::count_if(traces.begin(), traces.end(), isWhole), 1);
    }
}

// ---- Large and deep

TEST_F(Policy, ANumberThatTheCLibraryWouldTakeLongToReadIsAParsingError) {
    const std::string digits(200'000, '9');
    for (const std::string &number : {"0." + digits, digits + "e-200000", "-" + digits, "[1, 2" + digits + "]"}) {
        SCOPED_TRACE(number.substr(0, 5));
        ExpectParseError(R"({"SYS_THR_RUNQ": {"value": 50}, "OTHER": )" + number + "}");
    }
    ExpectParseError(digits);
    ExpectParseError("\xEF\xBB\xBF \x01\r\n" + digits);
}

TEST_F(Policy, ANumberIsReadAt65536CharactersAndRejectedAt65537) {
    const auto policyOf = [](std::size_t length) {
        return R"({"SYS_THR_RUNQ": {"value": 50.)" + std::string(length - 3, '0') + "}}";
    };
    EXPECT_EQ(ReadPolicy(policyOf(65'536)).count, 1);
    EXPECT_EQ(WrittenJson(), kGoodWritten);
    ExpectParseError(policyOf(65'537));
    ExpectNothingInIt(std::string(65'536, '0'));
    ExpectParseError(std::string(65'537, '0'));
}

TEST_F(Policy, NumbersOfAThousandCharactersAndStringsOfMoreDigitsAreRead) {
    const std::string digits(100'000, '9');
    const std::string zeros(1'000, '0');
    const std::string policy =
        R"({"\"\\": ["\\", "x\")" + digits + "\", \"" + digits + R"("], "SYS_THR_RUNQ": {"value": 50.)" + zeros + "}}";
    EXPECT_EQ(ReadPolicy(policy).count, 1);
    EXPECT_EQ(WrittenJson(), kGoodWritten);
}

TEST_F(Policy, ALongNumberAfterTheObjectIsIgnored) {
    const std::string digits(200'000, '9');
    for (const std::string &behind : {digits, "\n" + std::string(200'000, '-'), "]" + digits})
        EXPECT_EQ(ReadPolicy(R"({"OTHER": [{}, 1], "SYS_THR_RUNQ": {"value": 50}} )" + behind).count, 1);
    EXPECT_EQ(WrittenJson(), kGoodWritten);
}

TEST_F(Policy, ALongNumberAfterAValueThatIsNoObjectIsIgnored) {
    const std::string digits(200'000, '9');
    for (const std::string value :
         {"5", "-1e2", "null", "true", "\"a\"", "\"\\\"{\"", " \t\r\n5", "\xEF\xBB\xBF 5", "[]"}) {
        SCOPED_TRACE(value);
        dom.Set(kUnloadFlag, true);
        dom.SettingStore("vtp.filter.SysHealthBackoffWait", "120");
        ExpectNothingInIt(value + " " + digits);
        EXPECT_EQ(Flag(kUnloadFlag), "false");
        EXPECT_EQ(Setting("vtp.filter.SysHealthBackoffWait"), "0");
    }
}

TEST_F(Policy, NestingOfTenThousandIsRejected) {
    for (const std::string open : {"[", "{\"a\":", "{\"SYS_THR_RUNQ\":"}) {
        std::string policy;
        for (int i = 0; i < 10'000; ++i)
            policy += open;
        SCOPED_TRACE(open);
        ExpectParseError(policy);
    }
}

TEST_F(Policy, AcceptedNestingIsIgnored) {
    const std::string deep = std::string(900, '[') + std::string(900, ']');
    EXPECT_EQ(ReadPolicy(R"({"other": )" + deep + R"(, "SYS_THR_RUNQ": {"value": 50}})").count, 1);
    EXPECT_EQ(ReadPolicy(R"({"SYS_CONF_RECOVER_FACTOR": )" + deep + "}").count, 1);
}

TEST_F(Policy, FourMebibytesAreReadOrRejectedAsAWhole) {
    const std::string padding(std::size_t{4} << 20, 'x');
    const Heard heard = ReadPolicy(R"({"other": ")" + padding + R"(", "SYS_THR_RUNQ": {"value": 50}})");
    EXPECT_EQ(heard.count, 1);
    EXPECT_EQ(WrittenJson(), kGoodWritten);
    const Messages lines = ReadPolicy(padding).EngineLines("json parsing error [");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0] == "json parsing error [" + padding + "]") << lines[0].size() << " bytes";
}

}  // namespace
