// The clocks of fc-host.exe: the one that stands still unless all wait, and one that is too fast for the machine.
#include <chrono>
#include <thread>

#include <gtest/gtest.h>
#include <windows.h>

#include "HostProcess.h"

namespace {

constexpr DWORD kCannotRun = 2;

bool Has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

/// Runs a script on the stepped clock, whose assertions are the test's.
HostRun RunStepped(const std::string &script) {
    return RunPassingScript(script, {L"--quiet", L"--clock", L"steps"});
}

/// A process that never runs. It has the number that the next one would have had.
class IdleProcess {
public:
    IdleProcess() {
        const std::wstring program = (BinaryFolder() / L"fc-host.exe").wstring();
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        EXPECT_TRUE(CreateProcessW(program.c_str(), nullptr, nullptr, nullptr, FALSE, CREATE_SUSPENDED, nullptr,
                                   nullptr, &startup, &m_process))
            << GetLastError();
    }
    ~IdleProcess() {
        TerminateProcess(m_process.hProcess, 0);
        CloseHandle(m_process.hThread);
        CloseHandle(m_process.hProcess);
    }
    IdleProcess(const IdleProcess &) = delete;
    IdleProcess &operator=(const IdleProcess &) = delete;

private:
    PROCESS_INFORMATION m_process{};
};

/// Runs an example on the stepped clock. @return all that it leaves, as one text.
std::string LeftBy(const wchar_t *example, const TemporaryFolder &folder) {
    const HostRun run = RunHost({L"--quiet", L"--clock", L"steps", L"--report", folder.At(L"report.html"), L"--events",
                                 folder.At(L"events.json"), TestData(example).wstring(), L"--out", folder.At(L"out")});
    EXPECT_EQ(run.exitCode, 0U) << run.err;
    return run.out + run.err + TextOfFile(folder.At(L"report.html")) + TextOfFile(folder.At(L"events.json"));
}

}  // namespace

TEST(SteppedClock, BeginsAtTheSameTimeInEachRunAndStandsStillWhileTheScriptWorks) {
    (void)RunStepped(R"(
        assert(host.time() == 1767225600, host.time())
        assert(os.date("!%Y-%m-%d %H:%M:%S", os.time()) == "2026-01-01 00:00:00")
        local real = os.clock()
        repeat until os.clock() - real > 0.2
        assert(host.time() == 1767225600, host.time())
    )");
}

TEST(SteppedClock, MovesByExactlyWhatACallWaits) {
    const auto begin = std::chrono::steady_clock::now();
    (void)RunStepped(R"(
        require "fc"
        local begin = host.time()
        host.sleep(0.25)
        assert(host.time() - begin == 0.25)
        host.sleep(3600)
        host.advance(400)
        assert(host.time() - begin == 4000.25)
        host.machine.put_service("qbimwfp", "stopped")
        host.fault { call = "StartServiceW", delay = 7.5 }
        begin = host.time()
        assert(SLB.filter.StartWFPDriver(false))
        assert(host.time() - begin == 7.5, host.time() - begin)
        host.set_wall_clock(0)
        assert(host.time() == 0)
    )");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::minutes(2));
}

TEST(SteppedClock, IsTheSameForAllThreadsOfARemovalInEachRun) {
    const std::string script = R"(
        require "fc"
        local machine = host.machine
        machine.put_component { id = "qbimvta" }
        machine.put_service("qbimwfp", "running")
        host.set_verbose_log(true)
        host.fault { call = "INetCfg::Apply", delay = 2.5 }
        local folder = machine.folders().program_files
        local function remove()
            local begin = host.time()
            local removed = SLB.filter.UninstallDriver(host.dom(), folder, folder)
            print(removed, host.time() - begin)
            for _, line in ipairs(host.log()) do
                print(line.time - begin, (line.text:gsub("\n.*", ""):gsub("fc%-devkit%-%d+", "")))
            end
        end
        host.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, hang = true }
        remove()
        remove()
    )";
    const HostRun first = RunStepped(script);
    EXPECT_TRUE(Has(first.out, ">UninstallingDriver. 600s max")) << first.out;
    EXPECT_TRUE(Has(first.out, "Stack trace:")) << first.out;
    EXPECT_TRUE(first.out.starts_with("false\t60")) << first.out;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(RunStepped(script).out, first.out);
}

TEST(SteppedClock, LetsACallThatHangsGoOnWhenItsFaultIsCleared) {
    (void)RunStepped(R"(
        require "fc"
        host.machine.put_component { id = "qbimvta" }
        host.fault { call = "TerminateThread", fail = 5 }
        host.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, hang = true, advance = 601 }
        local folder = host.machine.folders().program_files
        assert(not SLB.filter.UninstallDriver(host.dom(), folder, folder))
        assert(#host.machine.inventory().components == 1)
        host.clear_faults()
        host.sleep(1)
        assert(#host.machine.inventory().components == 0, "the worker has not gone on")
    )");
}

TEST(SteppedClock, GivesUpAnInstallationThatStandsStillForAnHour) {
    (void)RunStepped(R"(
        require "fc"
        local machine = host.machine
        local folder = machine.folders().program_files
        host.driver.present = false
        machine.put_adapter { node = "A", name = "Ethernet", ip = "192.0.2.10" }
        machine.write_driver(folder .. "qbimvta.sys", "2.0.0.0")
        machine.put_installable { id = "qbimvta", loads = "2.0.0.0" }
        host.fault { call = "GetAdaptersInfo", hang = true } -- on the watchdog itself, which nobody kills
        local begin = host.time()
        assert(not SLB.filter.InstallOrUpdateDriver(host.dom(), folder, folder))
        local seconds = host.time() - begin
        assert(seconds > 3600 and seconds < 3700, seconds)
    )");
}

TEST(SteppedClock, MakesTheExamplesTheSameInEachRun) {
    for (const wchar_t *example : {L"examples/health.lua", L"examples/story.lua"}) {
        SCOPED_TRACE(std::filesystem::path(example).string());
        std::string first;
        {
            const TemporaryFolder folder;
            first = LeftBy(example, folder);
            std::filesystem::rename(folder.At(L"out"), folder.At(L"first"));
            EXPECT_EQ(LeftBy(example, folder), first);
        }
        EXPECT_GT(first.size(), 10'000U);
    }
}

// The paths of the machine are in the module's traces and logs.
TEST(SteppedClock, FindsTheFoldersOfTheMachineUnderTheSameNamesInEachRun) {
    const TemporaryFolder folder;
    const std::wstring script = folder.Write(L"script.lua", "io.write(host.machine.folders().windows)");
    const HostRun first = RunHost({L"--clock", L"steps", script});
    const IdleProcess idle;
    EXPECT_EQ(RunHost({L"--clock", L"steps", script}).out, first.out);
    EXPECT_NE(first.out, "");
}

TEST(SteppedClock, HasFoldersOfItsOwnWhileTheSameScriptRunsASecondTime) {
    const TemporaryFolder folder;
    const std::wstring script = folder.Write(L"script.lua", R"(
        local here = arg[0]:match("^.*[/\\]")
        local function write(name)
            local file = assert(io.open(here .. name, "w"))
            file:write(host.machine.folders().windows)
            file:close()
        end
        if io.open(here .. "first") then
            return write "second"
        end
        write "first"
        for _ = 1, 600 do
            if io.open(here .. "second") then return end
            host.sleep(0.1)
        end
        error "there is no second run"
    )");
    HostRun first;
    std::thread running([&] { first = RunHost({script}); });
    for (int i = 0; i < 600 && !std::filesystem::exists(folder.At(L"first")); ++i)
        Sleep(100);
    const HostRun second = RunHost({script});
    running.join();
    EXPECT_EQ(first.exitCode, 0U) << first.err;
    EXPECT_EQ(second.exitCode, 0U) << second.err;
    EXPECT_NE(TextOfFile(folder.At(L"first")), TextOfFile(folder.At(L"second")));
}

TEST(SteppedClock, IsOneOfTwo) {
    const HostRun both = RunScript("", {L"--clock", L"steps", L"--fast", L"2"});
    EXPECT_EQ(both.exitCode, kCannotRun);
    EXPECT_TRUE(Has(both.err, "--clock steps and --fast are two clocks; leave out one of them")) << both.err;
    const HostRun unknown = RunScript("", {L"--clock", L"step"});
    EXPECT_EQ(unknown.exitCode, kCannotRun);
    EXPECT_TRUE(Has(unknown.err, "option --clock needs a value: steps")) << unknown.err;
    const HostRun real = RunScript("assert(not pcall(host.advance, 1))", {L"--clock", L"real"});
    EXPECT_EQ(real.exitCode, 0U) << real.err;
}

TEST(FastClock, SaysOnceThatItIsTooFastForTheMachine) {
    const HostRun run = RunScript("for _ = 1, 5 do host.sleep(1) end", {L"--quiet", L"--fast", L"1000000"});
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_TRUE(Has(run.err, "fc-host: --fast 1000000 is too fast for this machine: a wait ended ")) << run.err;
    EXPECT_TRUE(run.err.ends_with(" s late. Take a smaller number, or --clock steps\n")) << run.err;
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
    EXPECT_EQ(RunScript("host.sleep(1)", {L"--quiet", L"--fast", L"2"}).err, "");
}
