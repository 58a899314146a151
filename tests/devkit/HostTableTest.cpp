// The global table `host` of fc-host.exe: the agent's side, as scripts see it.
#include <gtest/gtest.h>

#include <sstream>

#include <cJSON.h>

#include "HostProcess.h"

namespace {

bool Contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

/// Runs a script whose assertions are the test's.
void ExpectPasses(const std::string &script, std::vector<std::wstring> options = {}) {
    (void)RunPassingScript(script, std::move(options));
}

std::string LuaText(const std::wstring &path) {
    return "[[" + std::filesystem::path(path).string() + "]]";
}

}  // namespace

TEST(HostTable, ProvidesTheAgentsObject) {
    ExpectPasses(R"(
        assert(type(host.dom()) == "userdata" and type(host.const_dom()) == "userdata")
        assert(tostring(host.dom()):match("^SLB%.Dom"))
    )");
}

TEST(HostTable, KeepsSettingsInTheFileItIsGiven) {
    const TemporaryFolder folder;
    const std::vector<std::wstring> options{L"--settings", folder.At(L"settings")};
    ExpectPasses("assert(host.get_setting('a') == '') host.set_setting('a', 'gr\xC3\xBC\xC3\x9F')", options);
    ExpectPasses("assert(host.get_setting('a') == 'gr\xC3\xBC\xC3\x9F')", options);
    ExpectPasses("assert(host.get_setting('a') == '')");
}

TEST(HostTable, SettingsThatCannotBeSavedAreReportedAndExitWithTwo) {
    const TemporaryFolder folder;
    const std::wstring path = folder.At(L"settings");
    const HostRun run = RunScript("host.set_setting('a', '1')\nlocal held = io.open([[" +
                                      std::filesystem::path(path).string() + "]])\nhost.set_setting('a', '2')",
                                  {L"--settings", path});
    EXPECT_EQ(run.exitCode, 2U);
    EXPECT_TRUE(Contains(
        run.err, "fc-host: the settings are not kept: cannot write " + std::filesystem::path(path).string() + ": "))
        << run.err;
    EXPECT_TRUE(Contains(TextOfFile(path), "\"1\""));
}

TEST(HostTable, AnOpenHandleIsClosedExplicitlyOrWithItsUserdata) {
    ExpectPasses(R"(
        local first, second = host.driver_handle(), host.driver_handle()
        assert(host.driver.open_handles == 2)
        host.close_handle(first)
        host.close_handle(first)
        assert(host.driver.open_handles == 1)
        second = nil
        collectgarbage()
        assert(host.driver.open_handles == 0)
        assert(not pcall(host.close_handle, {}))
        host.driver.present = false
        local none, message = host.driver_handle()
        assert(none == nil and message == "the driver is not present")
        assert(first ~= second)
    )");
}

TEST(HostTable, TheDriversFieldsCanBeReadAndSet) {
    ExpectPasses(R"(
        local driver = host.driver
        assert(driver.present == true and driver.available == true and driver.version == "1.0.0.0")
        driver.available, driver.version = false, "2.5"
        assert(driver.available == false and driver.version == "2.5")
        assert(driver.trace_level == 0 and #driver.calls == 0)
        host.driver_handle()
        assert(driver.calls[1] == 'vti_open()')
        driver.set_variable(173, 4294967295)
        assert(driver.get_variable(173) == 4294967295)
        driver.set_counters{1, 2, 9007199254740992}
        driver.set_fault("vti_get_stats", -3, "broken")
        driver.clear_faults()
        driver.trace(1, "qb", "file.c", 1, "nobody listens")
    )");
}

TEST(HostTable, TheDriverRejectsInvalidValues) {
    ExpectPasses(kScriptHelpers + R"(
        local driver = host.driver
        refused("no field 'colour'", function() return driver.colour end)
        refused("no field 'colour'", function() driver.colour = 1 end)
        refused("can only be read", function() driver.open_handles = 1 end)
        refused("boolean expected", function() driver.present = 1 end)
        refused("numbers 0 to 173", driver.set_variable, 174, 1)
        refused("numbers 0 to 173", driver.get_variable, -1)
        refused("out of range", driver.set_variable, 0, 4294967296)
        refused("out of range", driver.set_counters, {-1})
        refused("at most ten", driver.set_counters, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11})
    )");
}

TEST(HostTable, AFaultOfTheDriverAffectsTheModule) {
    ExpectPasses(R"(
        host.driver.set_fault("vti_open", -1, "")
        assert(host.driver_handle() == nil)
        host.driver.clear_faults()
        assert(host.driver_handle() ~= nil)
    )");
}

TEST(HostTable, AZipIsARealFile) {
    const TemporaryFolder folder;
    const std::wstring path = folder.At(L"new folder\\packag\u00E9.zip");
    const std::wstring script = folder.Write(L"script.lua", R"(
        local zip = host.zip(arg[1])
        assert(tostring(zip):match("^SLB%.wx%.ZipOutputStream"))
        host.close_zip(zip)
        local ok, message = pcall(host.close_zip, zip)
        assert(not ok and message:find("an open zip of host.zip expected", 1, true), message)
        assert(not pcall(host.close_zip, io.stdout) and not pcall(host.close_zip, nil))
        host.zip(arg[1] .. ".open")
        assert(not pcall(host.zip, arg[1] .. "\\below a file"))
    )");
    const HostRun run = RunHost({script, path});
    EXPECT_EQ(run.exitCode, 0U) << run.err;
    const std::string emptyZip("PK\x05\x06" + std::string(18, '\0'));
    EXPECT_EQ(TextOfFile(path), emptyZip);
    EXPECT_EQ(TextOfFile(path + L".open"), emptyZip) << "an open zip is ended with the program";
}

TEST(HostTable, AZipTakesFilesOfTheScript) {
    const TemporaryFolder folder;
    ExpectPasses(kScriptHelpers + "local path = " + LuaText(folder.At(L"package.zip")) + R"(
        local zip = host.zip(path)
        zip:add("gr\195\188n/a.txt", "first\0\255")
        zip:add("empty.txt", "")
        zip:add("numbers.txt", 12)
        refused("a file's name expected", zip.add, zip, "", "text")
        refused("string expected, got no value", zip.add, zip, "a.txt")
        refused("an open zip of host.zip expected", zip.add, io.stdout, "a.txt", "text")
        host.close_zip(zip)
        refused("an open zip of host.zip expected", zip.add, zip, "late.txt", "text")
        local files = host.read_zip(path)
        assert(#files == 3)
        assert(files[1].name:gsub("\\", "/") == "gr\195\188n/a.txt" and files[1].content == "first\0\255", files[1].name)
        assert(files[2].content == "" and files[3].content == "12")
    )");
}

TEST(HostTable, JsonIsReadAsItWasWritten) {
    const TemporaryFolder folder;
    const std::wstring path = folder.At(L"a\\b\\value.json");
    ExpectPasses("local path = " + LuaText(path) + R"(
        local value = { zebra = 1, apple = { 1, 2.5, "x" }, empty = {}, flag = false, text = "gr\195\188n \"q\"\n" }
        host.write_json(path, value)
        local back = host.read_json(path)
        assert(back.zebra == 1 and back.flag == false and back.text == value.text)
        assert(#back.apple == 3 and back.apple[2] == 2.5 and back.apple[3] == "x" and next(back.empty) == nil)
        assert(host.read_json(path).missing == nil)
    )");
    const std::string text = TextOfFile(path);
    EXPECT_LT(text.find("\"apple\""), text.find("\"empty\""));
    EXPECT_LT(text.find("\"text\""), text.find("\"zebra\""));
    EXPECT_EQ(text.back(), '\n');
}

TEST(HostTable, JsonReportsWhatItCannotRepresent) {
    const TemporaryFolder folder;
    ExpectPasses(kScriptHelpers + "local path = " + LuaText(folder.At(L"value.json")) + R"(
        refused("a function can't be written", host.write_json, path, { f = print })
        refused("texts as keys", host.write_json, path, { 1, 2, x = 3 })
        refused("texts as keys", host.write_json, path, { [1] = 1, [3] = 3 })
        refused("zero byte", host.write_json, path, "a\0b")
        local circle = {}
        circle.self = circle
        refused("holds itself", host.write_json, path, circle)
        refused("No such file", host.read_json, path)
        local file = io.open(path, "w")
        file:write('{"open": ')
        file:close()
        refused("no valid JSON", host.read_json, path)
        refused("cannot write", host.write_json, path .. "\\below", {})
    )");
}

TEST(HostTable, JsonIsAlwaysValidUtf8) {
    const TemporaryFolder folder;
    const std::wstring path = folder.At(L"value.json");
    ExpectPasses("host.write_json(" + LuaText(path) + ", { text = 'a\\255b' })");
    EXPECT_TRUE(Contains(TextOfFile(path),
                         "a\xEF\xBF\xBD"
                         "b"))
        << TextOfFile(path);
}

TEST(HostTable, RealTimeCannotBeAdvanced) {
    const HostRun run = RunScript(
        "local before = host.time() host.sleep(0.02)\n"
        "assert(host.time() - before >= 0.015 and host.time() - before < 5)\n"
        "host.advance(1)");
    EXPECT_EQ(run.exitCode, 1U);
    EXPECT_TRUE(
        Contains(run.err, "script.lua:3: host.advance needs a simulated clock: start fc-host with --clock steps"))
        << run.err;
}

TEST(HostTable, SimulatedTimeRunsFastAndCanBeAdvanced) {
    ExpectPasses(R"(
        local real = os.clock()
        local time, os_time = host.time(), os.time()
        host.sleep(200)
        local passed = host.time() - time
        assert(passed >= 199.9 and passed <= 1000 * (os.clock() - real + 0.002), passed)
        host.advance(3600)
        assert(host.time() - time >= 3799.9)
        assert(os.time() - os_time >= 3799)
        assert(os.clock() - real < 60)
        assert(not pcall(host.advance, -1))
    )",
                 {L"--fast", L"1000"});
}

TEST(HostTable, TheModuleSeesTheSimulatedTime) {
    ExpectPasses(R"(
        require "fc"
        SLB.filter.AddToConnMetrics("key", "pid\t5", 3)
        SLB.filter.UpdateConnMetrics()
        assert(#SLB.filter.GetConnMetrics() == 0)
        host.advance(61)
        SLB.filter.UpdateConnMetrics()
        local rows = SLB.filter.GetConnMetrics()
        assert(#rows == 1 and rows[1].pid == 5 and rows[1].count == 3)
    )",
                 {L"--fast", L"1"});
}

TEST(HostTable, EventsAndNotificationsArePrintedAndReturnedToTheScript) {
    const HostRun run = RunScript(R"(
        host.send_event(1004, "100% gr\195\188n")
        host.notify_user(2, "look", "closer")
        local events = host.events()
        assert(#events == 2)
        assert(events[1].kind == "event" and events[1].number == 1004 and events[1].log_id == 0)
        assert(events[1].text == "100% gr\195\188n" and events[1].format == "%s")
        assert(math.abs(events[1].time - host.time()) < 60 and events[2].time >= events[1].time)
        assert(events[2].kind == "user" and events[2].number == 2 and events[2].detail == "closer")
        assert(#host.events() == 0)
        host.send_event(1, "later")
        assert(host.events()[1].text == "later")
    )");
    EXPECT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_EQ(WithoutTimes(run.err), "event  1004  100% gr\xC3\xBCn\nnotify user 2  look  [closer]\nevent  1  later\n");
}

TEST(HostTable, EachLineOnTheConsoleBeginsWithTheTimeOfDayOfTheModule) {
    const HostRun run = RunScript(R"(
        host.set_wall_clock(1772438400)
        host.send_event(1, "event")
        host.advance(3600)
        host.notify_user(2, "look", "")
        host.trace("any", "trace")
        require "fc"
        SLB.filter.CheckSystemHealthMetrics(host.dom(), "Broken", "")
        SLB.filter.UninstallDriver(host.dom(), "", "")
    )",
                                  {L"--fast", L"1", L"--trace", L"any"});
    EXPECT_EQ(run.exitCode, 0U) << run.err;
    std::istringstream lines(run.err);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        EXPECT_EQ(line.rfind(count == 0 ? "08:0" : "09:0", 0), 0U) << line;
    EXPECT_GT(count, 8) << run.err;
    for (const char *begin : {"event  1  event", "notify user 2", "trace  any", "error   incorrect", "step    removal"})
        EXPECT_TRUE(Contains("\n" + WithoutTimes(run.err), "\n" + std::string(begin))) << begin << " in " << run.err;
}

TEST(HostTable, QuietPrintsNoEvents) {
    const HostRun run = RunScript("host.send_event(1, 'unseen') assert(#host.events() == 1)", {L"--quiet"});
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_EQ(run.err, "");
}

TEST(HostTable, TheEventsFileIsWrittenHoweverTheScriptEnds) {
    for (const char *end : {"", "error('x')", "os.exit(3)"}) {
        SCOPED_TRACE(end);
        const TemporaryFolder folder;
        const std::wstring path = folder.At(L"out\\events.json");
        (void)RunScript("host.send_event(7, 'seven') host.events() host.notify_user(0, 'a', 'b') " + std::string(end),
                        {L"--quiet", L"--events", path});
        cJSON *json = cJSON_Parse(TextOfFile(path).c_str());
        ASSERT_NE(json, nullptr);
        EXPECT_EQ(cJSON_GetArraySize(json), 2);
        const cJSON *event = cJSON_GetArrayItem(json, 0);
        EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItem(event, "kind")), "event");
        EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItem(event, "text")), "seven");
        EXPECT_EQ(cJSON_GetObjectItem(event, "number")->valueint, 7);
        EXPECT_GT(cJSON_GetObjectItem(event, "time")->valuedouble, 1.7e9);
        EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItem(cJSON_GetArrayItem(json, 1), "kind")), "user");
        cJSON_Delete(json);
    }
}

TEST(HostTable, TracesArePrintedAndKeptOnlyIfEnabled) {
    const HostRun run = RunScript(R"(
        host.trace("other", "not wanted")
        host.trace("filter", "wanted \195\188")
        local traces = host.traces()
        assert(#traces == 1 and traces[1].component == "filter" and traces[1].message == "wanted \195\188")
        assert(math.abs(traces[1].time - host.time()) < 60)
        assert(traces[1].line == 3 and traces[1]["function"] == "script" and traces[1].file:match("script%.lua"))
        assert(#host.traces() == 0)
        host.set_trace("filter", false)
        host.set_trace("other", true)
        host.trace("filter", "not wanted any more")
        host.trace("other", "wanted now")
        assert(not pcall(host.set_trace, "filter"))
    )",
                                  {L"--trace", L"filter"});
    EXPECT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_TRUE(Contains(run.err, "  trace  filter            script: wanted \xC3\xBC (")) << run.err;
    EXPECT_TRUE(Contains(run.err, "script.lua:3)\n")) << run.err;
    EXPECT_TRUE(Contains(run.err, "trace  other             script: wanted now (")) << run.err;
    EXPECT_FALSE(Contains(run.err, "not wanted")) << run.err;
}

TEST(HostTable, AStarEnablesAllTraces) {
    const HostRun run = RunScript("host.trace('any', 'shown')", {L"--trace", L"*"});
    EXPECT_TRUE(Contains(run.err, "trace  any               script: shown (")) << run.err;
}

TEST(HostTable, QuietKeepsTracesForTheScript) {
    const HostRun run =
        RunScript("host.trace('any', 'kept') assert(#host.traces() == 1)", {L"--quiet", L"--trace", L"*"});
    EXPECT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_EQ(run.err, "");
}
