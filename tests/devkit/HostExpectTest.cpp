// host.expect of fc-host.exe.
#include <gtest/gtest.h>

#include "HostProcess.h"

namespace {

bool Contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

/// The script's second line fails the script, with this.
void ExpectFails(const std::string &script, const std::string &message) {
    const HostRun run = RunScript("\n" + script, {L"--quiet"});
    EXPECT_EQ(run.exitCode, 1U);
    EXPECT_TRUE(Contains(run.err, "script.lua:2: " + message)) << run.err;
}

}  // namespace

TEST(HostExpect, PassesWhatIsAsExpected) {
    const HostRun run = RunScript(R"lua(
        local expect = host.expect
        assert(expect.that(5, "no five") == 5)
        assert(expect.equal(5, 5) == 5)
        expect.equal({ 1, { a = "b" } }, { 1, { a = "b" } }, "the table")
        expect.error("seconds out of range", host.sleep, -1)
        host.send_event(1007, "upgraded from 1 to 2")
        host.notify_user(2, "please", "reboot")
        host.send_event(1004, "failed")
        assert(expect.event { number = 1004 }.text == "failed")
        expect.no_event { number = 1004 }
        expect.event { kind = "event", number = 1007, text = "from 1" }
        expect.event { kind = "user", text = "please" }
        expect.no_event { kind = "reboot" }
        expect.no_event()
    )lua",
                                  {L"--quiet"});
    EXPECT_EQ(run.exitCode, 0U) << run.err;
}

TEST(HostExpect, EndsTheScriptInItsLineWithWhatIsThereInstead) {
    ExpectFails("host.expect.equal({ 1, a = 'b' }, { 2 }, 'the list')",
                "the list is { 1 = 1, a = \"b\" }, and { 1 = 2 } is expected");
    ExpectFails("host.expect.that(1 > 2, 'the order is wrong')", "the order is wrong");
    ExpectFails("host.expect.equal(nil, 1)", "the value is nil, and 1 is expected");
    ExpectFails("host.send_event(7, 'seven') host.expect.event { number = 1004 }",
                "no event { number = 1004 } has come; there are event 7 \"seven\"");
    ExpectFails("host.expect.event { text = 'x' }", "no event { text = \"x\" } has come; there are none");
    ExpectFails("host.send_event(7, 'seven') host.expect.no_event()", "the event event 7 \"seven\" is not expected");
    ExpectFails("host.expect.error('x', function() end)", "no error is raised, and \"x\" is expected");
    ExpectFails("host.expect.error('x', error, 'y')", "the error is \"y\", and \"x\" is expected");
}

namespace {

/// Writes a script as tested.lua beside the one that runs.
std::string WriteTested(const std::string &text) {
    return "local tested = debug.getinfo(1, 'S').source:sub(2):gsub('[^\\\\/]*$', '') .. "
           "'tested.lua' "
           "local file = assert(io.open(tested, 'w')) file:write([[" +
           text + "]]) file:close()\n";
}

}  // namespace

TEST(HostExpect, RunsAnotherScriptInAProcessOfItsOwnForItsExitStatus) {
    const HostRun run = RunScript(WriteTested(R"(
        assert(select('#', ...) == 3 and select(2, ...) == 'a "quoted" one\\', select(2, ...))
        assert(SLB == nil)
        print("Grüße, " .. ...)
        os.exit(3)
    )") + R"lua(
        require "fc"
        local output = host.expect.status(3, tested, "Jörg", 'a "quoted" one\\', "")
        assert(output:find("Grüße, Jörg", 1, true), output)
        local status, text = host.run_script(tested)
        assert(status == 1 and text:find("tested.lua:1:", 1, true), text)
    )lua",
                                  {L"--quiet"});
    EXPECT_EQ(run.exitCode, 0U) << run.err;
}

TEST(HostExpect, TellsAnotherExitStatusWithTheOutput) {
    const HostRun run =
        RunScript(WriteTested("print 'hello' os.exit(4)") + "host.expect.status(0, tested)", {L"--quiet"});
    EXPECT_EQ(run.exitCode, 1U);
    EXPECT_TRUE(Contains(run.err, "script.lua:2: ")) << run.err;
    EXPECT_TRUE(Contains(run.err, "tested.lua ends with status 4, and 0 is expected; it has printed \"hello"))
        << run.err;
}

TEST(HostExpect, RunsNoScriptWithoutAName) {
    ExpectFails("host.run_script()", "bad argument #1 to 'run_script'");
    ExpectFails("host.run_script('x', {})", "bad argument #2 to 'run_script'");
}

TEST(HostExpect, RunsAScriptWhoseNameLooksLikeAnOption) {
    const HostRun run = RunPassingScript(R"lua(
        local status, output = host.run_script("--help")
        assert(status == 2 and output:find("cannot open --help", 1, true), status .. ": " .. output)
    )lua",
                                         {L"--quiet"});
    EXPECT_EQ(run.err, "");
}

TEST(HostExpect, RunsNoScriptWithAnArgumentThatACommandLineWouldCut) {
    ExpectFails("host.run_script('a\\0b')", "bad argument #1 to 'run_script' (a string without zero bytes expected)");
    ExpectFails("host.run_script('a', 'b', '\\0')",
                "bad argument #3 to 'run_script' (a string without zero bytes expected)");
}

TEST(HostExpect, RefusesWhatIsMisspelt) {
    ExpectFails("host.expect.event { nunber = 1004 }", "there is no field 'nunber'; did you mean number?\n");
    ExpectFails("host.expect.no_event { [true] = 1004 }", "there is no field 'true'\n");
    ExpectFails("host.expect.event { number = '1004' }", "field 'number': number expected, got string");
    ExpectFails("host.expect.no_event { kind = 'evnt' }", "there is no kind of event 'evnt'; did you mean event?\n");
    ExpectFails("host.expect.event { kind = 'notification' }", "there is no kind of event 'notification'\n");
    ExpectFails("host.expect.events {}", "host.expect has no function 'events'; did you mean event?\n");
}
