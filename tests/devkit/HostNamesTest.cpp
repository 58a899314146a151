// Names that a script misspells, and plans of it that come to nothing.
#include <algorithm>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HostProcess.h"
#include "Nearest.h"
#include "TraceComponents.h"
#include "vti.h"
#include "vti_control.h"

namespace {

bool Has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

/// What the pattern's group matches in the module's sources.
std::set<std::string> InSources(const std::string &folder, const std::string &pattern) {
    const std::regex regex(pattern);
    std::set<std::string> found;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(TestData(folder))) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string text(std::istreambuf_iterator<char>(file), {});
        for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match)
            found.insert((*match)[1]);
    }
    return found;
}

/// Runs a script whose assertions are the test's. It may use kScriptHelpers.
HostRun RunNames(const std::string &script, const std::vector<std::wstring> &options = {L"--quiet"}) {
    return RunPassingScript(kScriptHelpers + script, options);
}

}  // namespace

TEST(NearestName, IsTheOneThatNeedsTheFewestChanges) {
    const std::vector<std::string> known{"StartServiceW", "ControlService", "INetCfg::Apply", "INetCfg::Cancel"};
    EXPECT_EQ(NearestNames("StartServcieW", known), std::vector<std::string>{"StartServiceW"});
    EXPECT_EQ(NearestNames("startservicea", known), std::vector<std::string>{"StartServiceW"});
    EXPECT_EQ(NearestNames("Aply", known), std::vector<std::string>{"INetCfg::Apply"});
    EXPECT_EQ(NearestNames("INetCfg::Aply", known), std::vector<std::string>{"INetCfg::Apply"});
    EXPECT_EQ(NearestNames("Service", known), (std::vector<std::string>{"ControlService", "StartServiceW"}));
    EXPECT_TRUE(NearestNames("CreateFileW", known).empty());
    EXPECT_TRUE(NearestNames("", known).empty());
}

TEST(NearestName, IsOfferedInWords) {
    EXPECT_EQ(Suggestion("cat", {"dog"}), "");
    EXPECT_EQ(Suggestion("cat", {"car", "dog"}), "; did you mean car?");
    EXPECT_EQ(Suggestion("cat", {"car", "bat", "dog"}), "; did you mean bat or car?");
    EXPECT_EQ(Suggestion("cat", {"car", "bat", "cab", "can"}), "; did you mean bat, cab or can?");
}

TEST(HostNames, OfAllFaultsAreListedInTheirOrder) {
    (void)RunNames(R"(
        local names, known = host.fault_names(), {}
        for i, name in ipairs(names) do
            known[name] = true
            assert(i == 1 or names[i - 1] < name, name)
        end
        assert(known["SetupCopyOEMInfW"] and known["INetCfg::Apply"] and known["INetFwPolicy2::put_FirewallEnabled"])
        for _, name in ipairs(names) do host.fault { call = name, nth = 1000000, delay = 1 } end
    )");
}

TEST(HostNames, OfFaultsMayBeThoseOfTheModulesEvents) {
    const std::set<std::string> names =
        InSources("plugins/filter/WindowsDriverInstaller",
                  R"rx((?:ReportFailure\([^"\n]*|CallInStep\([^"\n]*|kSystemFailureEvent,\s*)L"([A-Z][^"]+)")rx");
    ASSERT_GE(names.size(), 20U);
    ASSERT_TRUE(names.contains("SetupCopyOEMInf(%ls)") && names.contains("INetCfg::Apply"));
    std::string script;
    for (const std::string &name : names)
        script += "host.fault { call = [[" + name + "]], nth = 1000000, fail = 5 }\n";
    (void)RunNames(script);
}

TEST(HostNames, OfFaultsThatAreUnknownAreAnsweredWithTheNearest) {
    (void)RunNames(R"(
        local function fault(name) return function() host.fault { call = name, fail = 5 } end end
        refused("'StartServcieW'; did you mean StartServiceW?", fault "StartServcieW")
        refused("'INetCfg::Aply'; did you mean INetCfg::Apply?", fault "INetCfg::Aply")
        refused("'DeInstal'; did you mean INetCfgClassSetup::DeInstall?", fault "DeInstal")
        refused("no field 'cal'; did you mean call?", host.fault, { cal = "INetCfg::Apply" })
        refused("'vti_get_stat'; did you mean vti_get_stats?", host.driver.set_fault, "vti_get_stat", -1, "")
        refused("the driver has no operation 'nothing'", host.driver.set_fault, "nothing", -1, "")
        refused("'proccessors'; did you mean processors?", function() host.machine.proccessors = 1 end)
        refused("'presnt'; did you mean present?", function() return host.driver.presnt end)
    )");
}

TEST(HostNames, OfTheDriversOperationsAreThoseThatCanFail) {
    Vti::Reset();
    for (const char *operation : Vti::kOperations)
        Vti::TheDriver().faults[operation] = {-7, "planned"};
    EXPECT_EQ(vti_open(), nullptr);
    Vti::TheDriver().faults.erase("vti_open");
    vti_handle_t *const handle = vti_open();
    ASSERT_NE(handle, nullptr);
    FilterVariable variable{};
    char version[112] = "";
    std::uint32_t room = 0;
    std::uint32_t word = 0;
    EXPECT_LE(vti_driver_available(handle), 0);
    EXPECT_EQ(vti_get_stats(handle, nullptr, 0), -7);
    EXPECT_EQ(vti_get_varv(handle, &variable), -7);
    EXPECT_EQ(vti_get_var(handle, 0, &variable), -7);
    EXPECT_EQ(vti_set_var(handle, 0, 0), -7);
    ConnTrackHeader header{};
    EXPECT_EQ(vti_get_conntrack(handle, &header, sizeof header, &word), -7);
    BlacklistRecord blacklist{};
    EXPECT_EQ(vti_get_blacklist(handle, &blacklist), -7);
    EXPECT_EQ(vti_get_profile_stats(handle, &room), -7);
    EXPECT_EQ(vti_get_version(handle, version), -7);
    EXPECT_EQ(vti_set_trace_level(handle, 0), -7);
    EXPECT_EQ(vti_set_trace_handler(handle, nullptr), -7);
    ScanMonitorRequest request{};
    EXPECT_EQ(vti_set_scan_monitoring(handle, &request), -7);
    ScanMetricsRecord metrics{};
    EXPECT_EQ(vti_get_scan_metrics(handle, &metrics, sizeof metrics), -7);
    for (const auto &[operation, fault] : Vti::TheDriver().faults)
        EXPECT_EQ(fault.met, 1U) << operation;
    vti_close(handle);
    Vti::Reset();
    (void)RunNames(R"(
        local names = host.driver.fault_names()
        assert(#names == 14, #names)
        for _, name in ipairs(names) do host.driver.set_fault(name, -1, "") end
    )");
}

TEST(HostNames, OfAdaptersAndComponentsAreThoseOfTheMachine) {
    (void)RunNames(R"(
        local machine, node = host.machine, [[PCI\VEN_8086&DEV_100E\1]]
        machine.put_adapter { node = node, name = "Ethernet" }
        machine.put_component { id = "ms_tcpip", class = "protocol" }
        machine.bind(node, "MS_TCPIP")
        refused("there is no component ms_tcpipp, nor can it be installed: use put_component or put_installable first"
            .. "; did you mean ms_tcpip?", machine.bind, node, "ms_tcpipp")
        refused("there is no component qbimvta,", machine.bind, node, "qbimvta")
        machine.put_installable { id = "qbimvta" }
        machine.bind(node, "qbimvta")
        for _, change in ipairs { machine.bind, machine.change_adapter, machine.remove_adapter } do
            local third = change == machine.change_adapter and {} or "ms_tcpip"
            refused("there is no adapter " .. node .. "1; did you mean " .. node .. "?", change, node .. "1", third)
        end
    )");
}

TEST(HostNames, OfAdaptersAndComponentsThatARuleOrADeviceNamesAreThoseOfTheMachine) {
    (void)RunNames(R"(
        local machine, node = host.machine, [[PCI\VEN_8086&DEV_100E\1]]
        machine.put_adapter { node = node, name = "Ethernet" }
        local unknown = "there is no adapter " .. node .. "1; did you mean " .. node .. "?"
        refused(unknown, machine.when, { happens = "installed", component = "qbimvta" }, node .. "1", {})
        refused(unknown, machine.when, { happens = "disabled", adapter = node .. "1" }, node, {})
        refused(unknown, machine.when, { happens = "bound", component = "c", adapter = node .. "1" }, node, {})
        machine.put_component { id = "qbimvta" }
        refused("there is no component qbimvtaa, nor can it be installed: use put_component or put_installable first"
            .. "; did you mean qbimvta?", machine.put_device, { id = "ROOT\\A", component = "qbimvtaa" })
        assert(#machine.inventory().devices == 1)
        machine.put_device { id = "ROOT\\A", component = "QBIMVTA" }
        assert(#machine.inventory().devices == 2)
    )");
}

TEST(HostNames, InAListAreRefused) {
    (void)RunNames(R"(
        refused("an array of strings expected", host.check_policy, { SYS_THR_RUNQ = 5 })
        refused("an array of strings expected", host.check_config, { "", also = "" })
        refused("an array of numbers expected", host.driver.set_counters, { established = 5 })
        refused("an array of strings expected", host.driver.set_connections, { udp = "" }, {})
        refused("field 'results': array expected", host.machine.put_installable, { id = "a", results = { reboot = true } })
    )");
}

TEST(HostNames, OfTraceComponentsAreThoseOfTheModule) {
    const std::set<std::string> inSources =
        InSources("plugins/filter", R"rx(constexpr wchar_t k\w+Trace\[\] = L"([^"]+)")rx");
    const std::vector<std::string> known = ModuleTraceComponents();
    EXPECT_EQ(std::set<std::string>(known.begin(), known.end()), inSources);
}

TEST(HostNames, OfTraceComponentsThatAreAlmostTheModulesAreRefused) {
    (void)RunNames(R"(
        refused("there is no trace component 'FC-WFV'; did you mean FC-WFW?", host.set_trace, "FC-WFV", true)
        refused("there is no trace component 'ndis'; did you mean NDIS?", host.set_trace, "ndis", true)
        host.set_trace("NDIS", true)
        host.set_trace("*", true)
        host.set_trace("mine", true)
        host.trace("mine", "here")
    )");
    const HostRun run = RunScript("", {L"--trace", L"SysHealth.enge"});
    EXPECT_EQ(run.exitCode, 2U);
    EXPECT_TRUE(Has(run.err, "there is no trace component 'SysHealth.enge'; did you mean SysHealth.eng")) << run.err;
}

TEST(HostNames, OfOptionsThatAreUnknownAreAnsweredWithTheNearest) {
    const HostRun run = RunScript("", {L"--queit"});
    EXPECT_EQ(run.exitCode, 2U);
    EXPECT_TRUE(Has(run.err, "unknown option '--queit'; did you mean --quiet?")) << run.err;
}

TEST(HostPlans, ThatComeToNothingAreToldAtTheEnd) {
    const HostRun run = RunPassingScript(R"(
        host.machine.put_service("qbimwfp", "stopped")
        host.fault { call = "OpenServiceW", nth = 3, fail = 5 }
        host.fault { call = "ControlService", delay = 1 }
        host.clear_faults()
        host.fault { call = "StartServiceW", nth = 2, fail = 5 }
        host.driver.set_fault("vti_get_stats", -1, "")
        host.machine.put_adapter { node = "A", name = "Ethernet" }
        host.machine.when({ happens = "installed", component = "qbimvtaa" }, "A", { frames = 1 })
        host.set_trace("elsewhere", true)
        require "fc"
        assert(SLB.filter.StartWFPDriver(true))
    )",
                                         {L"--quiet"});
    for (const char *line : {"script.lua:3: the fault of OpenServiceW never struck: nobody called it\n",
                             "script.lua:4: the fault of ControlService never struck: nobody called it\n",
                             "script.lua:6: the fault of StartServiceW never struck: it was for call 2, of 1\n",
                             "script.lua:7: the driver's fault of vti_get_stats never struck: nobody called it\n",
                             "script.lua:9: nothing was installed for which host.machine.when waits: qbimvtaa\n",
                             "script.lua:10: nobody traced as elsewhere\n"})
        EXPECT_TRUE(Has(run.err, line)) << line << "is missing in\n" << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 6) << run.err;
    const HostRun option = RunScript("", {L"--quiet", L"--trace", L"elsewhere"});
    EXPECT_EQ(option.err, "fc-host: --trace: nobody traced as elsewhere\n");
}

TEST(HostPlans, OfTheDriverThatAreReplacedAreEachToldOf) {
    const HostRun run = RunPassingScript(R"(
        host.driver.set_fault("vti_get_stats", -1, "")
        host.driver.set_fault("vti_open", -1, "")
        host.driver.set_fault("vti_open", -2, "")
        assert(not host.driver_handle())
        host.driver.set_fault("vti_open", -3, "")
    )",
                                         {L"--quiet"});
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 3) << run.err;
    for (const char *line : {"script.lua:2: the driver's fault of vti_get_stats never struck: nobody called it\n",
                             "script.lua:3: the driver's fault of vti_open never struck: nobody called it\n",
                             "script.lua:6: the driver's fault of vti_open never struck: nobody called it\n"})
        EXPECT_TRUE(Has(run.err, line)) << line << "is missing in\n" << run.err;
}

TEST(HostPlans, ThatComeAboutAreNotToldOf) {
    const HostRun run = RunNames(R"(
        host.machine.put_service("qbimwfp", "stopped")
        host.fault { call = "StartServiceW", fail = 5 }
        host.driver.set_fault("vti_open", -1, "")
        host.set_trace("mine", true)
        host.trace("mine", "here")
        require "fc"
        assert(not SLB.filter.StartWFPDriver(true))
        assert(not host.driver_handle())
        host.driver.clear_faults()
        host.clear_faults()
    )",
                                 {L"--quiet", L"--trace", L"NDIS"});
    EXPECT_EQ(run.err, "");
}
