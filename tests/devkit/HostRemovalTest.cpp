// What fc-host.exe offers for a removal of the drivers: installation, faults and log; and the example of it.
#include <gtest/gtest.h>

#include "HostProcess.h"

namespace {

const std::wstring kRemovalExample = TestData("examples/removal.lua").wstring();

bool Has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

/// Runs a script whose assertions are the test's. It may use kScriptHelpers and these:
/// - remove() removes the drivers, and returns the result and the log's lines as one text.
HostRun RunRemovalScript(const std::string &script, const std::vector<std::wstring> &options = {L"--quiet"}) {
    std::vector<std::wstring> all = options;
    all.insert(all.end(), {L"--fast", L"1"});
    return RunPassingScript(kScriptHelpers + R"(
        local machine = host.machine
        local function remove()
            require "fc"
            local folder = machine.folders().program_files
            local removed = SLB.filter.UninstallDriver(host.dom(), folder, folder)
            local texts = {}
            for i, line in ipairs(host.log()) do texts[i] = line.text end
            return removed, table.concat(texts, "\n")
        end
    )" + script,
                            all);
}

}  // namespace

TEST(HostRemoval, FindsNothingInstalledAtFirst) {
    (void)RunRemovalScript(R"(
        local there = machine.inventory()
        for _, name in ipairs { "components", "devices", "services", "inf_files", "keys", "left_to_boot" } do
            assert(next(there[name]) == nil, name)
        end
        assert(there.lock == nil)
    )");
}

TEST(HostRemoval, FindsWhatTheScriptHasInstalled) {
    (void)RunRemovalScript(R"(
        machine.put_component { id = "two" }
        machine.put_component { id = "one", result = 0x80004005, stays = true }
        machine.put_device { id = "ROOT\\B" }
        machine.put_device { id = "ROOT\\A", description = "gr\195\188n", component = "one" }
        machine.put_service("driver", "stopping")
        machine.put_key("SYSTEM\\Somewhere\\Below")
        machine.lock_network("another program")
        write(machine.folders().inf .. "oem7.inf", "x")
        local there = machine.inventory()
        assert(table.concat(there.components, " ") == "two one")
        assert(table.concat(there.devices, " ") == "ROOT\\A ROOT\\B")
        assert(there.services.driver == "stopping")
        assert(there.keys[1] == "SYSTEM\\Somewhere\\Below" and #there.keys == 1)
        assert(there.inf_files[1] == "oem7.inf" and #there.inf_files == 1)
        assert(there.lock == "another program")
    )");
}

TEST(HostRemoval, HasFoldersUntilTheProgramEnds) {
    for (const char *end : {"", "os.exit(0)", "os.exit(0, true)"}) {
        SCOPED_TRACE(end);
        const HostRun run = RunRemovalScript(std::string(R"(
            local folders = machine.folders()
            for _, name in ipairs { "windows", "system", "inf", "catalogs", "program_files" } do
                write(folders[name] .. "file", "x")
            end
            io.write(folders.windows)
        )") + end);
        ASSERT_TRUE(Has(run.out, "fc-devkit-")) << run.out;
        EXPECT_FALSE(std::filesystem::exists(run.out)) << run.out;
    }
}

TEST(HostRemoval, RejectsUnknownFieldsAndStates) {
    (void)RunRemovalScript(R"(
        refused("there is no field 'stay'", machine.put_component, { id = "a", stay = true })
        refused("field 'id': string expected, got nil", machine.put_component, {})
        refused("field 'result': ok, reboot or a number", machine.put_component, { id = "a", result = "good" })
        refused("field 'result': whole number", machine.put_component, { id = "a", result = 0.5 })
        refused("field 'stays': boolean expected", machine.put_component, { id = "a", stays = 1 })
        refused("field 'description': string expected", machine.put_device, { id = "a", description = 1 })
        refused("table expected", machine.put_device, "a")
        refused("stopped, starting, stopping, running or paused", machine.put_service, "a", "idle")
        refused("SetupUninstallOEMInfW or InstallHinfSectionW expected", machine.lack, "DeleteFileW")
        local there = machine.inventory()
        assert(#there.components == 0 and #there.devices == 0 and next(there.services) == nil)
    )");
}

TEST(HostRemoval, RemovesTheComponentAndItsDevice) {
    (void)RunRemovalScript(R"(
        machine.put_component { id = "qbimvta", result = "reboot" }
        machine.put_device { id = "ROOT\\QBIMVTA_MP\\0000", description = "x", component = "qbimvta" }
        machine.put_device { id = "OTHER", description = "x" }
        local removed, log = remove()
        assert(removed and not log:find(">ApplyingInetCfgChanges", 1, true), log)
        local there = machine.inventory()
        assert(#there.components == 0 and #there.devices == 1 and there.devices[1] == "OTHER")
    )");
}

TEST(HostRemoval, KeepsAComponentWhoseRemovalFails) {
    (void)RunRemovalScript(R"(
        machine.put_component { id = "qbimvta", result = 0x80004005 }
        local removed = remove()
        local events = host.events()
        assert(not removed and #machine.inventory().components == 1)
        assert(#events == 1 and events[1].number == 3005, #events)
        assert(events[1].text:find("INetCfgClassSetup::DeInstall|", 1, true), events[1].text)
        assert(events[1].text:find("(0x80004005", 1, true), events[1].text)
    )");
}

TEST(HostRemoval, DeletesOnlyTheServicesThatTheSectionNames) {
    (void)RunRemovalScript(R"(
        write(machine.folders().program_files .. "netqbimwfp.inf",
            "[DefaultUninstall]\r\nDelService = alpha\r\n[defaultuninstall.services]\r\n" ..
            "delservice=qbimwfp,0x200 ; gone\r\n[Other.Services]\r\nDelService = beta\r\n")
        for _, name in ipairs { "qbimwfp", "alpha", "beta" } do machine.put_service(name, "running") end
        assert(remove())
        local services = machine.inventory().services
        assert(services.qbimwfp == nil and services.alpha == "running" and services.beta == "running")
    )");
}

TEST(HostRemoval, ReportsWhoHoldsTheLock) {
    (void)RunRemovalScript(R"(
        machine.put_component { id = "qbimvta" }
        machine.lock_network("another program")
        assert(not remove())
        local events = host.events()
        assert(events[1].kind == "user" and events[1].text:find("another program", 1, true), events[1].text)
        assert(events[2].text:find("INetCfgLock::AcquireWriteLock|", 1, true), events[2].text)
        assert(machine.inventory().lock == "another program")
    )");
}

TEST(HostRemoval, CanLackAFunctionForInfFiles) {
    (void)RunRemovalScript(R"(
        machine.lack("SetupUninstallOEMInfW")
        write(machine.folders().inf .. "oem1.inf", string.rep("qbimvta ", 12) .. "the end of it")
        local removed, log = remove()
        assert(removed and log:find("SetupUninstallOEMInfW() is at address 0x0000000000000000", 1, true), log)
        assert(#machine.inventory().inf_files == 0)
    )");
}

TEST(HostRemoval, WaitsNoLongerForALockThatWasReleased) {
    (void)RunRemovalScript(R"(
        machine.put_component { id = "qbimvta" }
        machine.unlock_network() -- nobody holds it
        machine.lock_network("Another installer")
        local removed, log = remove()
        assert(not removed and machine.inventory().lock == "Another installer", log)
        machine.unlock_network()
        assert(machine.inventory().lock == nil)
        removed, log = remove()
        assert(removed and #machine.inventory().components == 0, log)
    )");
}

TEST(HostRemoval, ComesToNothingWhereItsThreadCannotBeMadeOrStarted) {
    for (const char *call : {"_beginthreadex", "ResumeThread"}) {
        SCOPED_TRACE(call);
        const HostRun run = RunRemovalScript("local call = '" + std::string(call) + "'" + R"(
            machine.put_component { id = "qbimvta" }
            host.fault { call = call, nth = 1, fail = 8 }
            local removed, log = remove()
            assert(not removed and #machine.inventory().components == 1, log)
            assert(remove() and #machine.inventory().components == 0)
        )");
        EXPECT_FALSE(Has(run.err, "never struck")) << run.err;
    }
}

TEST(HostRemoval, GoesOnWithoutTheHelperThatGuardsTheStack) {
    const HostRun run = RunRemovalScript(R"(
        machine.put_component { id = "qbimvta" }
        host.set_verbose_log(true)
        host.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, hang = true, advance = 601 }
        host.fault { call = "CreateThread", fail = 8 }
        local removed, log = remove()
        assert(not removed and log:find("Stack trace:", 1, true), log)
    )");
    EXPECT_FALSE(Has(run.err, "never struck")) << run.err;
}

TEST(HostFault, FailsTheNamedCallUntilItIsCleared) {
    (void)RunRemovalScript(R"(
        require "fc"
        machine.put_service("qbimwfp", "stopped")
        host.fault { call = "StartServiceW", nth = 2, fail = 5 }
        assert(SLB.filter.StartWFPDriver(true))
        machine.put_service("qbimwfp", "stopped")
        assert(not SLB.filter.StartWFPDriver(true))
        assert(SLB.filter.StartWFPDriver(true))
        machine.put_service("qbimwfp", "stopped")
        host.fault { call = "StartServiceW", fail = 5 }
        assert(not SLB.filter.StartWFPDriver(true))
        assert(not SLB.filter.StartWFPDriver(true))
        host.clear_faults()
        assert(SLB.filter.StartWFPDriver(true))
    )");
}

TEST(HostFault, DelaysACall) {
    (void)RunRemovalScript(R"(
        require "fc"
        local begin = host.time()
        host.fault { call = "OpenSCManagerW", delay = 0.3 }
        assert(SLB.filter.StopWFPDriver(false))
        assert(host.time() - begin >= 0.29)
    )");
}

TEST(HostFault, DelaysAndFailsACallByTwoFaults) {
    (void)RunRemovalScript(R"(
        require "fc"
        machine.put_service("qbimwfp", "stopped")
        host.fault { call = "StartServiceW", delay = 0.3 }
        host.fault { call = "StartServiceW", nth = 1, fail = 5 }
        local begin = host.time()
        assert(not SLB.filter.StartWFPDriver(true))
        assert(host.time() - begin >= 0.29)
    )");
}

TEST(HostFault, AffectsAllCallsOfTheSystemEvenWithoutASimulatedClock) {
    const HostRun run = RunScript(R"(
        for _, call in ipairs { "INetCfg::EnumComponents", "INetCfgComponent::GetId", "Sleep", "GlobalMemoryStatusEx" } do
            host.fault { call = call, delay = 0 }
        end
        require "fc"
        host.machine.put_service("qbimwfp", "running")
        host.fault { call = "GetTickCount", delay = 0.3 }
        local begin = host.time()
        assert(SLB.filter.StopWFPDriver(true))
        assert(host.time() - begin >= 0.29)
    )");
    EXPECT_EQ(run.exitCode, 0U) << run.err;
}

TEST(HostFault, RejectsInvalidFaults) {
    (void)RunRemovalScript(R"(
        refused("no call of that name is simulated: 'INetCfg::Go'", host.fault, { call = "INetCfg::Go", fail = 5 })
        refused("no call of that name is simulated: 'INetCfg::AddRef'", host.fault, { call = "INetCfg::AddRef", fail = 5 })
        local counted = "CreateMutexW" -- the simulator can count it, but the host does not
        refused("no call of that name is simulated: '" .. counted, host.fault, { call = counted, fail = 5 })
        refused("Sleep can't fail: it can only be late, or hang", host.fault, { call = "Sleep", fail = 5 })
        local one = "one of fail, hang and delay expected"
        refused(one, host.fault, { call = "INetCfg::Apply" })
        refused(one, host.fault, { call = "INetCfg::Apply", hang = false })
        refused(one, host.fault, { call = "INetCfg::Apply", fail = 5, delay = 1 })
        refused(one, host.fault, { call = "INetCfg::Apply", fail = 0, hang = true })
        refused(one, host.fault, { call = "INetCfg::Apply", delay = 1, hang = true })
        refused("field 'nth': calls are counted from 1", host.fault, { call = "INetCfg::Apply", nth = 0, fail = 5 })
        refused("there is no field 'error'", host.fault, { call = "INetCfg::Apply", error = 5 })
        refused("field 'fail': number out of range", host.fault, { call = "INetCfg::Apply", fail = -1 })
        refused("field 'nth': whole number", host.fault, { call = "INetCfg::Apply", nth = 1.5, fail = 5 })
        refused("field 'advance': only for a call that hangs", host.fault, { call = "INetCfg::Apply", fail = 5, advance = 1 })
    )");
    const HostRun run = RunScript("host.fault { call = 'INetCfg::Apply', hang = true, advance = 1 }");
    EXPECT_TRUE(Has(run.err, "field 'advance' needs a simulated clock: start fc-host with --clock steps")) << run.err;
}

TEST(HostLog, ReturnsTheLinesOfAllThreadsInChronologicalOrder) {
    const HostRun run = RunRemovalScript(R"(
        require "fc"
        local begin = host.time()
        machine.put_service("qbimwfp", "stopped")
        host.fault { call = "StartServiceW", nth = 1, fail = 5 }
        assert(not SLB.filter.StartWFPDriver(true))
        SLB.filter.UninstallDriver(host.dom(), "C:\\", "C:\\")
        local lines = host.log()
        assert(lines[1].level == "error" and lines[1].text == "StartService: error=5", lines[1].text)
        assert(lines[2].level == "message" and lines[2].text == ">ThreadRunning. 3600s max", lines[2].text)
        assert(lines[3].text == " UninstallDriver running.", lines[3].text)
        assert(lines[#lines].text == "<ThreadRunning", lines[#lines].text)
        for i = 2, #lines do assert(lines[i].time >= lines[i - 1].time) end
        assert(math.abs(lines[1].time - begin) < 60)
        assert(#host.log() == 0)
    )",
                                         {});
    EXPECT_TRUE(Has(run.err, "  error   StartService: error=5\n")) << run.err;
    EXPECT_TRUE(Has(run.err, "log     >ThreadRunning. 3600s max\n")) << run.err;
}

TEST(HostLog, HasVerboseLinesOnlyIfEnabled) {
    const std::string script = R"(
        write(machine.folders().program_files .. "netqbimwfp.inf", "")
        machine.put_service("qbimwfp", "stopped")
        host.set_verbose_log(wanted)
        local _, log = remove()
        assert((log:find("InstallHinfSectionW: executing", 1, true) ~= nil) == wanted, log)
    )";
    EXPECT_TRUE(Has(RunRemovalScript("local wanted = true" + script, {}).err, "verbose InstallHinfSectionW: "));
    EXPECT_FALSE(Has(RunRemovalScript("local wanted = false" + script, {}).err, "InstallHinfSectionW: "));
}

TEST(RemovalExample, ShowsWhereTheFirstRemovalHangsAndThatTheSecondSucceeds) {
    const HostRun run = RunHost({L"--clock", L"steps", L"--quiet", kRemovalExample});
    ASSERT_EQ(run.exitCode, 0U) << run.out << run.err;
    EXPECT_EQ(run.err, "");
    const std::size_t second = run.out.find("\nThe second removal");
    ASSERT_NE(second, std::string::npos) << run.out;
    const std::string first = run.out.substr(0, second);
    const std::string result = "UninstallDriver returns false after ";
    const std::size_t step = first.find("  >UninstallingDriver. 600s max\n");
    const std::size_t trace = first.find(" s verbose: Stack trace:\n         [00] ");
    ASSERT_NE(first.find(result), std::string::npos) << first;
    EXPECT_LT(step, trace) << first;
    EXPECT_LT(trace, first.find(result)) << first;
    EXPECT_GE(std::stoi(first.substr(first.find(result) + result.size())), 600);
    EXPECT_TRUE(Has(first, "write lock  held by Quillon Vantry Agent Installer\n")) << first;
    EXPECT_TRUE(Has(run.out.substr(second), "UninstallDriver returns true after ")) << run.out;
    EXPECT_TRUE(Has(run.out.substr(second), "components  none\n")) << run.out;
    EXPECT_TRUE(Has(run.out.substr(second), "write lock  free\n")) << run.out;
}

TEST(RemovalExample, PrintsItsUsage) {
    const HostRun slow = RunHost({kRemovalExample});
    EXPECT_EQ(slow.exitCode, 1U);
    EXPECT_TRUE(Has(slow.err, "removal: ten minutes take a simulated clock: start fc-host with --clock steps"))
        << slow.err;
    const HostRun unknown = RunHost({L"--clock", L"steps", kRemovalExample, L"--out"});
    EXPECT_EQ(unknown.exitCode, 1U);
    EXPECT_TRUE(Has(unknown.err, "removal: unknown argument '--out'; usage: removal.lua")) << unknown.err;
}
