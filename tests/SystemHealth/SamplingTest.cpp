// What an iteration queries from the platform and the driver, and the rates that it computes from the driver's totals.

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <set>

#include <pdhmsg.h>

#include "CodePage.h"
#include "IterationFixture.h"
#include "slb3_control.h"

namespace {

using namespace Health;

/// The functions that report the machine's load.
const std::set<std::string> kPlatform{
    "PdhOpenQueryW", "PdhAddCounterW", "PdhCollectQueryData", "PdhGetFormattedCounterValue",
    "PdhCloseQuery", "GetSystemInfo",  "GlobalMemoryStatusEx"};

/// Those whose failure ends an iteration.
const std::set<std::string> kFailable{"PdhOpenQueryW", "PdhAddCounterW", "PdhCollectQueryData",
                                      "PdhGetFormattedCounterValue", "GlobalMemoryStatusEx"};

class Sampling : public IterationFixture {
protected:
    /// The queries of the platform since the last call, with the sleeps.
    std::vector<std::string> TakePlatformCalls() {
        std::vector<std::string> calls;
        for (const Simulator::JournalEntry &entry : simulation().GetJournal().Take())
            if (kPlatform.contains(entry.function) || entry.function == "Sleep")
                calls.push_back(entry.function == "Sleep" ? "Sleep " + entry.arguments : entry.function);
        return calls;
    }

    /// The request that the driver received, as the one bit of it that is set.
    void ExpectMonitored(unsigned port, bool outbound) {
        std::vector<std::uint8_t> expected(16392);
        expected[0] = 1;
        expected[8 + (outbound ? 8192 : 0) + port / 32 * 4 + port % 32 / 8] = static_cast<std::uint8_t>(1 << port % 8);
        EXPECT_TRUE(driver().monitorRequest == expected) << "port " << port << ", outbound " << outbound;
    }
};

// ---- The platform

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

// ---- The driver

TEST_F(Sampling, WithoutAPortTheDriverIsNotQueried) {
    WriteConfig(kRunQueue);
    EXPECT_EQ(Check(), kNormal);
    EXPECT_TRUE(TakeDriverCalls().empty());
}

TEST_F(Sampling, TheFirstPassConfiguresTheDriverAndLaterOnesOnlyRead) {
    WriteConfig(kRunQueue + kPort);
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(TakeDriverCalls(), (std::vector<std::string>{"vti_open()", "vti_set_scan_monitoring()",
                                                           "vti_get_scan_metrics(1, 443)", "vti_close()"}));
    EXPECT_EQ(TakeTracedMessages("SysHealth.scan"),
              (std::vector<std::string>{"setting scan config 443, 0", "Collecting scan metrics"}));
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(TakeDriverCalls(),
              (std::vector<std::string>{"vti_open()", "vti_get_scan_metrics(1, 443)", "vti_close()"}));
    EXPECT_EQ(TakeTracedMessages("SysHealth.scan"), (std::vector<std::string>{"Collecting scan metrics"}));
    EXPECT_EQ(driver().openHandles, 0);
}

TEST_F(Sampling, TheDriverIsOpenedAfterThePlatformsSampleAndReadInFailOpenToo) {
    WriteConfig(kRunQueue + kPort);
    ASSERT_EQ(Check("Activated"), kFailOpen);
    EXPECT_EQ(TakeDriverCalls().size(), 4u);
}

TEST_F(Sampling, ThePortIsOneBitOfTheRequest) {
    for (const unsigned port : {1u, 7u, 31u, 32u, 443u, 8080u, 65534u, 65535u}) {
        Reload();
        lua.Run("f = SLB.filter");
        WriteConfig("SYSTEM_CONNECTION_REFUSAL_PORT=" + std::to_string(port) + "\n");
        ASSERT_EQ(Check(), kNormal);
        ExpectMonitored(port, false);
    }
}

TEST_F(Sampling, Port65535IsBit31OfTheLastWord) {
    WriteConfig("SYSTEM_CONNECTION_REFUSAL_PORT=65535\nSYSTEM_CONNECTION_REFUSAL_OUTBOUND=1\n");
    ASSERT_EQ(Check(), kNormal);
    ScanMonitorRequest request{};
    ASSERT_EQ(driver().monitorRequest.size(), sizeof request);
    std::memcpy(&request, driver().monitorRequest.data(), sizeof request);
    EXPECT_EQ(request.outbound_ports[2047], 0x80000000u);
    EXPECT_EQ(request.inbound_ports[2047], 0u);
}

TEST_F(Sampling, AnOutboundPortIsMonitoredAndReadAsOutbound) {
    WriteConfig(kPort + "SYSTEM_CONNECTION_REFUSAL_OUTBOUND=1\n");
    ASSERT_EQ(Check(), kNormal);
    ExpectMonitored(443, true);
    EXPECT_TRUE(Has(TakeDriverCalls(), "vti_get_scan_metrics(2, 443)"));
    EXPECT_TRUE(Has(TakeTracedMessages("SysHealth.scan"), "setting scan config 443, 1"));
}

TEST_F(Sampling, AnOutboundSettingBelowOneMeansInbound) {
    WriteConfig(kPort + "SYSTEM_CONNECTION_REFUSAL_OUTBOUND=0.9\n");
    ASSERT_EQ(Check(), kNormal);
    ExpectMonitored(443, false);
    EXPECT_TRUE(Has(TakeDriverCalls(), "vti_get_scan_metrics(1, 443)"));
}

TEST_F(Sampling, ThePortIsTruncated) {
    WriteConfig("SYSTEM_CONNECTION_REFUSAL_PORT=443.875\n");
    ASSERT_EQ(Check(), kNormal);
    ExpectMonitored(443, false);
    EXPECT_TRUE(Has(TakeDriverCalls(), "vti_get_scan_metrics(1, 443)"));
}

TEST_F(Sampling, APortOfZeroFromAPolicyIsMonitored) {
    ASSERT_EQ(Check("Deactivated", R"({"SYS_CONF_CONN_REFUSAL_PORT": 0})"), kNormal);
    ExpectMonitored(0, false);
    EXPECT_TRUE(Has(TakeDriverCalls(), "vti_get_scan_metrics(1, 0)"));
}

TEST_F(Sampling, APortChangedLaterAffectsNeitherTheDriverNorTheReading) {
    WriteConfig(kRunQueue + kPort);
    ASSERT_EQ(Check(), kNormal);
    Forget();
    WriteConfig(kRunQueue + "SYSTEM_CONNECTION_REFUSAL_PORT=80\n");
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(TakeDriverCalls(),
              (std::vector<std::string>{"vti_open()", "vti_get_scan_metrics(1, 443)", "vti_close()"}));
    ExpectMonitored(443, false);
    EXPECT_EQ(FieldOf(TakeLongLine(), "port"), "443");
}

TEST_F(Sampling, ADirectionChangedLaterAffectsOnlyTheReading) {
    WriteConfig(kPort);
    ASSERT_EQ(Check(), kNormal);
    Forget();
    WriteConfig(kPort + "SYSTEM_CONNECTION_REFUSAL_OUTBOUND=1\n");
    ASSERT_EQ(Check(), kNormal);
    EXPECT_TRUE(Has(TakeDriverCalls(), "vti_get_scan_metrics(2, 443)"));
    ExpectMonitored(443, false);
}

TEST_F(Sampling, AnUnreachableDriverDisablesTheDriverMetricsWithoutAMessage) {
    WriteConfig(kDriverMetrics + kRunQueue + kFreeMemory);
    driver().present = false;
    machine().processorQueue = 51;
    ASSERT_EQ(Check(), kFailOpen) << "the queue is checked";
    EXPECT_EQ(TakeDriverCalls(), (std::vector<std::string>{"vti_open()"}));
    EXPECT_TRUE(TakeErrors().empty());
    EXPECT_TRUE(TakeTracedMessages("SysHealth.scan").empty());
    const std::vector<ReadOut> expected{{"rqpct", 51, 50}, {"refusalpct", 0, 0}, {"estab", 0, 0},
                                        {"scanmb", 0, 0},  {"frepct", 50, 20},   {"delta_t", 0, 45}};
    EXPECT_EQ(Metrics(), expected);
}

TEST_F(Sampling, AnUnreachableDriverIsConfiguredOnceItIsReachable) {
    WriteConfig(kPort);
    driver().present = false;
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "port"), "0") << "nothing is latched";
    driver().present = true;
    WriteConfig("SYSTEM_CONNECTION_REFUSAL_PORT=80\n");
    ASSERT_EQ(Check(), kNormal);
    ExpectMonitored(80, false);
    EXPECT_EQ(FieldOf(TakeLongLine(), "port"), "80");
}

TEST_F(Sampling, AFailedReadingIsLoggedTwiceAndDisablesTheDriverMetrics) {
    WriteConfig(kDriverMetrics + kRunQueue);
    ASSERT_EQ(CheckAt(0), kNormal);
    Forget();
    driver().faults["vti_get_scan_metrics"] = {.status = 31, .error = "no driver"};
    ASSERT_EQ(CheckAt(10), kNormal);
    EXPECT_EQ(TakeErrors(), (std::vector<std::string>{"vti_get_scan_metrics failed rc= 31, buf{no driver}",
                                                      "get_scan_metrics() failed rc=31, exiting, buf{no driver}"}));
    EXPECT_EQ(TakeDriverCalls(), (std::vector<std::string>{"vti_open()", "vti_get_scan_metrics(1, 443)",
                                                           "vti_get_error(128)", "vti_get_error(128)", "vti_close()"}));
    EXPECT_EQ(Metric("estab"), (ReadOut{"estab", 0, 0}));
    EXPECT_EQ(Metric("rqpct"), (ReadOut{"rqpct", 1, 50}));
    EXPECT_EQ(driver().openHandles, 0);
    ExpectLockFree();
}

TEST_F(Sampling, AFailedFirstReadingIsConfiguredAgainByTheNextIteration) {
    WriteConfig(kPort);
    driver().faults["vti_get_scan_metrics"] = {.status = -1, .error = "busy", .remaining = 1};
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "port"), "443") << "latched anyway";
    Forget();
    WriteConfig("SYSTEM_CONNECTION_REFUSAL_PORT=80\n");
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(TakeDriverCalls(), (std::vector<std::string>{"vti_open()", "vti_set_scan_monitoring()",
                                                           "vti_get_scan_metrics(1, 80)", "vti_close()"}));
    ExpectMonitored(80, false);
}

TEST_F(Sampling, AFailedConfigurationIsLoggedAndOtherwiseIgnored) {
    WriteConfig(kPort);
    driver().faults["vti_set_scan_monitoring"] = {.status = -7, .error = "too many ports"};
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(TakeDriverCalls(),
              (std::vector<std::string>{"vti_open()", "vti_set_scan_monitoring()", "vti_get_error(128)",
                                        "vti_get_scan_metrics(1, 443)", "vti_close()"}));
    const std::vector<LogLine> lines = log.Take();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "vti_set_scan_monitoring failed rc= -7 buf{too many ports}");
    EXPECT_EQ(lines[0].level, static_cast<wxLogLevel>(wxLOG_Error));
    EXPECT_EQ(FieldOf(lines[1].text, "port"), "443");
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(TakeDriverCalls(),
              (std::vector<std::string>{"vti_open()", "vti_get_scan_metrics(1, 443)", "vti_close()"}))
        << "the reading succeeded, so there is no retry";
}

TEST_F(Sampling, EmptyErrorTextsAreLoggedAsEmpty) {
    WriteConfig(kPort);
    driver().faults["vti_get_scan_metrics"] = {.status = 5, .error = ""};
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(TakeErrors(), (std::vector<std::string>{"vti_get_scan_metrics failed rc= 5, buf{}",
                                                      "get_scan_metrics() failed rc=5, exiting, buf{}"}));
}

TEST_F(Sampling, ErrorTextsBeyondAsciiAreLogged) {
    WriteConfig(kPort);
    std::vector<CodePageText> texts = TextsOutsideCodePage();
    texts.push_back(CharacterInCodePage());
    for (const CodePageText &text : texts) {
        driver().faults["vti_get_scan_metrics"] = {.status = 5, .error = text.narrow};
        ASSERT_EQ(Check(), kNormal);
        EXPECT_EQ(TakeErrors(),
                  (std::vector<std::string>{"vti_get_scan_metrics failed rc= 5, buf{" + text.utf8 + "}",
                                            "get_scan_metrics() failed rc=5, exiting, buf{" + text.utf8 + "}"}));
    }
}

TEST_F(Sampling, ErrorTextsInAnyEncodingKeepTheirAscii) {
    WriteConfig(kPort);
    driver().faults["vti_get_scan_metrics"] = {.status = 5, .error = "ger\xE4t \xFF\x81 %s%n"};
    ASSERT_EQ(Check(), kNormal);
    const std::vector<std::string> errors = TakeErrors();
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(errors[0].starts_with("vti_get_scan_metrics failed rc= 5, buf{ger")) << errors[0];
    EXPECT_TRUE(errors[0].ends_with("%s%n}")) << errors[0];
}

TEST_F(Sampling, LongErrorTextsAreTruncatedWithOrWithoutATerminator) {
    WriteConfig(kPort);
    for (const std::size_t length : {126u, 127u, 128u, 129u, 5000u}) {
        SCOPED_TRACE(length);
        driver().faults["vti_get_scan_metrics"] = {.status = 5, .error = std::string(length, 'e')};
        ASSERT_EQ(Check(), kNormal);
        const std::vector<std::string> errors = TakeErrors();
        ASSERT_EQ(errors.size(), 2u);
        for (const std::string &error : errors) {
            const std::size_t begin = error.find('{') + 1;
            const std::string text = error.substr(begin, error.size() - begin - 1);
            EXPECT_EQ(error.back(), '}');
            EXPECT_EQ(text, std::string(text.size(), 'e'));
            EXPECT_GE(text.size(), std::min<std::size_t>(length, 127));
            EXPECT_LE(text.size(), std::min<std::size_t>(length, 128));
        }
    }
}

TEST_F(Sampling, EachDriverCallMayFailWithoutALeak) {
    WriteConfig(kDriverMetrics + kRunQueue);
    // A failed reading after the failed configuration, so that the driver is configured again.
    for (const std::vector<std::string> &operations : {std::vector<std::string>{"vti_open"},
                                                       {"vti_set_scan_monitoring", "vti_get_scan_metrics"},
                                                       {"vti_get_scan_metrics"}}) {
        SCOPED_TRACE(operations.front());
        const auto iteration = [&] {
            for (const std::string &operation : operations)
                driver().faults[operation] = {.status = 1, .error = std::string(200, 'x'), .remaining = 1};
            EXPECT_EQ(Check(), kNormal);
            for (const std::string &operation : operations)
                EXPECT_EQ(driver().faults[operation].remaining, 0) << operation << " was not called";
            driver().faults.clear();
            Forget();
            lua_gc(lua, LUA_GCCOLLECT, 0);
        };
        iteration();
        const Simulator::BalanceSnapshot before = balance().Take();
        iteration();
        EXPECT_EQ(balance().Difference(before, balance().Take()), "");
        EXPECT_EQ(driver().openHandles, 0);
        ExpectLockFree();
    }
}

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
    EXPECT_EQ(Check(), kNormal);
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
