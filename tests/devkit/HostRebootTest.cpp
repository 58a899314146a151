// host.machine.reboot: what a boot does to the simulated machine, and the remedies of the documents that need one.
#include <gtest/gtest.h>

#include "HostProcess.h"

namespace {

/// Runs a script whose assertions are the test's. It may use kScriptHelpers and these:
/// - ready(version) makes a machine with an adapter, E, on which that version can be installed,
/// - install() and remove() return the function's result, the agent's events by number, and the count of reboot
/// requests.
HostRun RunRebootScript(const std::string &script, std::vector<std::wstring> options = {}) {
    options.insert(options.end(), {L"--quiet", L"--clock", L"steps"});
    return RunPassingScript(kScriptHelpers + R"(
        local machine = host.machine
        local E = [[PCI\VEN_8086&DEV_100E\1]]
        local function exists(path)
            local file = io.open(path)
            return file ~= nil and file:close()
        end
        local function ship(version, results)
            machine.write_driver(machine.folders().program_files .. "qbimvta.sys", version)
            machine.put_installable { id = "qbimvta", loads = version, results = results }
        end
        local function ready(version, results)
            local folder = machine.folders().program_files
            machine.put_component { id = "ms_tcpip", class = "protocol" }
            machine.put_adapter { node = E, name = "Ethernet", ip = "192.0.2.10", gateway = "192.0.2.1" }
            machine.bind(E, "ms_tcpip")
            write(folder .. "netqbimvta.inf", ("CopyFiles = qbimvta.sys\r\n"):rep(12))
            write(folder .. "netqbimwfp.inf", "[DefaultInstall.Services]\r\nAddService = qbimwfp,2,callout\r\n" ..
                "[DefaultUninstall.Services]\r\nDelService = qbimwfp\r\n")
            host.driver.present = false
            ship(version, results)
        end
        local function call(name)
            require "fc"
            local folder = machine.folders().program_files
            local result = SLB.filter[name](host.dom(), folder, folder)
            local texts, reboots = {}, 0
            for _, event in ipairs(host.events()) do
                if event.kind == "event" then texts[event.number] = event.text end
                if event.kind == "reboot" then reboots = reboots + 1 end
            end
            return result, texts, reboots
        end
        local function install() return call "InstallOrUpdateDriver" end
        local function remove() return call "UninstallDriver" end
    )" + script,
                            options);
}

}  // namespace

TEST(HostReboot, DeletesTheFilesThatWereLeftToIt) {
    (void)RunRebootScript(R"(
        local inf = machine.folders().inf .. "oem1.inf"
        machine.put_component { id = "qbimvta" }
        write(inf, ("CopyFiles = qbimvta.sys\r\n"):rep(12))
        machine.lack("SetupUninstallOEMInfW")
        host.fault { call = "DeleteFileW", fail = 32 }
        assert(remove())
        host.clear_faults()
        local left = table.concat(machine.inventory().left_to_boot, "\n")
        assert(left:find("oem1.inf", 1, true) and exists(inf), left)
        machine.reboot()
        assert(not exists(inf) and #machine.inventory().left_to_boot == 0)
    )");
}

TEST(HostReboot, RemovesServicesThatAreMarkedAndStartsThoseThatStartWithTheSystem) {
    (void)RunRebootScript(R"(
        machine.put_service("qbimwfp", "running")
        machine.put_service("atBoot", "stopped", "boot")
        machine.put_service("system", "paused", "system")
        machine.put_service("auto", "stopped", "auto")
        machine.put_service("demand", "running", "demand")
        machine.put_service("off", "running", "disabled")
        machine.put_service("usual", "running")
        write(machine.folders().program_files .. "netqbimwfp.inf", "; leaves the service to the module")
        host.fault { call = "CloseServiceHandle", fail = 6 } -- the service stays, as long as somebody has it open
        remove()
        host.clear_faults()
        assert(machine.inventory().services.qbimwfp == "stopped")
        machine.reboot()
        local services = machine.inventory().services
        assert(services.qbimwfp == nil)
        assert(services.atBoot == "running" and services.system == "running" and services.auto == "running")
        assert(services.demand == "stopped" and services.off == "stopped" and services.usual == "stopped")
        assert(not pcall(machine.put_service, "bad", "running", "sometimes"))
    )");
}

TEST(HostReboot, RemovesTheComponentWhoseRemovalAskedForIt) {
    (void)RunRebootScript(R"(
        machine.put_component { id = "qbimvta", result = "reboot", stays = true }
        machine.put_component { id = "another", stays = true }
        remove()
        assert(#machine.inventory().components == 2)
        machine.reboot()
        assert(table.concat(machine.inventory().components, " ") == "another")
    )");
}

TEST(HostReboot, ReleasesTheLockOfTheNetworkWhoeverHeldIt) {
    (void)RunRebootScript(R"(
        machine.lock_network("Another installer")
        machine.reboot()
        assert(machine.inventory().lock == nil)
        machine.put_component { id = "qbimvta" }
        host.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, hang = true }
        assert(not remove() and machine.inventory().lock)
        machine.reboot()
        assert(machine.inventory().lock == nil)
        assert(remove() and #machine.inventory().components == 0)
    )");
}

TEST(HostReboot, LoadsTheModuleAndTheDriverAnewAndKeepsTheSettings) {
    const TemporaryFolder folder;
    (void)RunRebootScript(R"(
        ready "2.0.0.0"
        assert(install() and host.driver.version == "2.0.0.0")
        host.set_setting("vtp.filter.SysHealthBackoffWait", "30")
        host.driver.set_variable(12, 5)
        host.driver.set_fault("vti_get_stats", -1, "")
        SLB.filter.AddToConnMetrics("key", "pid\t5", 3)
        machine.reboot()
        assert(SLB.filter == nil and package.loaded.fc == nil)
        assert(host.get_setting("vtp.filter.SysHealthBackoffWait") == "30")
        assert(host.driver.present and host.driver.version == "2.0.0.0" and host.driver.get_variable(12) == 0)
        require "fc"
        host.advance(61)
        SLB.filter.UpdateConnMetrics()
        assert(#SLB.filter.GetConnMetrics() == 0)
        assert(machine.adapters()[1].bound[2] == "qbimvta")
        machine.reboot()
        machine.reboot()
    )",
                          {L"--report", folder.At(L"report.html")});
    EXPECT_NE(TextOfFile(folder.At(L"report.html")).find("The machine was rebooted"), std::string::npos);
}

TEST(HostReboot, EndsWhatTheModuleHasUnderWay) {
    (void)RunRebootScript(R"(
        machine.put_component { id = "qbimvta" }
        host.fault { call = "TerminateThread", fail = 5 }
        host.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, hang = true }
        assert(not remove())
        machine.reboot() -- while the worker still hangs
        host.clear_faults()
        host.sleep(10)
        assert(#machine.inventory().components == 1)
        assert(remove() and #machine.inventory().components == 0)
    )");
}

TEST(HostModule, ARestartEndsWhatTheModuleHasUnderWayAndFreesItsLock) {
    (void)RunRebootScript(R"(
        machine.put_component { id = "qbimvta" }
        host.fault { call = "TerminateThread", fail = 5 }
        host.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, hang = true }
        assert(not remove() and machine.inventory().lock)
        host.restart_module() -- while the worker still hangs
        assert(not machine.inventory().lock)
        host.clear_faults()
        host.sleep(10)
        assert(#machine.inventory().components == 1)
        assert(remove() and #machine.inventory().components == 0)
    )");
}

TEST(HostModule, ARestartLeavesTheLockOfAnotherProgram) {
    (void)RunRebootScript(R"(
        require "fc"
        machine.lock_network("Another installer")
        host.restart_module()
        assert(machine.inventory().lock == "Another installer")
    )");
}

TEST(HostReboot, LoadsTheDriverThatWasInstalledAndNotTheOneThatCouldBe) {
    (void)RunRebootScript(R"(
        ready "2.0.0.0"
        assert(install())
        ship "2.1.0.0"
        machine.reboot()
        assert(host.driver.present and host.driver.version == "2.0.0.0", host.driver.version)
        assert(install() and remove())
        machine.reboot()
        assert(not host.driver.present)
        machine.put_component { id = "qbimvta" } -- by the script, so that nothing is known of its driver
        machine.reboot()
        assert(host.driver.present and host.driver.version == "2.1.0.0")
    )");
}

TEST(HostReboot, ADriverWhoseInstallationNeedsOneRunsAfterIt) {
    (void)RunRebootScript(R"(
        ready("2.0.0.0", { "reboot", "reboot", "reboot" })
        local _, events, reboots = install()
        assert(events[1006] and reboots >= 1 and not host.driver.present)
        machine.reboot()
        assert(host.driver.present and host.driver.version == "2.0.0.0")
    )");
}

// 0x430: "close what has the service open, reboot, install again"
TEST(HostReboot, AnInstallationSucceedsAfterItWhereTheOldServiceWasMarkedForDeletion) {
    (void)RunRebootScript(R"(
        ready("2.0.0.0", { 0x80070430, 0x80070430, 0x80070430 })
        local _, events, reboots = install()
        assert(events[1004] and events[1004]:find("^InstallingDriver|") and events[1006] and reboots >= 1)
        machine.reboot()
        _, events = install()
        assert(events[1007] and host.driver.version == "2.0.0.0")
    )");
}

// "restart the agent, then reboot"
TEST(HostReboot, AnInstallationSucceedsAfterItWhereAStepHung) {
    (void)RunRebootScript(R"(
        ready "2.0.0.0"
        host.fault { call = "INetCfgClassSetup::Install", hang = true }
        local _, events = install()
        assert(events[1004] and events[1004]:find("^InstallingDriver|") and machine.inventory().lock)
        host.clear_faults()
        machine.reboot()
        _, events = install()
        assert(events[1007] and host.driver.version == "2.0.0.0")
    )");
}

TEST(HostReboot, NeedsNoSimulatedClock) {
    const HostRun run = RunScript(R"(
        host.machine.lock_network("Another installer")
        require "fc"
        host.machine.reboot()
        assert(host.machine.inventory().lock == nil and SLB.filter == nil)
        require "fc"
    )");
    EXPECT_EQ(run.exitCode, 0U) << run.err;
}
