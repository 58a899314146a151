// host.installations(): what became of each installation and removal of the drivers.
#include <gtest/gtest.h>

#include "HostInstallScript.h"

namespace {

/// A machine whose filter is installed, on which is_like(table) expects that of the latest run, field by field; NONE
/// stands for a field that is not there.
const std::string kInstalled = R"(
    local NONE = {}
    local function is_like(expected)
        local found = last()
        for name, value in pairs(expected) do
            if value == NONE then value = nil end
            assert(found[name] == value, name .. " is " .. tostring(found[name]) .. " in: " .. found.text)
        end
        return found
    end
    ready "2.0.0.0"
    install()
)";

}  // namespace

TEST(HostInstallations, TellOfAnInstallationWithVersionAndStateAfterwards) {
    (void)RunInstallScript(kInstalled + R"(
        local found = is_like { kind = "installation", outcome = "installed", text = "installed 2.0.0.0", from = NONE,
            to = "2.0.0.0", result = true, reboot = false, step = NONE, code = NONE, killed = NONE, stack = NONE }
        assert(#host.installations() == 1 and found.seconds >= 0 and found.begin <= host.time())
        local state = found.state
        assert(state.driver == "2.0.0.0" and state.filter and state.callout == "running" and state.lock == nil)
        assert(#state.adapters == 2 and state.adapters[1].name == "Ethernet" and state.adapters[1].node == E)
        assert(state.adapters[1].bound and state.adapters[2].bound)
        local names = {}
        for _, step in ipairs(found.steps) do names[step.name] = step end
        assert(names.InstallingDriver.limit == 600 and names.InstallingDriver.seconds >= 0)
        assert(not names.InstallingDriver.killed and not names.InstallingDriver.failed)
        assert(found.log:find("\n >InstallingDriver. 600s max\n", 1, true), found.log)
    )");
}

TEST(HostInstallations, TellOfAnUpgradeAndOfBindingsThatItKeeps) {
    (void)RunInstallScript(kInstalled + R"(
        machine.bind(W, "qbimvta", false)
        ship "2.1.0.0"
        install()
        local found = is_like { outcome = "upgraded", from = "2.0.0.0", to = "2.1.0.0",
            text = "upgraded from 2.0.0.0 to 2.1.0.0" }
        assert(found.state.adapters[1].bound and not found.state.adapters[2].bound)
        assert(#host.installations() == 2 and host.installations()[1].outcome == "installed")
    )");
}

TEST(HostInstallations, TellThatNothingWasToBeDone) {
    (void)RunInstallScript(kInstalled + R"(
        install()
        is_like { kind = "installation", outcome = "nothing", text = "nothing to do", result = true }
        assert(remove() and remove())
        is_like { kind = "removal", outcome = "nothing", text = "nothing to do", result = true }
    )");
}

TEST(HostInstallations, NameTheStepTheCallAndTheCodeOfAFailure) {
    (void)RunInstallScript(kInstalled + R"(
        ship "2.1.0.0"
        machine.put_installable { id = "qbimvta", loads = "2.1.0.0", results = { 0x80004005, 0x80070005, 0x80070005 } }
        install()
        local found = is_like { outcome = "failed", step = "InstallingDriver", code = 0x80004005,
            call = 'INetCfgClassSetup::Install()', result = true, from = "2.0.0.0", to = "2.1.0.0", killed = NONE,
            text = "upgrade from 2.0.0.0 to 2.1.0.0 failed in InstallingDriver with 0x80004005 " ..
                '(INetCfgClassSetup::Install())' }
        assert(found.state.driver == nil and not found.state.filter)
        assert(#found.failures == 1 and found.failures[1].code == 0x80004005)
    )");
}

TEST(HostInstallations, NameAStepThatLeavesNoLineInTheLog) {
    (void)RunInstallScript(kInstalled + R"(
        machine.lock_network("another program")
        ship "2.1.0.0"
        install()
        local locked = { outcome = "failed", step = "GettingNetworkConfigLock", code = 0x8004a024,
            call = "INetCfgLock::AcquireWriteLock" }
        is_like(locked)
        assert(not remove())
        local found = is_like(locked)
        assert(found.state.lock == "another program" and found.filter_left and found.result == false)
    )");
}

TEST(HostInstallations, TellHowLongAStepHungAndWithWhichStack) {
    (void)RunInstallScript(kInstalled + R"(
        host.set_verbose_log(true)
        host.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, hang = true, advance = 601 }
        assert(remove() == false)
        local found = is_like { kind = "removal", outcome = "failed", step = "UninstallingDriver", code = NONE,
            result = false, filter_left = true, callout_left = false }
        assert(found.killed >= 600 and found.killed <= found.seconds, found.killed)
        assert(found.stack:find("^%[00%] "), found.stack)
        assert(found.text:find("^failed in UninstallingDriver, killed after %d+%.%d s; the filter qbimvta is left"))
        assert(found.state.lock, "the killed thread holds the lock")

        ship "2.1.0.0"
        host.fault { call = "INetCfgClassSetup::Install", nth = 1, hang = true, advance = 601 }
        install()
        found = is_like { kind = "installation", outcome = "failed", step = "InstallingDriver", result = true }
        assert(found.killed >= 600 and found.stack:find("^%[00%] "))
    )");
}

TEST(HostInstallations, TellOfAKillInAStepThatARemovalDoesNotName) {
    (void)RunInstallScript(kInstalled + R"(
        host.fault { call = "INetCfg::Initialize", nth = 1, hang = true, advance = 12 }
        assert(remove() == false)
        local found = is_like { outcome = "failed", step = NONE, result = false, filter_left = true }
        assert(found.killed >= 10, found.killed)
        assert(found.text:find(" in a step that leaves no line in the log", 1, true), found.text)
    )");
}

TEST(HostInstallations, TellThatARebootIsNeeded) {
    (void)RunInstallScript(kInstalled + R"(
        assert(remove())
        is_like { outcome = "removed", text = "removed", reboot = false, callout_left = false, filter_left = false }
        machine.put_installable { id = "qbimvta", loads = "2.0.0.0", results = { "reboot", "reboot", "reboot" } }
        install()
        is_like { outcome = "installed", text = "installed 2.0.0.0; a reboot is needed", reboot = true }
        assert(remove())
        machine.put_component { id = "qbimvta", result = "reboot" }
        assert(remove())
        is_like { outcome = "removed", text = "removed; a reboot is needed", reboot = true }
        machine.reboot()
        require "fc"
        machine.put_component { id = "QBIMVTA_MP", result = "reboot" }
        machine.put_device { id = [[ROOT\QBIMVTA_MP\0000]], description = "Filter miniport", component = "QBIMVTA_MP" }
        assert(remove())
        is_like { outcome = "removed", text = "removed; a reboot is needed", reboot = true }
    )");
}

// The module forgets the request when it removes the INF files, and tells nobody.
TEST(HostInstallations, TellThatARebootIsNeededWhereAnUpgradeHasLostTheRequestOfTheRemoval) {
    (void)RunInstallScript(kInstalled + R"(
        assert(remove())
        machine.put_component { id = "qbimvta", result = "reboot", stays = true }
        host.driver.present, host.driver.version = true, "2.0.0.0"
        ship "2.1.0.0"
        local events, reboots = install()
        assert(events[1007] and not events[1006] and reboots == 0)
        is_like { outcome = "upgraded", reboot = true, text = "upgraded from 2.0.0.0 to 2.1.0.0; a reboot is needed" }
        machine.reboot()
        assert(#machine.inventory().components == 1, "the boot removes the filter")
    )");
}

// Catalogues that are not there are left to the boot, too. The request is lost once the component is found gone.
TEST(HostInstallations, TellThatARebootIsNeededOnlyWhereTheRunItselfHasLeftFilesToIt) {
    (void)RunInstallScript(kInstalled + R"(
        local function put_inf_file()
            write(machine.folders().inf .. "oem7.inf", ("CopyFiles = qbimvta.sys\r\n"):rep(12))
        end
        machine.lack "SetupUninstallOEMInfW"
        put_inf_file()
        assert(remove())
        is_like { outcome = "removed", reboot = true }
        assert(remove())
        local left = #machine.inventory().left_to_boot
        is_like { kind = "removal", reboot = false }
        local events, reboots = install()
        assert(events[1007] and not events[1006] and reboots == 0)
        assert(left > 0 and #machine.inventory().left_to_boot == left)
        is_like { outcome = "installed", text = "installed 2.0.0.0", reboot = false }

        put_inf_file()
        ship "2.1.0.0"
        events = install()
        assert(events[1007] and not events[1006])
        assert(#machine.inventory().left_to_boot > left)
        is_like { outcome = "upgraded", reboot = true }
    )");
}

TEST(HostInstallations, DoNotSayOfAThreadThatCouldNotBeKilledThatItWas) {
    (void)RunInstallScript(kInstalled + R"(
        host.fault { call = "TerminateThread", fail = 5 }
        host.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, hang = true, advance = 601 }
        assert(remove() == false)
        local found = is_like { outcome = "failed", step = "UninstallingDriver", killed = NONE, reboot = true }
        assert(found.not_killed >= 600, found.not_killed)
        assert(found.text:find("^failed in UninstallingDriver, given up after %d+%.%d s; its thread could not be ended; a reboot "))
        for _, step in ipairs(found.steps) do
            assert(not step.killed, step.name)
            assert((step.seconds == nil) == (step.name == "UninstallingDriver"), step.name)
        end
        host.clear_faults() -- the thread goes on
    )");
}

TEST(HostInstallations, TellThatTheDriverIsInstalledOnlyAfterAReboot) {
    (void)RunInstallScript(R"(
        ready "2.0.0.0"
        machine.put_device { id = [[ROOT\QBIMVTA_MP\0000]], description = "Filter miniport" }
        local events = install()
        assert(events[1007], "the event tells of a success")
        local found = last()
        assert(found.outcome == "pending" and found.reboot and found.state.driver == nil, found.outcome)
        assert(found.text == "2.0.0.0 is not installed yet; a reboot is needed", found.text)
        assert(remove() and last().reboot, "a removal does not tell that it needs a reboot")
    )");
}

TEST(HostInstallations, TellThatTheCalloutIsLeftBehind) {
    (void)RunInstallScript(kInstalled + R"(
        host.fault { call = "ControlService", fail = 5 }
        assert(remove())
        local found = is_like { outcome = "removed", callout_left = true, filter_left = false,
            text = "removed; the callout qbimwfp is left behind" }
        assert(found.state.callout == "running")
        assert(remove())
        is_like { outcome = "nothing", text = "nothing was removed; the callout qbimwfp is left behind" }
    )");
}

TEST(HostInstallations, TellWhyARemovalFailed) {
    (void)RunInstallScript(kInstalled + R"(
        host.fault { call = "INetCfgClassSetup::DeInstall", fail = 0x80070005 }
        assert(not remove())
        is_like { kind = "removal", outcome = "failed", step = "UninstallingDriver", code = 0x80070005,
            call = "INetCfgClassSetup::DeInstall", result = false,
            text = "failed in UninstallingDriver with 0x80070005 (INetCfgClassSetup::DeInstall); " ..
                "the filter qbimvta is left behind" }
    )");
}

TEST(HostInstallations, OnlyKnowTheDriverWithoutASimulatedMachine) {
    const HostRun run = RunScript(R"(
        require "fc"
        assert(SLB.filter.InstallOrUpdateDriver(host.dom(), [[C:\no such folder\]], [[C:\no such folder\]]))
        local all = host.installations()
        assert(#all == 1 and all[1].outcome == "nothing" and all[1].state.driver == "1.0.0.0")
        assert(all[1].state.adapters == nil and all[1].state.filter == nil)
    )");
    EXPECT_EQ(run.exitCode, 0U) << run.err;
}

TEST(HostInstallations, AreNoneWhereACallIsRefusedAndErrorsNameThePlaceInTheScript) {
    (void)RunInstallScript(R"(
        require "fc"
        assert(#host.installations() == 0)
        local function message(f) return select(2, pcall(f)) end
        local line = debug.getinfo(1, "l").currentline
        local refusal = message(function() SLB.filter.UninstallDriver(host.const_dom(), "", "") end)
        assert(refusal:find("script.lua:" .. line + 1 .. ": Expected (non-const) Object SLB.Dom", 1, true), refusal)
        refusal = message(function() SLB.filter.InstallOrUpdateDriver(1, "", "") end)
        assert(refusal:find("script.lua:" .. line + 3 .. ": ", 1, true), refusal)
        refusal = message(function() require "no such module" end)
        assert(refusal:find("script.lua:" .. line + 5 .. ": module 'no such module' not found", 1, true), refusal)
        assert(#host.installations() == 0)
        remove()
        assert(#host.installations() == 1)
    )");
}

TEST(HostInstallations, StayAndGoOnAfterARestartOfTheModule) {
    (void)RunInstallScript(kInstalled + R"(
        require "fc"
        host.restart_module()
        require "fc"
        assert(remove())
        assert(#host.installations() == 2 and last().outcome == "removed")
    )",
                           {L"--quiet"}, {L"--clock", L"steps"});  // on other clocks a thread must not be about to end
}

TEST(HostInstallations, HaveTheirOutcomeOnTheConsole) {
    const HostRun run = RunInstallScript(R"(
        ready "2.0.0.0"
        install()
        host.fault { call = "INetCfgClassSetup::DeInstall", fail = 0x80070005 }
        assert(not remove())
    )",
                                         {});
    EXPECT_NE(run.err.find(": installed 2.0.0.0\n"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find(": failed in UninstallingDriver with 0x80070005 (INetCfgClassSetup::DeInstall); the filter "
                           "qbimvta is left behind\n"),
              std::string::npos)
        << run.err;
}

TEST(HostLog, HasALineForAnEventThatBelongsThere) {
    (void)RunInstallScript(kInstalled + R"(
        ship "2.1.0.0"
        machine.put_installable { id = "qbimvta", results = { 0x80004005, 0x80004005, 0x80004005 } }
        host.log()
        host.events()
        local folder = machine.folders().program_files
        assert(SLB.filter.InstallOrUpdateDriver(host.dom(), folder, folder))
        local logged, failed = {}, nil
        for _, line in ipairs(host.log()) do
            if line.text:find("^event ") then logged[#logged + 1] = line end
        end
        for _, event in ipairs(host.events()) do
            if event.number == 1004 then failed = event end
        end
        assert(failed.log_id == 1004 and #logged == 1, #logged)
        assert(logged[1].level == "error" and logged[1].text == "event 1004: InstallingDriver| UninstallDriver running. ...")
        assert(math.abs(logged[1].time - failed.time) < 60)
    )");
}
