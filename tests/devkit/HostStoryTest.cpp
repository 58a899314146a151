// The story that ./dev run tells.
#include <regex>

#include <gtest/gtest.h>

#include "HostProcess.h"

namespace {

const std::wstring kStory = TestData("examples/story.lua").wstring();

/// Searches for texts that must follow one another. @return the first that does not; null for none.
const char *FirstMissing(const std::string &text, std::initializer_list<const char *> parts) {
    std::size_t at = 0;
    for (const char *part : parts) {
        at = text.find(part, at);
        if (at == std::string::npos)
            return part;
    }
    return nullptr;
}

/// Searches stacks for a frame with an address instead of a name. The innermost one, which waits in the system, and the
/// outermost ones, in which the system begins a thread, have no names under some versions of Wine.
/// @return empty for none.
std::string FirstNamelessFrame(const std::string &text) {
    static const std::regex nameless(
        R"(\[(0[1-9]|[1-9][0-9]+)\] ([^: ]+:)?(0x)?[0-9A-Fa-f]{8,16}\b[^\\"]*\\n\[[0-9]+\] [A-Za-z_?])");
    std::smatch frame;
    return std::regex_search(text, frame, nameless) ? frame.str() : std::string();
}

}  // namespace

TEST(Story, CoversTheDriversFromTheirInstallationToTheirRemoval) {
    const TemporaryFolder folder;
    const HostRun run = RunHost({L"--clock", L"steps", L"--quiet", L"--report", folder.At(L"report.html"), L"--events",
                                 folder.At(L"events.json"), kStory, L"--out", folder.Path().wstring()});
    ASSERT_EQ(run.exitCode, 0U) << run.out << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(FirstMissing(run.out,
                           {"1. The drivers are installed", "domain on, private on, public off",
                            "outcome                   installed 2.0.0.0", "domain off, private off, public off",
                            "fails open", "recovered", "tcp 443", "vta_stats.txt", "upgraded from 2.0.0.0 to 2.1.0.0",
                            "upgrade from 2.1.0.0 to 2.2.0.0 failed in InstallingDriver, killed after ", "its stack",
                            "it waits in", "CDriverInstallerThread::AttemptInstall", "lost its address", "192.0.2.10",
                            "UninstallDriver", "domain on, private on, public off"}),
              nullptr)
        << run.out;

    const std::string page = TextOfFile(folder.At(L"report.html"));
    EXPECT_EQ(FirstMissing(page, {R"("driverRuns":[)", R"("outcome":"upgraded")", R"("outcome":"failed")",
                                  R"("killed":true)", R"("stack":"[00] )", R"("kind":"removal")"}),
              nullptr);
    EXPECT_EQ(FirstNamelessFrame(page), "");
    EXPECT_EQ(FirstMissing(TextOfFile(folder.At(L"events.json")), {"1007", "1005", "1004"}), nullptr);
    EXPECT_EQ(FirstMissing(TextOfFile(folder.At(L"trace.log")), {"-- 08:00:", "  The drivers are installed",
                                                                 "\nFC-WFW ", "\nNDIS ", "The drivers are removed"}),
              nullptr);
    EXPECT_EQ(TextOfFile(folder.At(L"diagnostics.zip")).substr(0, 2), "PK");
}

TEST(Story, WritesItsTraceWhenItIsInterrupted) {
    const TemporaryFolder folder;
    const std::wstring script = folder.Write(L"script.lua",
                                             "local mark = host.mark\n"
                                             "host.mark = function(text)\n"
                                             "mark(text)\n"
                                             "if text:match('is overloaded') then print 'ready' io.stdout:flush()\n"
                                             "while true do end end\nend\n"
                                             "assert(loadfile(arg[1]))('--out', arg[2])");
    const HostRun run = InterruptHost({L"--quiet", L"--clock", L"steps", script, kStory, folder.At(L"out")});
    EXPECT_EQ(run.exitCode, 130U) << run.err;
    const std::string trace = TextOfFile(folder.At(L"out\\trace.log"));
    EXPECT_EQ(FirstMissing(trace, {"  The drivers are installed", "  The machine is overloaded"}), nullptr) << trace;
}

TEST(Story, NamesTheLineInWhichItDoesNotGoAsPlannedAndWritesItsTrace) {
    const TemporaryFolder folder;
    const std::wstring script = folder.Write(L"script.lua",
                                             "host.machine.when = function() end\n"
                                             "assert(loadfile(arg[1]))('--out', arg[2])");
    const HostRun run = RunHost({L"--quiet", L"--clock", L"steps", script, kStory, folder.At(L"out")});
    EXPECT_EQ(run.exitCode, 1U);
    EXPECT_EQ(FirstMissing(run.err, {"story.lua:", ": nobody sees that the network is broken"}), nullptr) << run.err;
    EXPECT_EQ(FirstMissing(TextOfFile(folder.At(L"out\\trace.log")), {"  The second attempt breaks the network"}),
              nullptr);
}

TEST(Story, PrintsItsUsage) {
    const HostRun slow = RunHost({kStory});
    EXPECT_EQ(slow.exitCode, 1U);
    EXPECT_NE(slow.err.find("story: the day takes a simulated clock: start fc-host with --clock steps"),
              std::string::npos)
        << slow.err;
    const HostRun unknown = RunHost({L"--clock", L"steps", kStory, L"again"});
    EXPECT_EQ(unknown.exitCode, 1U);
    EXPECT_NE(unknown.err.find("unknown argument 'again'; usage: story.lua [--out DIR]"), std::string::npos);
}
