// fc-host.exe: the effect of Ctrl-C on a run.
#include <set>

#include <gtest/gtest.h>

#include "HostProcess.h"
#include "SimulatorTestSupport.h"

namespace {

constexpr DWORD kInterrupted = 130;
const std::string kReady = "print 'ready' io.stdout:flush()\n";
constexpr const char *kForced = "what is still at work is ended";

bool Contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

class HostInterruption : public ::testing::Test {
protected:
    /// Runs the script with a report and an events file, and interrupts it when it reports that it is ready.
    HostRun Run(const std::string &script, unsigned times = 1) {
        return InterruptHost({L"--quiet", L"--fast", L"1", L"--events", events, L"--report", report,
                              folder.Write(L"script.lua", script), folder.Path().wstring()},
                             times);
    }
    /// No file of a run but those: no temporary ones.
    void ExpectFiles(std::set<std::wstring> names) const {
        names.insert(L"script.lua");
        std::set<std::wstring> there;
        for (const auto &entry : std::filesystem::directory_iterator(folder.Path()))
            there.insert(entry.path().filename().wstring());
        EXPECT_EQ(there, names);
    }

    /// The arguments of a host whose script runs another one, which catches every error, holds a file open, and goes on
    /// until there is a file "stop".
    std::vector<std::wstring> RunsALoopingScript() const {
        const std::wstring looping = folder.Write(L"looping.lua", R"(
            local folder = ...
            local held = assert(io.open(folder .. "/held", "w"))
            held:write("ready")
            held:flush()
            local function is_stopped() return io.open(folder .. "/stop") ~= nil end
            while not is_stopped() do pcall(function() while not is_stopped() do end end) end
        )");
        return {L"--quiet", folder.Write(L"script.lua", "host.run_script(...)"), looping, folder.Path().wstring()};
    }
    /// The file that the looping script holds open can be removed as soon as that has ended.
    void ExpectTheLoopingScriptEnds() const {
        EXPECT_TRUE(SimulatorTest::Eventually([this] {
            std::error_code held_open;
            return std::filesystem::remove(held, held_open);
        }));
        (void)folder.Write(L"stop", "");
    }

    TemporaryFolder folder;
    const std::wstring held = folder.At(L"held");
    const std::wstring events = folder.At(L"events.json");
    const std::wstring report = folder.At(L"report.html");
};

}  // namespace

TEST_F(HostInterruption, EndsALoopingScriptWith130AndWritesWhatWasCollected) {
    const HostRun run = Run("host.send_event(7, 'before')\nhost.mark('a mark')\n" + kReady + "while true do end");
    EXPECT_EQ(run.exitCode, kInterrupted);
    EXPECT_TRUE(Contains(run.err, "interrupted\nstack traceback:\n")) << run.err;
    EXPECT_TRUE(Contains(run.err, "script.lua:4: in main chunk")) << run.err;
    EXPECT_TRUE(Contains(TextOfFile(events), "\"before\""));
    EXPECT_TRUE(Contains(TextOfFile(report), "a mark"));
    ExpectFiles({L"events.json", L"report.html"});
}

TEST_F(HostInterruption, EndsASleepOnTheSimulatedClock) {
    const HostRun run = Run(kReady + "host.sleep(4000000)");
    EXPECT_EQ(run.exitCode, kInterrupted);
    EXPECT_TRUE(Contains(run.err, "script.lua:2: ")) << run.err;
    EXPECT_FALSE(Contains(run.err, kForced)) << run.err;
}

TEST_F(HostInterruption, EndsALongCallOfTheModuleAndWritesWhatWasCollected) {
    const HostRun run =
        Run("require 'fc'\nhost.send_event(7, 'before')\nhost.machine.put_component { id = 'qbimvta' }\n"
            "host.fault { call = 'INetCfgClassSetup::DeInstall', delay = 3000 }\n"
            "local folder = host.machine.folders().program_files\n" +
            kReady + "SLB.filter.UninstallDriver(host.dom(), folder, folder)");
    EXPECT_EQ(run.exitCode, kInterrupted);
    EXPECT_TRUE(Contains(run.err, kForced)) << run.err;
    EXPECT_TRUE(Contains(TextOfFile(events), "\"before\""));
    EXPECT_TRUE(Contains(TextOfFile(report), "\"kind\":\"removal\""));
    ExpectFiles({L"events.json", L"report.html"});
}

TEST_F(HostInterruption, EndsAScriptThatCatchesEveryError) {
    const HostRun run = Run(kReady + "while true do pcall(function() while true do end end) end");
    EXPECT_EQ(run.exitCode, kInterrupted);
    EXPECT_TRUE(Contains(run.err, kForced)) << run.err;
    EXPECT_EQ(TextOfFile(events), "[]\n");
}

TEST_F(HostInterruption, EndsAScriptThatRunsAnotherOneAndThatOne) {
    const HostRun run = InterruptHost(RunsALoopingScript(), 1, {}, held);
    EXPECT_EQ(run.exitCode, kInterrupted);
    EXPECT_TRUE(Contains(run.err, "interrupted\nstack traceback:\n")) << run.err;
    EXPECT_FALSE(Contains(run.err, kForced)) << run.err;
    ExpectTheLoopingScriptEnds();
}

TEST_F(HostInterruption, AHostThatIsKilledLeavesNoOtherOneBehind) {
    KillHost(RunsALoopingScript(), held);
    ExpectTheLoopingScriptEnds();
}

TEST_F(HostInterruption, GivesAScriptTimeToWriteItsResults) {
    const HostRun run = Run("assert(not host.interrupted())\n" + kReady +
                            "local ok, message = pcall(function() while true do end end)\n"
                            "assert(not ok and host.interrupted(), message)\n"
                            "host.write_json((...) .. '/result.json', { rows = 5 })\nos.exit(0)");
    EXPECT_EQ(run.exitCode, kInterrupted);
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(Contains(TextOfFile(folder.At(L"result.json")), "5"));
    ExpectFiles({L"events.json", L"report.html", L"result.json"});
}

TEST_F(HostInterruption, EndsTheProgramAtOnceTheSecondTimeAndKeepsOlderFiles) {
    (void)folder.Write(L"events.json", "older events");
    (void)folder.Write(L"report.html", "older report");
    const HostRun run = Run(kReady + "while true do pcall(function() while true do end end) end", 2);
    EXPECT_EQ(run.exitCode, kInterrupted);
    EXPECT_FALSE(Contains(run.err, kForced)) << run.err;
    EXPECT_EQ(TextOfFile(events), "older events");
    EXPECT_EQ(TextOfFile(report), "older report");
    ExpectFiles({L"events.json", L"report.html"});
}

TEST_F(HostInterruption, LeavesNoIncompletePackage) {
    (void)folder.Write(L"whole.zip", "older package");
    const HostRun run = Run("local zip, other = host.zip((...) .. '/whole.zip'), host.zip((...) .. '/new.zip')\n" +
                            kReady + "while true do end");
    EXPECT_EQ(run.exitCode, kInterrupted);
    EXPECT_EQ(TextOfFile(folder.At(L"whole.zip")), "older package");
    ExpectFiles({L"events.json", L"report.html", L"whole.zip"});
}

TEST_F(HostInterruption, EndsThePromptToo) {
    const HostRun run = InterruptHost({L"-i"}, 1, "print 'ready' io.stdout:flush() while true do end\nprint 'next'\n");
    EXPECT_EQ(run.exitCode, kInterrupted);
    EXPECT_EQ(run.out, "ready\n");
    EXPECT_TRUE(Contains(run.err, "prompt:1: in main chunk")) << run.err;
}

TEST_F(HostInterruption, KeepsOlderFilesWhileTheScriptRuns) {
    (void)folder.Write(L"events.json", "older events");
    (void)folder.Write(L"report.html", "older report");
    const std::wstring script = folder.Write(L"script.lua",
                                             "for _, path in ipairs(arg) do\n"
                                             "assert(io.open(path):read('*a'):match('^older'))\nend");
    const HostRun run = RunHost({L"--events", events, L"--report", report, script, events, report});
    EXPECT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_EQ(TextOfFile(events), "[]\n");
    EXPECT_TRUE(Contains(TextOfFile(report), "<html"));
}
