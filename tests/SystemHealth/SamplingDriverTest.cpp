// What an iteration queries from the driver.

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "CodePage.h"
#include "SamplingFixture.h"

namespace {

using namespace Health;

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
    std::vector<std::string> sampledBefore;
    driver().onCall = [&](Vti::Driver &, const std::string &call) {
        if (call == "vti_open()")
            sampledBefore = TakePlatformCalls();
    };
    ASSERT_EQ(Check("Activated"), kFailOpen);
    driver().onCall = nullptr;
    ASSERT_FALSE(sampledBefore.empty());
    EXPECT_EQ(sampledBefore.front(), "PdhOpenQueryW");
    EXPECT_EQ(sampledBefore.back(), "GlobalMemoryStatusEx");
    EXPECT_EQ(TakePlatformCalls(), std::vector<std::string>()) << "the sample is complete before the driver is opened";
    EXPECT_EQ(TakeDriverCalls(), (std::vector<std::string>{"vti_open()", "vti_set_scan_monitoring()",
                                                           "vti_get_scan_metrics(1, 443)", "vti_close()"}));
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

}  // namespace
