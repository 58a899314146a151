// host.machine, host.use_program_data and host.set_wall_clock of fc-host.exe.
#include <gtest/gtest.h>

#include "HostProcess.h"

namespace {

/// Runs a script whose assertions are the test's; it may use kScriptHelpers, and gets the path as arg[1].
void ExpectPasses(const std::string &script, const std::vector<std::wstring> &options = {},
                  const std::wstring &path = {}) {
    const TemporaryFolder folder;
    std::vector<std::wstring> arguments = options;
    arguments.push_back(folder.Write(L"script.lua", kScriptHelpers + script));
    arguments.push_back(path);
    const HostRun run = RunHost(arguments);
    EXPECT_EQ(run.exitCode, 0U) << run.err;
}

}  // namespace

TEST(HostMachine, HasFourProcessorsAndHalfOfItsMemoryFree) {
    ExpectPasses(R"(
        local machine = host.machine
        assert(machine.processor_queue == 0 and machine.processors == 4)
        assert(machine.memory_total == 8 * 2^30 and machine.memory_available == 4 * 2^30)
    )");
}

TEST(HostMachine, KeepsWhatAScriptSets) {
    for (const bool fast : {false, true}) {
        SCOPED_TRACE(fast);
        ExpectPasses(R"(
            local machine = host.machine
            machine.processor_queue = 12.5
            machine.processors = 64
            machine.memory_total, machine.memory_available = 2^53, 0
            require "fc"
            assert(machine.processor_queue == 12.5 and machine.processors == 64)
            assert(machine.memory_total == 2^53 and machine.memory_available == 0)
        )",
                     fast ? std::vector<std::wstring>{L"--fast", L"10"} : std::vector<std::wstring>{});
    }
}

TEST(HostMachine, HasTheVersionThatAScriptSets) {
    ExpectPasses(R"(
        local machine = host.machine
        assert(machine.os_major == 10 and machine.os_minor == 0 and machine.os_build == 19045)
        machine.os_major, machine.os_minor, machine.os_build = 6, 2, 9200
        assert(machine.os_major == 6 and machine.os_minor == 2 and machine.os_build == 9200)
        local fields = {}
        for name, value in pairs(machine) do fields[name] = value end
        assert(fields.os_build == 9200)
        refused("host.machine.os_major: whole number from 0 to 4294967295 expected", function()
            machine.os_major = 5.1
        end)
    )");
}

TEST(HostMachine, AcceptsAnyNumberForTheQueue) {
    ExpectPasses(R"(
        local machine = host.machine
        machine.processor_queue = -1
        assert(machine.processor_queue == -1)
        machine.processor_queue = math.huge
        assert(machine.processor_queue == math.huge)
        machine.processor_queue = 0 / 0
        assert(machine.processor_queue ~= machine.processor_queue)
    )");
}

TEST(HostMachine, SaysWhichFieldRefusesAValue) {
    ExpectPasses(R"(
        local machine = host.machine
        local function set(name, value) machine[name] = value end
        refused("host.machine.processor_queue: number expected, got string", set, "processor_queue", "long")
        refused("host.machine.processor_queue: number expected, got nil", set, "processor_queue", nil)
        refused("host.machine.processors: whole number from 0 to 4294967295 expected", set, "processors", 4294967296)
        refused("host.machine.processors: whole number", set, "processors", -1)
        refused("host.machine.processors: whole number", set, "processors", 1.5)
        refused("host.machine.memory_total: whole number from 0 to 2^53 expected", set, "memory_total", 2^53 + 2)
        refused("host.machine.memory_available: whole number", set, "memory_available", 0 / 0)
        refused("host.machine has no field 'colour'", set, "colour", 1)
        refused("host.machine has no field 'colour'", function() return machine.colour end)
        assert(machine.processors == 4 and machine.memory_total == 8 * 2^30)
    )");
}

TEST(HostMachine, CreatesTheFoldersOfTheAgentsFiles) {
    const TemporaryFolder folder;
    const std::wstring data = folder.At(L"new\\d\u00E4ta");
    ExpectPasses("host.use_program_data(arg[1]) host.use_program_data(arg[1])", {}, data);
    EXPECT_TRUE(std::filesystem::is_directory(std::filesystem::path(data) / L"filter"));
    EXPECT_TRUE(std::filesystem::is_directory(std::filesystem::path(data) / L"diag"));
}

TEST(HostMachine, KeepsTheAgentsExistingFiles) {
    const TemporaryFolder folder;
    const std::wstring diag = folder.At(L"diag");
    ASSERT_TRUE(std::filesystem::create_directory(diag));
    const std::wstring log = folder.Write(L"diag\\vt_filter_json.log", "{}\n");
    ExpectPasses("host.use_program_data(arg[1])", {}, folder.Path().wstring());
    EXPECT_EQ(TextOfFile(log), "{}\n");
}

TEST(HostMachine, SaysWhichFolderItCannotCreate) {
    const TemporaryFolder folder;
    ExpectPasses(R"(
        refused("(cannot make ", host.use_program_data, arg[1])
        refused("file\\filter: ", host.use_program_data, arg[1])
        refused("a folder's name expected", host.use_program_data, "")
        refused("string expected", host.use_program_data, {})
    )",
                 {}, folder.Write(L"file", "not a folder"));
}

TEST(HostMachine, SetsTheTimeOfDayOfASimulatedClock) {
    ExpectPasses(R"(
        local function is_about(seconds) return host.time() >= seconds and host.time() < seconds + 60 end
        host.set_wall_clock(1000000000)
        assert(is_about(1000000000), host.time())
        assert(os.time() - 1000000000 < 60)
        host.set_wall_clock(0)
        assert(is_about(0), host.time())
        host.advance(3600)
        assert(is_about(3600), host.time())
        host.set_wall_clock(253402300799.5)
        assert(is_about(253402300799), host.time())
        refused("out of range", host.set_wall_clock, 253402300800)
        refused("out of range", host.set_wall_clock, -1)
        refused("out of range", host.set_wall_clock, 0 / 0)
        refused("number expected", host.set_wall_clock, "now")
    )",
                 {L"--fast", L"1"});
}

TEST(HostMachine, CannotSetTheRealTimeOfDay) {
    ExpectPasses(R"(
        local needs = "host.set_wall_clock needs a simulated clock: start fc-host with --clock steps"
        refused(needs, host.set_wall_clock, 0)
        host.machine.processors = 1
        refused(needs, host.set_wall_clock, 0)
    )");
}
