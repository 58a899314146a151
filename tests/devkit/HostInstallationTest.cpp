// What fc-host.exe offers for an installation of the drivers: adapters, bindings, driver files, a network that breaks
// and recovers, and the firewall.
#include <gtest/gtest.h>

#include "HostInstallScript.h"

TEST(HostNetwork, HasTheAdaptersOfTheScriptAndTheirBindings) {
    (void)RunInstallScript(R"(
        assert(#machine.adapters() == 0)
        machine.put_component { id = "ms_tcpip", class = "protocol" }
        machine.put_component { id = "another" }
        machine.put_adapter { node = E, name = "gr\195\188n", ip = "192.0.2.10", gateway = "192.0.2.1" }
        machine.put_adapter { node = W, name = "Wi-Fi", connected = false, mac = "00:01:02:0a:0B:ff", frames = 7 }
        machine.bind(E, "another")
        machine.bind(E, "ms_tcpip")
        machine.bind(W, "ms_tcpip")
        machine.bind(W, "ms_tcpip", false)
        local first, second = table.unpack(machine.adapters())
        assert(first.node == E and first.name == "gr\195\188n" and first.ip == "192.0.2.10")
        assert(first.gateway == "192.0.2.1" and first.connected and first.enabled)
        assert(bound(E) == "ms_tcpip another" and bound(W) == "")
        assert(second.ip == "0.0.0.0" and second.gateway == "0.0.0.0" and not second.connected)
        local there = machine.inventory()
        assert(#there.components == 2 and #there.devices == 2, #there.components)
    )");
}

TEST(HostNetwork, ChangesReplacesAndRemovesAdapters) {
    (void)RunInstallScript(R"(
        machine.put_adapter { node = E, name = "Ethernet", ip = "192.0.2.10" }
        machine.change_adapter(E, { gateway = "192.0.2.1", connected = false })
        assert(adapter(E).ip == "192.0.2.10" and adapter(E).gateway == "192.0.2.1" and not adapter(E).connected)
        machine.change_adapter(E, { ip = "0.0.0.0", connected = true, gateway_answers = false, status = 24, frames = 1 })
        assert(adapter(E).ip == "0.0.0.0" and adapter(E).connected)
        machine.put_adapter { node = E, name = "Another" }
        assert(#machine.adapters() == 1 and adapter(E).name == "Another" and adapter(E).gateway == "0.0.0.0")
        machine.remove_adapter(E)
        assert(#machine.adapters() == 0 and #machine.inventory().devices == 0)
    )");
}

TEST(HostNetwork, RejectsUnknownFieldsAndAdapters) {
    (void)RunInstallScript(R"(
        refused("field 'node': string expected", machine.put_adapter, { name = "x" })
        refused("field 'name': string expected", machine.put_adapter, { node = E })
        refused("there is no field 'address'", machine.put_adapter, { node = E, name = "x", address = "1" })
        for _, wrong in ipairs { "192.0.2", "192.0.2.256", "a.b.c.d", "192.0.2.1 ", "" } do
            refused("field 'ip': an address such as 192.0.2.1", machine.put_adapter, { node = E, name = "x", ip = wrong })
        end
        for _, wrong in ipairs { "00:01:02:03:04", "00:01:02:03:04:0g", "00:01:02:03:04:05:06" } do
            refused("field 'mac': an address such as", machine.put_adapter, { node = E, name = "x", mac = wrong })
        end
        refused("field 'connected': boolean expected", machine.put_adapter, { node = E, name = "x", connected = 1 })
        refused("field 'status': whole number", machine.put_adapter, { node = E, name = "x", status = 0.5 })
        refused("there is no adapter " .. E, machine.change_adapter, E, {})
        refused("there is no adapter " .. E, machine.remove_adapter, E)
        refused("there is no adapter " .. E, machine.bind, E, "ms_tcpip")
        refused("there is no field 'name'", machine.change_adapter, E, { name = "x" })
        refused("boolean expected", machine.bind, E, "ms_tcpip", "yes")
        refused("field 'class': service or protocol", machine.put_component, { id = "a", class = "net" })
        assert(#machine.adapters() == 0)
    )");
}

TEST(HostNetwork, RejectsInvalidRulesAndInstallations) {
    (void)RunInstallScript(R"(
        refused("field 'happens': installed, removed, bound", machine.when, { happens = "gone", component = "a" }, E, {})
        refused("field 'component': string expected", machine.when, { happens = "bound" }, E, {})
        refused("an adapter is enabled, not a component", machine.when, { happens = "enabled", component = "a" }, E, {})
        refused("field 'adapter': string expected", machine.when, { happens = "disabled" }, E, {})
        refused("there is no field 'speed'", machine.when, { happens = "bound", component = "a" }, E, { speed = 1 })
        refused("field 'id': string expected", machine.put_installable, {})
        refused("field 'results': table expected", machine.put_installable, { id = "a", results = "ok" })
        refused("field 'results': ok, reboot or a number", machine.put_installable, { id = "a", results = { "good" } })
        local many = {}
        for i = 1, 17 do many[i] = "ok" end
        refused("field 'results': at most 16", machine.put_installable, { id = "a", results = many })
        refused("field 'loads': string expected", machine.put_installable, { id = "a", loads = true })
        for _, wrong in ipairs { "2", "2.0.0", "2.0.0.0.0", "2.0.0.65536", "2.0.0.x", "" } do
            refused("a version such as 2.0.0.0 expected", machine.write_driver, "x.sys", wrong)
        end
        refused("cannot write", machine.write_driver, "Z:\\no\\such\\folder\\x.sys", "2.0.0.0")
    )");
}

TEST(HostNetwork, WritesDriversWithAVersion) {
    (void)RunInstallScript(R"(
        require "fc"
        local path = machine.folders().program_files .. "driver.sys"
        machine.write_driver(path, "1.2.3.40000")
        local major, minor, build, revision = SLB.filter.GetFileVersion(path)
        assert(major == 1 and minor == 2 and build == 3 and revision % 65536 == 40000, tostring(revision))
        machine.write_driver(path, "65535.0.7.0")
        major, minor, build = SLB.filter.GetFileVersion(path)
        assert(major % 65536 == 65535 and minor == 0 and build == 7)
    )");
}

TEST(HostInstallation, InstallsTheDriversOnTheScriptsMachine) {
    (void)RunInstallScript(R"(
        ready "2.0.0.0"
        local events, reboots = install()
        assert(events[1007] and events[1007]:find("|2.0.0.0|", 1, true), events[1007])
        assert(reboots == 0 and host.driver.present and host.driver.version == "2.0.0.0")
        assert(bound(E) == "ms_tcpip qbimvta" and bound(W) == "ms_tcpip qbimvta")
        local there = machine.inventory()
        assert(there.components[2] == "qbimvta" and there.services.qbimwfp == "running")
        assert(#there.inf_files == 1 and not there.lock)
        assert(next((install())) == nil, "nothing is to be done any more")
    )");
}

TEST(HostInstallation, UpgradesAndKeepsTheBindings) {
    (void)RunInstallScript(R"(
        ready "2.0.0.0"
        install()
        machine.bind(W, "qbimvta", false)
        ship "2.1.0.0"
        local events = install()
        assert(events[1005] == "2.0.0.0|2.1.0.0" and events[1007], events[1005])
        assert(host.driver.version == "2.1.0.0")
        assert(bound(E) == "ms_tcpip qbimvta" and bound(W) == "ms_tcpip", bound(W))
    )");
}

TEST(HostInstallation, FailsAsPlannedByTheScript) {
    (void)RunInstallScript(R"(
        ready "2.0.0.0"
        machine.put_installable { id = "QBIMVTA", loads = "2.0.0.0", results = { 0x80004005, 0x80004005, 0x80004005 } }
        local events = install()
        assert(events[1004] and events[1004]:find("^InstallingDriver|"), events[1004])
        assert(not host.driver.present and #machine.inventory().components == 1)
        events = install()
        assert(events[1007] and host.driver.present, "only three attempts were to fail")
        machine.put_installable { id = "qbimvta", leaves_nothing = true }
    )");
}

TEST(HostInstallation, RemovingTheComponentUnloadsItsDriver) {
    (void)RunInstallScript(R"(
        ready "2.0.0.0"
        install()
        assert(host.driver.present)
        local folder = machine.folders().program_files
        assert(SLB.filter.UninstallDriver(host.dom(), folder, folder))
        assert(not host.driver.present and machine.inventory().services.qbimwfp == nil)
        assert(bound(E) == "ms_tcpip")
    )");
}

TEST(HostInstallation, ARuleBreaksTheNetworkOnceAndABindingRepairsIt) {
    (void)RunInstallScript(R"(
        ready "2.0.0.0"
        machine.when({ happens = "installed", component = "QBIMVTA" }, E, { ip = "0.0.0.0" })
        machine.when({ happens = "bound", component = "qbimvta", adapter = W }, E, { gateway = "203.0.113.1" })
        machine.when({ happens = "bound", component = "qbimvta", adapter = E }, E, { ip = "192.0.2.10" })
        local events, reboots = install()
        assert(events[1007] and reboots == 0)
        assert(adapter(E).ip == "192.0.2.10" and adapter(E).gateway == "192.0.2.1")
        local folder = machine.folders().program_files
        assert(SLB.filter.UninstallDriver(host.dom(), folder, folder))
        machine.change_adapter(E, { ip = "192.0.2.99" })
        assert(install()[1007] and adapter(E).ip == "192.0.2.99", "the rules are used up")
    )");
}

TEST(HostInstallation, ANetworkThatStaysBrokenEndsInARestartOfTheAdapterAndAReboot) {
    (void)RunInstallScript(R"(
        ready "2.0.0.0"
        machine.when({ happens = "installed", component = "qbimvta" }, E, { connected = false })
        machine.when({ happens = "disabled", adapter = E }, W, { gateway = "198.51.100.2" })
        machine.when({ happens = "enabled", adapter = E }, E, { connected = true })
        machine.when({ happens = "unbound", component = "nothing" }, W, { connected = false })
        local events, reboots = install()
        assert(events[1007] and reboots == 1, reboots)
        assert(adapter(E).connected and adapter(E).enabled)
        assert(adapter(W).gateway == "198.51.100.2" and adapter(W).connected)
    )");
}

TEST(HostInstallation, AHungStepIsKilledAndReported) {
    (void)RunInstallScript(R"(
        ready "2.0.0.0"
        host.set_verbose_log(true)
        host.fault { call = "INetCfgClassSetup::Install", nth = 1, hang = true, advance = 601 }
        local begin = host.time()
        local events = install()
        assert(events[1004] and events[1004]:find("^InstallingDriver|"), events[1004])
        assert(host.time() - begin >= 600)
        local stack
        for _, line in ipairs(host.log()) do
            stack = stack or line.text:match("^Stack trace:\n%[00%] .+")
        end
        assert(stack and machine.inventory().lock)
    )");
}

TEST(HostInstallation, LogsErrorsAsTheModuleWritesThem) {
    const HostRun run = RunInstallScript(R"(
        ready "2.0.0.0"
        machine.change_adapter(W, { gateway_answers = false })
        install()
        local errors = 0
        for _, line in ipairs(host.log()) do
            if line.level == "error" then
                assert(line.text:find("^SendARP %(error 67: [^()]*%)$"), line.text)
                errors = errors + 1
            end
        end
        assert(errors == 1, errors)
    )",
                                         {});
    EXPECT_NE(run.err.find("error   SendARP (error 67: "), std::string::npos) << run.err;
}

TEST(HostFirewall, IsOnAtFirstAndIsTurnedOffAndOnByTheModule) {
    (void)RunInstallScript(R"(
        require "fc"
        local on = machine.firewall()
        assert(on.domain and on.private and on.public and on.current and #on.applications == 0)
        machine.set_firewall { private = false }
        SLB.filter.DisableNativeFirewall()
        local off = machine.firewall()
        assert(not off.domain and not off.private and not off.public)
        SLB.filter.EnableNativeFirewall()
        local back = machine.firewall()
        assert(back.domain and not back.private and back.public)
        assert(SLB.filter.WindowsFirewallAddApp([[C:\agent\agent.exe]], "Agent"))
        local listed = machine.firewall().applications
        assert(#listed == 1 and listed[1].path == [[C:\agent\agent.exe]] and listed[1].name == "Agent")
        assert(listed[1].enabled)
        refused("field 'domain': boolean expected", machine.set_firewall, { domain = 1 })
        refused("there is no field 'home'", machine.set_firewall, { home = true })
    )");
}

TEST(HostFirewall, FailsAsPlannedByTheScript) {
    (void)RunInstallScript(R"(
        require "fc"
        host.set_trace("FC-WFW", true)
        host.fault { call = "INetFwPolicy2::put_FirewallEnabled", nth = 2, fail = 0x80070005 }
        SLB.filter.DisableNativeFirewall()
        local traces = host.traces()
        assert(traces[#traces].message == "put_FirewallEnabled(NET_FW_PROFILE2_PRIVATE) failed: 0x80070005")
        local left = machine.firewall()
        assert(not left.domain and left.private and left.public)
        host.clear_faults()
        for _, method in ipairs { "INetFwMgr::get_LocalPolicy", "INetFwPolicy::get_CurrentProfile",
                                  "INetFwProfile::get_AuthorizedApplications", "INetFwAuthorizedApplications::Add",
                                  "INetFwAuthorizedApplication::put_Name" } do
            host.fault { call = method, fail = 0x80004005 }
            assert(not SLB.filter.WindowsFirewallAddApp([[C:\agent\agent.exe]], "Agent"), method)
            host.clear_faults()
        end
        assert(SLB.filter.WindowsFirewallAddApp([[C:\agent\agent.exe]], "Agent"))
    )");
}

TEST(HostFirewall, BeforeVistaIsOneSwitchInAService) {
    (void)RunInstallScript(R"(
        require "fc"
        machine.os_major, machine.os_minor = 5, 1
        machine.put_service("SharedAccess", "stopped")
        host.set_trace("FC-WFW", true)
        local function last() local traces = host.traces() return traces[#traces].message end

        SLB.filter.DisableNativeFirewall()
        assert(last() == "Windows firewall(SharedService) is not enabled")
        machine.put_service("SharedAccess", "running")
        SLB.filter.DisableNativeFirewall()
        assert(last() == "Writing the registry key to flag that vantry turned off the windows firewall 1")
        local off = machine.firewall()
        assert(not off.current and off.domain and off.private and off.public)

        machine.put_service("SharedAccess", "stopped")
        SLB.filter.EnableNativeFirewall()
        assert(machine.firewall().current)
        assert(machine.inventory().services.SharedAccess == "stopped", "started for the restore alone")
    )");
}
