// The report of fc-host.exe, and what scripts add to it.
#include <gtest/gtest.h>

#include <memory>

#include <cJSON.h>

#include "HostProcess.h"

namespace {

constexpr std::size_t kMaxPageBytes = 3U << 20U;

struct DeleteJson {
    void operator()(cJSON *json) const { cJSON_Delete(json); }
};
using JsonPtr = std::unique_ptr<cJSON, DeleteJson>;

bool Contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

/// The text between the marks, each of which must occur.
std::string Between(const std::string &text, const std::string &from, const std::string &to) {
    const std::size_t begin = text.find(from);
    EXPECT_NE(begin, std::string::npos) << from;
    const std::size_t end = text.find(to, begin);
    EXPECT_NE(end, std::string::npos) << to;
    return text.substr(begin + from.size(), end - begin - from.size());
}

std::string TextOf(const cJSON *object, const char *name) {
    const char *text = cJSON_GetStringValue(cJSON_GetObjectItem(object, name));
    return text != nullptr ? text : "(none)";
}

std::vector<double> Numbers(const cJSON *object, const char *name) {
    std::vector<double> numbers;
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, cJSON_GetObjectItem(object, name)) numbers.push_back(item->valuedouble);
    return numbers;
}

class HostReport : public testing::Test {
protected:
    /// Runs a script with a report, which can use `check(state)` and the module with a queue limit of 50.
    HostRun Run(const std::string &script) {
        return RunScript("local folder = [[" + folder.Path().string() + "]]" + R"(
            host.use_program_data(folder)
            local file = io.open(folder .. '\\filter\\vt_filter.conf', 'w')
            file:write('SYSTEM_RUNQ_PCT_THRESHOLD=50\nSYSTEM_MIN_ACT_DURATION=2\n')
            file:close()
            host.machine.processor_queue = 1
            require 'fc'
            function check(state)
                return SLB.filter.CheckSystemHealthMetrics(host.dom(), state, '').action
            end
            )" + script,
                         {L"--quiet", L"--fast", L"1", L"--report", path});
    }

    /// The data of the page.
    JsonPtr Data() const {
        const std::string page = TextOfFile(path);
        EXPECT_LT(page.size(), kMaxPageBytes);
        JsonPtr json(cJSON_Parse(Between(page, R"(id="run">)", "</script>").c_str()));
        EXPECT_NE(json, nullptr);
        return json;
    }

    TemporaryFolder folder;
    std::wstring path = folder.At(L"new folder\\report.html");
};

}  // namespace

TEST_F(HostReport, IsOneSelfContainedPage) {
    const HostRun run = Run("check 'Deactivated'");
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    const std::string page = TextOfFile(path);
    EXPECT_EQ(page.rfind("<!DOCTYPE html>", 0), 0U);
    EXPECT_FALSE(Contains(page, "/*STYLE*/") || Contains(page, "/*SCRIPT*/") || Contains(page, "/*RUN*/"));
    EXPECT_TRUE(Contains(page, "figure.className = 'chart'"));
    EXPECT_TRUE(Contains(page, "prefers-color-scheme: dark"));
    for (const char *outside : {"src=", "href=", "@import", "url(http", "fetch("})
        EXPECT_FALSE(Contains(page, outside)) << outside;
}

TEST_F(HostReport, ContainsWhatTheModuleLogsAboutEachIteration) {
    const HostRun run = Run(R"(
        host.machine.processor_queue = 7
        assert(check 'Deactivated' == 0)
        host.machine.processor_queue = 62.5
        assert(check 'Deactivated' == 1)
        assert(check 'Activated' == 1)
        host.advance(130)
        assert(check 'Activated' == 1)
        host.machine.processor_queue = 3
        repeat host.advance(40) until check 'Activated' == 0
    )");
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    const JsonPtr data = Data();
    EXPECT_EQ(TextOf(data.get(), "script").substr(TextOf(data.get(), "script").size() - 10), "script.lua");
    // Four minutes in steps of 40 seconds are six iterations.
    EXPECT_EQ(cJSON_GetObjectItem(data.get(), "iterations")->valuedouble, 10);
    EXPECT_EQ(Numbers(data.get(), "action"), (std::vector<double>{0, 1, 1, 1, 1, 1, 1, 1, 1, 0}));
    EXPECT_EQ(Numbers(data.get(), "active"), (std::vector<double>{0, 1, 1, 1, 1, 1, 1, 1, 1, 0}));
    EXPECT_EQ(Numbers(data.get(), "step"), (std::vector<double>{0, 1, 0, 2, 0, 0, 0, 0, 0, 3}));
    EXPECT_EQ(Numbers(data.get(), "wait"), (std::vector<double>{0, 0, 2, 4, 4, 4, 4, 4, 4, 0}));
    const cJSON *queue = cJSON_GetArrayItem(cJSON_GetObjectItem(data.get(), "metrics"), 0);
    EXPECT_EQ(TextOf(queue, "name"), "rqpct");
    EXPECT_EQ(Numbers(queue, "value"), (std::vector<double>{7, 62.5, 62.5, 62.5, 3, 3, 3, 3, 3, 3}));
    EXPECT_EQ(Numbers(queue, "limit"), (std::vector<double>(10, 50)));
}

TEST_F(HostReport, IsTheSameWhenAScriptHasChosenADecimalComma) {
    const HostRun run = Run(R"(
        assert(os.setlocale('German_Germany'))
        host.machine.processor_queue = 62.5
        assert(check 'Deactivated' == 1)
    )");
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    const JsonPtr data = Data();
    const cJSON *queue = cJSON_GetArrayItem(cJSON_GetObjectItem(data.get(), "metrics"), 0);
    EXPECT_EQ(Numbers(queue, "value"), std::vector<double>{62.5});
    EXPECT_EQ(Numbers(queue, "limit"), std::vector<double>{50});
}

TEST_F(HostReport, HasTheTimeOfDayOfTheSimulatedClock) {
    ASSERT_EQ(Run("host.set_wall_clock(1772409600) check 'Deactivated'").exitCode, 0U);
    const JsonPtr data = Data();
    EXPECT_NEAR(cJSON_GetObjectItem(data.get(), "start")->valuedouble, 1772409600, 5);
}

TEST_F(HostReport, IsWrittenForARunWithoutIterationsToo) {
    ASSERT_EQ(Run("").exitCode, 0U);
    const JsonPtr data = Data();
    EXPECT_EQ(cJSON_GetObjectItem(data.get(), "iterations")->valuedouble, 0);
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(data.get(), "time")), 0);
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(data.get(), "notes")), 0);
}

TEST_F(HostReport, IsWrittenHoweverTheScriptEnds) {
    EXPECT_EQ(Run("check 'Deactivated' os.exit(7)").exitCode, 7U);
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(Data().get(), "time")), 1);
    EXPECT_EQ(Run("check 'Deactivated' check 'Deactivated' error 'broken'").exitCode, 1U);
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(Data().get(), "time")), 2);
}

TEST_F(HostReport, EscapesTextsOfScripts) {
    const HostRun run = Run(R"(
        host.mark("</script><script>alert(1)</script> <!-- & 'one' \"two\" \\ \1\n gr\195\188n \255")
        host.send_event(7, "<b>&amp;</b>")
        host.notify_user(1, "</SCRIPT>", "detail")
    )");
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    const std::string page = TextOfFile(path);
    EXPECT_FALSE(Contains(page, "alert(1)<"));
    EXPECT_FALSE(Contains(page, "</SCRIPT"));
    const std::string data = Between(page, R"(id="run">)", "</script>");
    EXPECT_EQ(data.find_first_of("<>&'"), std::string::npos) << data;
    const JsonPtr json = Data();
    const cJSON *notes = cJSON_GetObjectItem(json.get(), "notes");
    ASSERT_EQ(cJSON_GetArraySize(notes), 3);
    EXPECT_EQ(TextOf(cJSON_GetArrayItem(notes, 0), "text"),
              "</script><script>alert(1)</script> <!-- & 'one' \"two\" \\ \1\n gr\xC3\xBCn \xEF\xBF\xBD");
    EXPECT_EQ(TextOf(cJSON_GetArrayItem(notes, 0), "kind"), "mark");
    EXPECT_EQ(TextOf(cJSON_GetArrayItem(notes, 1), "text"), "(7) <b>&amp;</b>");
    EXPECT_EQ(TextOf(cJSON_GetArrayItem(notes, 1), "kind"), "event");
    EXPECT_EQ(TextOf(cJSON_GetArrayItem(notes, 2), "kind"), "notification");
}

TEST_F(HostReport, ShowsErrorsOfTheModuleAsNotes) {
    const HostRun run = Run("host.set_wall_clock(1772409600) for _ = 1, 3 do assert(check 'Broken' == 6) end");
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_EQ(run.err, "") << "--quiet";
    const JsonPtr data = Data();
    const cJSON *notes = cJSON_GetObjectItem(data.get(), "notes");
    ASSERT_EQ(cJSON_GetArraySize(notes), 1);
    EXPECT_EQ(TextOf(cJSON_GetArrayItem(notes, 0), "kind"), "error");
    EXPECT_EQ(TextOf(cJSON_GetArrayItem(notes, 0), "text"), "incorrect state value Broken for state string");
    EXPECT_EQ(cJSON_GetObjectItem(cJSON_GetArrayItem(notes, 0), "count")->valuedouble, 3);
    EXPECT_NEAR(cJSON_GetObjectItem(data.get(), "start")->valuedouble, 1772409600, 5);
}

TEST_F(HostReport, AFileThatCannotBeWrittenIsNamedBeforeTheScriptRuns) {
    const HostRun run = RunScript("print 'ran'", {L"--report", folder.Path().wstring()});
    EXPECT_EQ(run.exitCode, 2U);
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(Contains(run.err, "fc-host: cannot write ")) << run.err;
}

TEST(HostMark, NeedsATextAndDoesNothingWithoutAReport) {
    const HostRun run = RunScript("host.mark 'here' assert(not pcall(host.mark)) assert(not pcall(host.mark, {}))");
    EXPECT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_EQ(run.err, "");
}

TEST(HostLog, ErrorsOfTheModuleArePrintedUnlessTheHostIsQuiet) {
    const std::string script = "require 'fc' SLB.filter.CheckSystemHealthMetrics(host.dom(), 'Broken', '')";
    EXPECT_EQ(WithoutTimes(RunScript(script).err), "error   incorrect state value Broken for state string\n");
    EXPECT_EQ(RunScript(script, {L"--quiet"}).err, "");
}

TEST_F(HostReport, ShowsARestartOfTheModuleAsANote) {
    ASSERT_EQ(Run("host.restart_module() require 'fc' check 'Deactivated'").exitCode, 0U);
    const JsonPtr data = Data();
    const cJSON *note = cJSON_GetArrayItem(cJSON_GetObjectItem(data.get(), "notes"), 0);
    EXPECT_EQ(TextOf(note, "kind"), "restart");
}

TEST_F(HostReport, ARestartClearsTheModulesStateAndKeepsTheSettings) {
    const HostRun run = Run(R"(
        host.machine.processor_queue = 90
        assert(check 'Deactivated' == 1 and check 'Activated' == 1)
        host.machine.processor_queue = 1
        local wait = host.get_setting 'vtp.filter.SysHealthBackoffWait'
        assert(wait == '2' and SLB.filter.GetSysHealthEnabled())
        for _ = 1, 3 do
            host.restart_module()
            assert(package.loaded.fc == nil and SLB.filter == nil)
            assert(require 'fc')
            assert(not SLB.filter.GetSysHealthEnabled())
        end
        assert(host.get_setting 'vtp.filter.SysHealthBackoffWait' == wait)
        host.advance(100)
        assert(check 'Activated' == 1, 'the wait goes on')
        host.advance(25)
        assert(check 'Activated' == 0, 'the wait is over')
    )");
    EXPECT_EQ(run.exitCode, 0U) << run.err;
}

TEST(HostModule, ARestartBeforeTheModuleIsLoadedDoesNothing) {
    const HostRun run = RunScript("host.restart_module() assert(require 'fc' and SLB.filter.GetConnMetrics)");
    EXPECT_EQ(run.exitCode, 0U) << run.err;
}

TEST(HostModule, TheRestartedModuleRunsOnTheRealClockToo) {
    const HostRun run = RunScript(R"(
        require 'fc'
        host.restart_module()
        require 'fc'
        SLB.filter.AddToConnMetrics('key', 'pid\t5', 3)
        SLB.filter.UpdateConnMetrics()
    )");
    EXPECT_EQ(run.exitCode, 0U) << run.err;
}

TEST_F(HostReport, ContainsTheStepsOfAnInstallationWithTheirFailures) {
    const HostRun run = Run(R"(
        host.machine.put_component { id = 'qbimvta', result = 0x80004005 }
        host.advance(100)
        assert(not SLB.filter.UninstallDriver(host.dom(), 'C:\\', 'C:\\'))
        check 'Deactivated'
    )");
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_EQ(run.err, "");
    const JsonPtr data = Data();
    ASSERT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(data.get(), "driverRuns")), 1);
    const cJSON *removal = cJSON_GetArrayItem(cJSON_GetObjectItem(data.get(), "driverRuns"), 0);
    EXPECT_EQ(TextOf(removal, "kind"), "removal");
    // Times are relative to the first health iteration, which came later.
    EXPECT_LT(cJSON_GetObjectItem(removal, "begin")->valuedouble, 0);
    EXPECT_LE(cJSON_GetObjectItem(removal, "begin")->valuedouble, cJSON_GetObjectItem(removal, "end")->valuedouble);
    const cJSON *step = nullptr;
    const cJSON *uninstalling = nullptr;
    cJSON_ArrayForEach(step, cJSON_GetObjectItem(removal, "steps")) {
        const bool isMeant = TextOf(step, "name") == "UninstallingDriver";
        uninstalling = isMeant ? step : uninstalling;
        EXPECT_EQ(cJSON_IsTrue(cJSON_GetObjectItem(step, "failed")) != 0, isMeant) << TextOf(step, "name");
        EXPECT_FALSE(cJSON_IsTrue(cJSON_GetObjectItem(step, "killed")));
    }
    ASSERT_NE(uninstalling, nullptr);
    EXPECT_EQ(cJSON_GetObjectItem(uninstalling, "limit")->valuedouble, 600);
}

TEST_F(HostReport, HoldsTheOutcomeTheStateAfterwardsAndTheLogOfEachInstallation) {
    const HostRun run = Run(R"(
        host.machine.put_component { id = 'qbimvta', result = 0x80004005 }
        host.machine.put_service('qbimwfp', 'running')
        host.machine.put_adapter { node = [[PCI\CARD\1]], name = '<Ethernet>' }
        host.machine.bind([[PCI\CARD\1]], 'qbimvta')
        host.fault { call = 'ControlService', fail = 5 }
        assert(not SLB.filter.UninstallDriver(host.dom(), 'C:\\', 'C:\\'))
        assert(SLB.filter.InstallOrUpdateDriver(host.dom(), 'C:\\', 'C:\\'))
    )");
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    const JsonPtr data = Data();
    const cJSON *removal = cJSON_GetArrayItem(cJSON_GetObjectItem(data.get(), "driverRuns"), 0);
    EXPECT_EQ(TextOf(removal, "outcome"), "failed");
    EXPECT_EQ(TextOf(removal, "text"),
              "failed in UninstallingDriver with 0x80004005 (INetCfgClassSetup::DeInstall); the filter qbimvta and the "
              "callout qbimwfp are left behind");
    const cJSON *state = cJSON_GetObjectItem(removal, "state");
    EXPECT_EQ(TextOf(state, "driver"), "1.0.0.0");
    EXPECT_EQ(TextOf(state, "callout"), "running");
    EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItem(state, "hasFilter")));
    EXPECT_TRUE(cJSON_IsNull(cJSON_GetObjectItem(state, "lock")));
    const cJSON *adapter = cJSON_GetArrayItem(cJSON_GetObjectItem(state, "adapters"), 0);
    EXPECT_EQ(TextOf(adapter, "name"), "<Ethernet>");
    EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItem(adapter, "bound")));
    std::string log;
    const cJSON *line = nullptr;
    cJSON_ArrayForEach(line, cJSON_GetObjectItem(removal, "log")) log +=
        TextOf(line, "level") + ": " + TextOf(line, "text") + "\n";
    EXPECT_TRUE(Contains(log, "error: StopWFPCallout() failed.\n")) << log;
    EXPECT_TRUE(Contains(log, "message:  <UninstallingDriver\n")) << log;
    const cJSON *installation = cJSON_GetArrayItem(cJSON_GetObjectItem(data.get(), "driverRuns"), 1);
    EXPECT_EQ(TextOf(installation, "outcome"), "nothing");
}

TEST_F(HostReport, HasTheStackOfAKilledWorkerAlsoWithoutVerboseLog) {
    const HostRun run = Run(R"(
        host.machine.put_component { id = 'qbimvta' }
        host.fault { call = 'INetCfgClassSetup::DeInstall', nth = 1, hang = true, advance = 601 }
        assert(not SLB.filter.UninstallDriver(host.dom(), 'C:\\', 'C:\\'))
    )");
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    const JsonPtr data = Data();
    const cJSON *removal = cJSON_GetArrayItem(cJSON_GetObjectItem(data.get(), "driverRuns"), 0);
    EXPECT_TRUE(TextOf(removal, "text").starts_with("failed in UninstallingDriver, killed after "))
        << TextOf(removal, "text");
    EXPECT_TRUE(TextOf(removal, "stack").starts_with("[00] ")) << TextOf(removal, "stack");
}

TEST_F(HostReport, HasTheErrorThatHasEndedTheScriptAndItsStatus) {
    EXPECT_EQ(Run("local function deep() error 'broken </script>' end deep()").exitCode, 1U);
    JsonPtr data = Data();
    EXPECT_TRUE(Contains(TextOf(data.get(), "error"), "broken </script>\nstack traceback:")) << "with a traceback";
    EXPECT_EQ(cJSON_GetObjectItem(data.get(), "status")->valuedouble, 1);
    EXPECT_EQ(Run("os.exit(7)").exitCode, 7U);
    data = Data();
    EXPECT_EQ(TextOf(data.get(), "error"), "");
    EXPECT_EQ(cJSON_GetObjectItem(data.get(), "status")->valuedouble, 7);
    EXPECT_EQ(Run("return 256").exitCode, 1U);
    EXPECT_TRUE(Contains(TextOf(Data().get(), "error"), "the script returns 256; "));
    EXPECT_EQ(Run("").exitCode, 0U);
    EXPECT_EQ(cJSON_GetObjectItem(Data().get(), "status")->valuedouble, 0);
}

TEST_F(HostReport, HasNoStepsIfNoDriverWasInstalled) {
    ASSERT_EQ(Run("check 'Deactivated'").exitCode, 0U);
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(Data().get(), "driverRuns")), 0);
}
