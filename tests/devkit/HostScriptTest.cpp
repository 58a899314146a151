// fc-host.exe: how it runs a script or the prompt.
#include <gtest/gtest.h>

#include "HostProcess.h"

namespace {

bool Contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST(HostScript, ExitsWithTheIntegerOrBooleanThatTheScriptReturns) {
    EXPECT_EQ(RunScript("return 7").exitCode, 7U);
    EXPECT_EQ(RunScript("return 255").exitCode, 255U);
    EXPECT_EQ(RunScript("return").exitCode, 0U);
    EXPECT_EQ(RunScript("return nil, 5").exitCode, 0U);
    EXPECT_EQ(RunScript("return true").exitCode, 0U);
    EXPECT_EQ(RunScript("return false").exitCode, 1U);
}

TEST(HostScript, AnInvalidResultIsReportedAndExitsWithOne) {
    const std::pair<const char *, const char *> results[] = {
        {"return 'text'", "string"}, {"return 1.5", "1.5"}, {"return -1", "-1"}, {"return 256", "256"}};
    for (const auto &[script, told] : results) {
        const HostRun run = RunScript(script);
        EXPECT_EQ(run.exitCode, 1U) << script;
        EXPECT_EQ(run.err, std::string("fc-host: the script returns ") + told +
                               "; nothing, a boolean or a whole number from 0 to 255 expected\n");
    }
}

TEST(HostScript, HonoursOsExit) {
    EXPECT_EQ(RunScript("os.exit(5)").exitCode, 5U);
    EXPECT_EQ(RunScript("os.exit()").exitCode, 0U);
    EXPECT_EQ(RunScript("os.exit(false)").exitCode, 1U);
    EXPECT_EQ(RunScript("os.exit(true, true)").exitCode, 0U);
    const HostRun odd = RunScript("os.exit(256)");
    EXPECT_EQ(odd.exitCode, 1U);
    EXPECT_TRUE(Contains(odd.err, "bad argument #1 to 'exit'")) << odd.err;
}

TEST(HostScript, AnErrorExitsWithOneAndATraceback) {
    const HostRun run = RunScript("print 'before'\nlocal function f() error('it broke') end\nf()");
    EXPECT_EQ(run.exitCode, 1U);
    EXPECT_EQ(run.out, "before\n");
    EXPECT_TRUE(Contains(run.err, "script.lua:2: it broke\nstack traceback:\n")) << run.err;
    EXPECT_TRUE(Contains(run.err, "script.lua:3: in main chunk")) << run.err;
}

TEST(HostScript, DescribesAnErrorThatIsNotAString) {
    EXPECT_TRUE(Contains(RunScript("error({})").err, "fc-host: (error object is a table value)"));
    const HostRun speaking = RunScript("error(setmetatable({}, {__tostring = function() return 'spoken' end}))");
    EXPECT_EQ(speaking.exitCode, 1U);
    EXPECT_EQ(speaking.err, "fc-host: spoken\n");
}

TEST(HostScript, ASyntaxErrorNamesTheLine) {
    const HostRun run = RunScript("local x = 1\nif then");
    EXPECT_EQ(run.exitCode, 1U);
    EXPECT_TRUE(Contains(run.err, "script.lua:2: unexpected symbol near 'then'")) << run.err;
}

TEST(HostScript, SkipsAByteOrderMarkAndAShebangLine) {
    const HostRun run = RunScript("\xEF\xBB\xBF#!/usr/bin/fc-host\nerror('here')");
    EXPECT_TRUE(Contains(run.err, "script.lua:2: here")) << run.err;
    EXPECT_EQ(RunScript("#only this line").exitCode, 0U);
}

TEST(HostScript, PassesItsArgumentsAsUtf8) {
    const TemporaryFolder folder;
    const std::wstring script = folder.Write(L"script.lua",
                                             "local first, second = ...\n"
                                             "assert(arg[0]:match('script%.lua$'), arg[0])\n"
                                             "assert(#arg == 2 and arg[1] == first and arg[2] == second)\n"
                                             "print(first, second)");
    const HostRun run = RunHost({script, L"--quiet", L"\u00FC\u4E2D \U0001F600"});
    EXPECT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_EQ(run.out, "--quiet\t\xC3\xBC\xE4\xB8\xAD \xF0\x9F\x98\x80\n");
}

TEST(HostScript, RunsAScriptWhoseNameIsNotAscii) {
    const TemporaryFolder folder;
    const std::wstring script =
        folder.Write(L"pr\u00FCfung-\u4E2D.lua", "print(arg[0]:match('[^\\\\/]+$')) error('x')");
    const HostRun run = RunHost({script});
    EXPECT_EQ(run.exitCode, 1U);
    EXPECT_EQ(run.out,
              "pr\xC3\xBC"
              "fung-\xE4\xB8\xAD.lua\n");
    EXPECT_TRUE(Contains(run.err,
                         "pr\xC3\xBC"
                         "fung-\xE4\xB8\xAD.lua:1: x"))
        << run.err;
}

TEST(HostScript, OpensFilesByUtf8Names) {
    const TemporaryFolder folder;
    const std::wstring data = folder.Write(L"d\u00E4ta.txt", "one\ntwo\n");
    const std::wstring script = folder.Write(L"script.lua", R"(
        local file = assert(io.open(arg[1]))
        assert(io.type(file) == "file" and file:read("*a") == "one\ntwo\n")
        assert(file:close())
        local ok, message, number = io.open(arg[1] .. ".none")
        assert(ok == nil and message:match("No such file") and number == 2, message)
        assert(not pcall(io.open, arg[1], "q"))
        local new = assert(io.open(arg[1] .. ".new", "wb"))
        assert(new:write("three") and new:close())
        for line in io.open(arg[1] .. ".new"):lines() do assert(line == "three") end
    )");
    const HostRun run = RunHost({script, data});
    EXPECT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_EQ(TextOfFile(data + L".new"), "three");
}

TEST(HostScript, FindsTheModuleBesideItself) {
    const HostRun run = RunScript("assert(require 'fc' == true) print(type(SLB.filter.AddToConnMetrics))");
    EXPECT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_EQ(run.out, "function\n");
}

TEST(HostScript, ThePromptPrintsValuesAndErrors) {
    const HostRun run = RunHost({L"-i"},
                                "1 + 1\n=2, 'two'\nx = 3\r\nx\n"
                                "for i = 1, 2 do\nprint('row', i)\nend\n"
                                "error('oops')\n)\nhost.driver.present");
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_EQ(run.out, "2\n2\ttwo\n3\nrow\t1\nrow\t2\ntrue\n");
    EXPECT_TRUE(Contains(run.err, "fc-host: prompt:1: oops\n")) << run.err;
    EXPECT_TRUE(Contains(run.err, "fc-host: prompt:1: unexpected symbol near ')'")) << run.err;
}

TEST(HostScript, ThePromptHonoursOsExit) {
    EXPECT_EQ(RunHost({L"-i"}, "os.exit(9)\nprint('no')\n").exitCode, 9U);
}
