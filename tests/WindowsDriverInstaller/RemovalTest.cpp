// What a removal does in which order, how it handles failures, and what it returns.
#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <netcfgx.h>

#include "RemovalFixture.h"

namespace {

using Lines = std::vector<std::string>;

const std::set<std::string> kRemovalCalls{"INetCfg::FindComponent",       "INetCfgComponent::GetClassGuid",
                                          "INetCfg::QueryNetCfgClass",    "INetCfgClass::QueryInterface",
                                          "INetCfgClassSetup::DeInstall", "INetCfg::Apply",
                                          "INetCfg::Uninitialize"};

class DriverRemoval : public RemovalFixture {
protected:
    /// What each de-installation of the filter component returns.
    void AnswerDeInstall(HRESULT result) {
        simulation().GetNetwork().Use([result](auto &state) { state.components.front().deInstallResult = result; });
    }
    /// A device that disappears when the component QBIMVTA_MP has been de-installed so often.
    void PutOrphanOfComponent(unsigned deInstallsUntilGone, HRESULT deInstallResult = S_OK) {
        simulation().GetNetwork().Put(
            {.id = L"QBIMVTA_MP", .deInstallResult = deInstallResult, .deInstallsUntilGone = deInstallsUntilGone});
        simulation().GetDevices().Put(
            {.instanceId = L"ROOT\\QBIMVTA_MP\\0001", .description = L"Filter miniport", .componentId = L"QBIMVTA_MP"});
    }
    /// The components that were searched for, in the order of the calls.
    Lines Lookups() {
        Lines ids = Calls({"INetCfg::FindComponent"});
        for (std::string &call : ids)
            call = call.substr(call.find('"') + 1, call.rfind('"') - call.find('"') - 1);
        return ids;
    }
    std::size_t Scans() { return Calls({"SetupDiGetClassDevsW"}).size(); }
    bool HasHealthFile(const wchar_t *name) {
        return std::filesystem::exists(simulation().GetFolders().System32() / name);
    }
};

/// @param begin  number and name of the call. @param code  as in the event's last part.
void ExpectOneEvent(const Removal &removal, const std::string &begin, const std::string &code) {
    ASSERT_EQ(removal.events.size(), 1U);
    const std::string &event = removal.events.front();
    EXPECT_TRUE(event.starts_with("3005|" + begin + "|")) << event;
    EXPECT_TRUE(event.ends_with(" (" + code + ")")) << event;
}

bool HasLine(const Removal &removal, const std::string &line) {
    const Lines lines = removal.ThreadLog();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

TEST_F(DriverRemoval, ReportsALockThatStaysAfterTheConfigurationCouldNotBeOpened) {
    (void)simulation().GetFaults().FailNth("INetCfg::Initialize", 1, static_cast<DWORD>(E_FAIL));
    const auto plan =
        simulation().GetFaults().FailNth("INetCfgLock::ReleaseWriteLock", 1, static_cast<DWORD>(E_ACCESSDENIED));
    const Removal removal = Uninstall();
    EXPECT_TRUE(plan->Hit());
    EXPECT_FALSE(removal.result);
    ASSERT_GE(removal.events.size(), 2U);
    EXPECT_TRUE(removal.events[0].starts_with("3005|INetCfg::Initialize|")) << removal.events[0];
    EXPECT_TRUE(removal.events[1].starts_with("3005|INetCfgLock::ReleaseWriteLock|")) << removal.events[1];
}

TEST_F(DriverRemoval, RemovesEverythingThatBelongsToTheDriversAndNothingElse) {
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(removal.Lines(wxLOG_Error), Lines{});
    EXPECT_EQ(removal.events, Lines{});
    EXPECT_TRUE(removal.notifications.empty());
    EXPECT_FALSE(simulation().GetNetwork().Has(L"qbimvta"));
    EXPECT_FALSE(HasService());
    EXPECT_FALSE(HasInf(L"oem1.inf"));
    EXPECT_FALSE(HasInf(L"oem2.inf"));
    EXPECT_TRUE(HasInf(L"oem3.inf"));
    EXPECT_FALSE(HasHealthFile(L"qbimvtaHC.dat"));
    EXPECT_FALSE(HasHealthFile(L"qbimwfpHC.dat"));
    EXPECT_TRUE(simulation().GetDevices().Has(L"PCI\\VEN_8086&DEV_100E"));
    EXPECT_FALSE(simulation().GetNetwork().Read().lock);
}

TEST_F(DriverRemoval, RemovesCalloutComponentFilesAndOrphansInThisOrder) {
    (void)Uninstall();
    EXPECT_EQ(NamesOfCalls({"ControlService", "InstallHinfSectionW", "INetCfgClassSetup::DeInstall", "INetCfg::Apply",
                            "SetupUninstallOEMInfW", "SetupDiGetClassDevsW"}),
              (Lines{"ControlService", "InstallHinfSectionW", "INetCfgClassSetup::DeInstall", "INetCfg::Apply",
                     "SetupUninstallOEMInfW", "SetupUninstallOEMInfW", "SetupDiGetClassDevsW"}));
}

TEST_F(DriverRemoval, RemovesTheHealthCheckFilesFirst) {
    bool wereThere = true;
    simulation().GetSetup().onInstallSection = [&](const std::wstring &) {
        wereThere = HasHealthFile(L"qbimvtaHC.dat") || HasHealthFile(L"qbimwfpHC.dat");
    };
    (void)Uninstall();
    ASSERT_EQ(simulation().GetSetup().Commands().size(), 1U);
    EXPECT_FALSE(wereThere);
}

TEST_F(DriverRemoval, ContinuesWhenAHealthCheckFileIsInUse) {
    const std::filesystem::path file = simulation().GetFolders().System32() / L"qbimvtaHC.dat";
    const HANDLE inUse = CreateFileW(file.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(inUse, INVALID_HANDLE_VALUE);
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(removal.events, Lines{});
    const Lines errors = removal.Lines(wxLOG_Error);
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_NE(errors[0].find("qbimvtaHC.dat"), std::string::npos) << errors[0];
    EXPECT_TRUE(HasHealthFile(L"qbimvtaHC.dat"));
    EXPECT_FALSE(HasHealthFile(L"qbimwfpHC.dat")) << "the other is removed anyway";
    EXPECT_FALSE(HasService());
    EXPECT_FALSE(HasInf(L"oem1.inf"));
    CloseHandle(inUse);
}

TEST_F(DriverRemoval, UsesTheLoadedSetupLibraryWhenItCannotBeLoadedAgain) {
    const auto plan = simulation().GetFaults().FailEvery("LoadLibraryW", ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_TRUE(Uninstall().result);
    EXPECT_EQ(Calls({"LoadLibraryW"}), (Lines{"LoadLibraryW(\"setupapi\")", "LoadLibraryW(\"setupapi\")"}));
    EXPECT_EQ(Calls({"FreeLibrary"}), Lines{});
    EXPECT_FALSE(HasInf(L"oem1.inf"));
}

TEST_F(DriverRemoval, FreesTheSetupLibraryAsOftenAsItLoadsIt) {
    (void)Uninstall();
    EXPECT_EQ(NamesOfCalls({"LoadLibraryW", "FreeLibrary"}),
              (Lines{"LoadLibraryW", "LoadLibraryW", "FreeLibrary", "FreeLibrary"}));
}

// --- the callout ---

TEST_F(DriverRemoval, ContinuesWhenTheCalloutCannotBeStopped) {
    simulation().GetServices().Put(L"qbimwfp", {.status = {SERVICE_RUNNING}, .controlError = ERROR_ACCESS_DENIED});
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result) << "the failure does not affect the result";
    EXPECT_EQ(removal.Lines(wxLOG_Error), (Lines{"ControlService: error=5", "StopWFPCallout() failed."}));
    EXPECT_TRUE(HasService());
    EXPECT_TRUE(simulation().GetSetup().Commands().empty());
    EXPECT_FALSE(HasInf(L"oem1.inf")) << "the rest is removed";
}

TEST_F(DriverRemoval, WaitsForTheCalloutToStop) {
    simulation().GetServices().Put(
        L"qbimwfp", {.status = {SERVICE_RUNNING},
                     .stopping = {{SERVICE_STOP_PENDING, 1}, {SERVICE_STOP_PENDING, 2}, {SERVICE_STOPPED}}});
    const Removal removal = Uninstall();
    EXPECT_EQ(removal.Lines(wxLOG_Error), Lines{});
    EXPECT_FALSE(HasService());
    EXPECT_TRUE(removal.result);
}

TEST_F(DriverRemoval, ContinuesWhenTheCalloutMakesNoProgress) {
    simulation().GetServices().Put(
        L"qbimwfp", {.status = {SERVICE_RUNNING}, .stopping = {{SERVICE_STOP_PENDING, 2}, {SERVICE_STOP_PENDING, 1}}});
    const Removal removal = Uninstall();
    const Lines errors = removal.Lines(wxLOG_Error);
    ASSERT_EQ(errors.size(), 2U) << "a service without progress";
    EXPECT_TRUE(errors[0].starts_with("WaitForServiceState: error=")) << errors[0];
    EXPECT_EQ(errors[1], "StopWFPCallout() failed.");
    EXPECT_TRUE(HasService());
    EXPECT_TRUE(removal.result);
}

TEST_F(DriverRemoval, DoesNotStopACalloutThatDoesNotRun) {
    simulation().GetServices().Put(L"qbimwfp", {.status = {SERVICE_STOPPED}});
    EXPECT_TRUE(Uninstall().result);
    EXPECT_EQ(Calls({"ControlService"}), Lines{});
    EXPECT_FALSE(HasService());
}

TEST_F(DriverRemoval, SkipsTheCalloutWhenItsServiceIsNotInstalled) {
    simulation().GetServices().Remove(L"qbimwfp");
    EXPECT_TRUE(Uninstall().result);
    EXPECT_TRUE(simulation().GetSetup().Commands().empty());
}

TEST_F(DriverRemoval, RemovesTheCalloutByTheInfInItsFolder) {
    (void)Uninstall();
    EXPECT_EQ(simulation().GetSetup().Commands(),
              std::vector<std::wstring>{L"DefaultUninstall 128 " + WfpFolder() + L"netqbimwfp.inf"});
    const Lines calls = Calls({"InstallHinfSectionW"});
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_TRUE(calls.front().starts_with("InstallHinfSectionW(null, null, \"DefaultUninstall 128 ")) << calls.front();
    EXPECT_TRUE(calls.front().ends_with(", 0)")) << calls.front();
    EXPECT_EQ(Calls({"DeleteService"}), Lines{}) << "the INF removed the service";
}

TEST_F(DriverRemoval, KeepsTheServiceWhenItsInfIsMissing) {
    std::filesystem::remove(WfpFolder() + L"netqbimwfp.inf");
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(
        removal.Lines(wxLOG_Error),
        (Lines{"WFP callout INF file doesn't exist: " + std::filesystem::path(WfpFolder()).string() + "netqbimwfp.inf",
               "UninstallWFPCallout() failed."}));
    EXPECT_TRUE(HasService());
    EXPECT_EQ(Calls({"InstallHinfSectionW", "DeleteService"}), Lines{});
}

TEST_F(DriverRemoval, KeepsTheServiceWhenTheSetupLibraryCannotRunSections) {
    simulation().GetSetup().Lack("InstallHinfSectionW");
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_TRUE(HasLine(removal, "  InstallHinfSectionW() is at address 0x0000000000000000"));
    EXPECT_EQ(removal.Lines(wxLOG_Error), Lines{"UninstallWFPCallout() failed."});
    EXPECT_TRUE(HasService());
    EXPECT_EQ(Calls({"DeleteService"}), Lines{});
}

TEST_F(DriverRemoval, DeletesAServiceThatOutlivesItsInf) {
    simulation().GetSetup().onInstallSection = nullptr;
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(removal.Lines(wxLOG_Error), Lines{});
    EXPECT_EQ(Calls({"DeleteService"}).size(), 1U);
    EXPECT_FALSE(HasService());
}

struct FailingDeletion {
    const char *function;
    unsigned nth;
    const char *line;
};

class ServiceDeletion : public RemovalFixture, public testing::WithParamInterface<FailingDeletion> {};

TEST_P(ServiceDeletion, LogsWhatFailsAndChangesNothingElse) {
    simulation().GetSetup().onInstallSection = nullptr;
    const auto plan = simulation().GetFaults().FailNth(GetParam().function, GetParam().nth, ERROR_ACCESS_DENIED);
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(removal.Lines(wxLOG_Error), (Lines{GetParam().line, "UninstallWFPCallout() failed."}));
    EXPECT_TRUE(HasService());
    EXPECT_FALSE(HasInf(L"oem1.inf"));
    EXPECT_EQ(balance().Take().Count(Simulator::Kind::kService), 0U);
}

// The manager is opened to check whether it is installed, whether it runs, to stop it, to check again whether it is
// installed, and to delete it. So is the service.
INSTANTIATE_TEST_SUITE_P(Removal, ServiceDeletion,
                         testing::Values(FailingDeletion{"OpenSCManagerW", 5, "OpenSCManager: error=5"},
                                         FailingDeletion{"OpenServiceW", 5, "OpenService: error=5"},
                                         FailingDeletion{"DeleteService", 1, "DeleteService: error=5"}),
                         [](const auto &tested) { return std::string(tested.param.function); });

// --- the components ---

TEST_F(DriverRemoval, SearchesForTheLegacyComponentWhenTheFilterIsAbsent) {
    RemoveFilterComponent();
    simulation().GetNetwork().Put({.id = L"rxwim"});
    EXPECT_TRUE(Uninstall().result);
    EXPECT_EQ(Lookups(), (Lines{"qbimvta", "rxwim", "qbimvta"})) << "the last one checks whether it is still there";
    EXPECT_FALSE(simulation().GetNetwork().Has(L"rxwim"));
}

TEST_F(DriverRemoval, KeepsTheLegacyComponentWhenTheFilterIsPresent) {
    simulation().GetNetwork().Put({.id = L"rxwim"});
    EXPECT_TRUE(Uninstall().result);
    EXPECT_EQ(Lookups(), (Lines{"qbimvta", "qbimvta"}));
    EXPECT_TRUE(simulation().GetNetwork().Has(L"rxwim"));
}

TEST_F(DriverRemoval, ScansFilesAndDevicesWhenNeitherComponentIsInstalled) {
    RemoveFilterComponent();
    EXPECT_TRUE(Uninstall().result);
    EXPECT_EQ(Lookups(), (Lines{"qbimvta", "rxwim", "qbimvta"}));
    EXPECT_EQ(Calls({"INetCfgClassSetup::DeInstall", "INetCfg::Apply"}), Lines{});
    EXPECT_FALSE(HasInf(L"oem1.inf"));
    EXPECT_EQ(Scans(), 1U);
}

TEST_F(DriverRemoval, DeInstallsThroughTheSetupInterfaceOfTheComponentsClassAndThenApplies) {
    const std::string query =
        "INetCfg::QueryNetCfgClass({4D36E974-E325-11CE-BFC1-08002BE10318}, {C0E8AE97-306E-11D1-AACF-00805FC1270E}, *)";
    (void)Uninstall();
    EXPECT_EQ(Calls(kRemovalCalls),
              (Lines{"INetCfg::FindComponent(\"qbimvta\", *)", "INetCfgComponent::GetClassGuid(*)", query,
                     "INetCfgClass::QueryInterface({C0E8AE9D-306E-11D1-AACF-00805FC1270E}, *)",
                     "INetCfgClassSetup::DeInstall(*, *, null)", "INetCfg::Apply()", "INetCfg::Uninitialize()",
                     "INetCfg::FindComponent(\"qbimvta\", *)", "INetCfg::Uninitialize()"}));
}

TEST_F(DriverRemoval, DoesNotApplyWhenDeInstallAsksForAReboot) {
    AnswerDeInstall(NETCFG_S_REBOOT);
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(Calls({"INetCfg::Apply"}), Lines{});
    EXPECT_EQ(removal.events, Lines{});
    EXPECT_FALSE(HasInf(L"oem1.inf")) << "the files are removed anyway";
    EXPECT_EQ(Scans(), 1U);
}

TEST_F(DriverRemoval, SucceedsWhenAFileCanOnlyBeDeletedAtTheNextBoot) {
    KeepFilterComponent();
    simulation().GetSetup().Lack("SetupUninstallOEMInfW");
    simulation().GetFilesInUse().Hold(simulation().GetFolders().Inf() / L"oem1.inf");
    EXPECT_TRUE(Uninstall().result);
    EXPECT_EQ(simulation().GetFilesInUse().LeftToBoot().size(), 1U);
    EXPECT_EQ(Scans(), 0U) << "nothing after the files changed the result";
}

struct FailingCall {
    const char *function;
    const char *reported;
};

class ComponentRemoval : public DriverRemoval, public testing::WithParamInterface<FailingCall> {};

TEST_P(ComponentRemoval, StopsAtAFailureAndKeepsTheFiles) {
    KeepFilterComponent();
    const auto plan = simulation().GetFaults().FailNth(GetParam().function, 1, static_cast<DWORD>(E_FAIL));
    const Removal removal = Uninstall();
    EXPECT_FALSE(removal.result);
    ExpectOneEvent(removal, GetParam().reported, "0x80004005");
    EXPECT_TRUE(HasInf(L"oem1.inf"));
    EXPECT_EQ(Scans(), 0U) << "the component is still there";
    EXPECT_FALSE(simulation().GetNetwork().Read().lock);

    Lines expected;
    for (const char *call : {"INetCfg::FindComponent", "INetCfgComponent::GetClassGuid", "INetCfg::QueryNetCfgClass",
                             "INetCfgClass::QueryInterface", "INetCfgClassSetup::DeInstall", "INetCfg::Apply"}) {
        expected.emplace_back(call);
        if (expected.back() == GetParam().function)
            break;
    }
    for (const char *call : {"INetCfg::Uninitialize", "INetCfg::FindComponent", "INetCfg::Uninitialize"})
        expected.emplace_back(call);
    EXPECT_EQ(NamesOfCalls(kRemovalCalls), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Removal, ComponentRemoval,
    testing::Values(FailingCall{"INetCfg::FindComponent", "INetCfg::FindComponent"},
                    FailingCall{"INetCfgComponent::GetClassGuid", "INetCfgComponent::GetClassGuid"},
                    FailingCall{"INetCfg::QueryNetCfgClass", "INetCfg::QueryNetCfgClass"},
                    FailingCall{"INetCfgClass::QueryInterface", "INetCfgClass::QueryInterface(IID_INetCfgClassSetup)"},
                    FailingCall{"INetCfgClassSetup::DeInstall", "INetCfgClassSetup::DeInstall"},
                    FailingCall{"INetCfg::Apply", "INetCfg::Apply"}),
    [](const auto &tested) {
        const std::string function = tested.param.function;
        return function.substr(function.rfind(':') + 1);
    });

TEST_F(DriverRemoval, ReportsThatTheConfigurationCannotBeOpenedAndChecksAnyway) {
    const auto plan = simulation().GetFaults().FailNth("CoCreateInstance", 1, static_cast<DWORD>(E_FAIL));
    const Removal removal = Uninstall();
    EXPECT_FALSE(removal.result);
    ExpectOneEvent(removal, "CoCreateInstance(CLSID_CNetCfg)", "0x80004005");
    EXPECT_EQ(Lookups(), Lines{"qbimvta"}) << "whether it is still there";
    EXPECT_TRUE(simulation().GetNetwork().Has(L"qbimvta"));
    EXPECT_TRUE(HasInf(L"oem1.inf"));
    EXPECT_FALSE(HasService()) << "the callout was removed before";
}

TEST_F(DriverRemoval, SucceedsAfterAFailureIfTheComponentIsGone) {
    simulation().GetNetwork().Use([](auto &state) { state.applyResult = E_FAIL; });
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result) << "only the orphans decide";
    ExpectOneEvent(removal, "INetCfg::Apply", "0x80004005");
    EXPECT_TRUE(HasInf(L"oem1.inf"));
    EXPECT_EQ(Scans(), 1U);
}

TEST_F(DriverRemoval, DoesNotSearchForTheLegacyComponentWhenTheSearchForTheFilterFails) {
    RemoveFilterComponent();
    simulation().GetNetwork().Put({.id = L"rxwim"});
    const auto plan = simulation().GetFaults().FailNth("INetCfg::FindComponent", 1, static_cast<DWORD>(E_FAIL));
    EXPECT_TRUE(Uninstall().result);
    EXPECT_EQ(Lookups(), (Lines{"qbimvta", "qbimvta"}));
    EXPECT_TRUE(simulation().GetNetwork().Has(L"rxwim"));
}

TEST_F(DriverRemoval, SucceedsWhenTheLegacyComponentCannotBeRemoved) {
    RemoveFilterComponent();
    simulation().GetNetwork().Put({.id = L"rxwim", .deInstallResult = E_FAIL});
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result) << "the filter is absent, so only the orphans decide";
    ExpectOneEvent(removal, "INetCfgClassSetup::DeInstall", "0x80004005");
    EXPECT_TRUE(HasInf(L"oem1.inf"));
}

TEST_F(DriverRemoval, ChecksWithoutTheWriteLock) {
    (void)Uninstall();
    EXPECT_EQ(NamesOfCalls({"INetCfgLock::AcquireWriteLock", "INetCfg::Initialize", "INetCfgLock::ReleaseWriteLock"}),
              (Lines{"INetCfgLock::AcquireWriteLock", "INetCfg::Initialize", "INetCfgLock::ReleaseWriteLock",
                     "INetCfg::Initialize"}));
}

TEST_F(DriverRemoval, DoesNotSearchForOrphansWhenTheCheckFails) {
    PutOrphan();
    const auto plan = simulation().GetFaults().FailNth("INetCfg::FindComponent", 2, static_cast<DWORD>(E_FAIL));
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result) << "the result of the files counts";
    ExpectOneEvent(removal, "INetCfg::FindComponent", "0x80004005");
    EXPECT_EQ(Scans(), 0U);
}

TEST_F(DriverRemoval, KeepsItsFailureWhenTheCheckFailsToo) {
    const auto plan = simulation().GetFaults().FailEvery("INetCfg::Initialize", static_cast<DWORD>(E_FAIL));
    const Removal removal = Uninstall();
    EXPECT_FALSE(removal.result);
    EXPECT_EQ(removal.events.size(), 2U);
    EXPECT_EQ(Scans(), 0U);
    EXPECT_FALSE(simulation().GetNetwork().Read().lock);
}

// --- orphans ---

TEST_F(DriverRemoval, SearchesThePresentNetworkAdaptersForOrphans) {
    (void)Uninstall();
    EXPECT_EQ(
        Calls({"SetupDiGetClassDevsW", "SetupDiGetDeviceInstanceIdW", "SetupDiGetDeviceRegistryPropertyW",
               "SetupDiDestroyDeviceInfoList"}),
        (Lines{"SetupDiGetClassDevsW({4D36E972-E325-11CE-BFC1-08002BE10318}, null, null, 2)",
               "SetupDiGetDeviceInstanceIdW(*, *, *, 4096, null)",
               "SetupDiGetDeviceRegistryPropertyW(*, *, 0, null, *, 8192, null)", "SetupDiDestroyDeviceInfoList(*)"}));
}

TEST_F(DriverRemoval, UninstallsAnOrphan) {
    PutOrphanOfComponent(1);
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(Lookups(), (Lines{"qbimvta", "qbimvta", "QBIMVTA_MP"}));
    EXPECT_FALSE(simulation().GetDevices().Has(L"ROOT\\QBIMVTA_MP\\0001"));
    EXPECT_TRUE(HasLine(removal, "  HrCleanupOrphans: Uninstall orphan hr=0x00000000"));
    EXPECT_EQ(Scans(), 2U);
}

TEST_F(DriverRemoval, FailsWhenAnOrphanCannotBeUninstalled) {
    PutOrphanOfComponent(1, E_ACCESSDENIED);
    const Removal removal = Uninstall();
    EXPECT_FALSE(removal.result);
    ExpectOneEvent(removal, "INetCfgClassSetup::DeInstall", "0x80070005");
    EXPECT_TRUE(HasLine(removal, "  HrCleanupOrphans: Uninstall orphan hr=0x80070005"));
    EXPECT_EQ(Scans(), 1U) << "no second attempt";
    EXPECT_TRUE(simulation().GetDevices().Has(L"ROOT\\QBIMVTA_MP\\0001"));
}

TEST_F(DriverRemoval, SucceedsWhenAnOrphanIsRemovedWithAReboot) {
    PutOrphanOfComponent(2, NETCFG_S_REBOOT);
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_TRUE(HasLine(removal, "  HrCleanupOrphans: Uninstall orphan hr=0x0004a020"));
    EXPECT_EQ(Scans(), 3U) << "it was there after the first attempt, and gone after the second";
    EXPECT_EQ(removal.events, Lines{});
}

TEST_F(DriverRemoval, PostponesAnOrphanThatStaysToTheNextBoot) {
    PutOrphan();
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(Lookups(), (Lines{"qbimvta", "qbimvta", "QBIMVTA_MP", "QBIMVTA_MP", "QBIMVTA_MP", "QBIMVTA_MP"}));
    EXPECT_EQ(Scans(), 5U);
    EXPECT_TRUE(HasLine(removal, " HrCleanupOrphans: registry cleanup"));
    EXPECT_TRUE(HasLine(removal, " HrCleanupOrphans: orphan scan needs reboot (4:0)"));
}

TEST_F(DriverRemoval, ReturnsTheResultOfTheLastOfFourAttempts) {
    PutOrphanOfComponent(0, NETCFG_S_REBOOT);
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_TRUE(HasLine(removal, " HrCleanupOrphans: orphan scan needs reboot (4:303136)"));
}

TEST_F(DriverRemoval, DoesNotCleanTheRegistryWhenTheFifthScanIsClean) {
    PutOrphanOfComponent(4);
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(Scans(), 5U);
    EXPECT_FALSE(HasLine(removal, " HrCleanupOrphans: registry cleanup"));
    EXPECT_TRUE(HasLine(removal, " HrCleanupOrphans: orphan scan needs reboot (4:0)")) << "anyway";
}

TEST_F(DriverRemoval, SucceedsWhenAnOrphanIsRemovedAtTheThirdAttempt) {
    PutOrphanOfComponent(3);
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(Scans(), 4U);
    EXPECT_FALSE(HasLine(removal, " HrCleanupOrphans: orphan scan needs reboot (4:0)"));
}

TEST_F(DriverRemoval, RecognisesAnOrphanByPartOfItsIdInCapitals) {
    const auto put = [this](const wchar_t *id) {
        simulation().GetDevices().Put({.instanceId = id, .description = L"Filter miniport"});
    };
    put(L"ROOT\\qbimvta_mp\\0001");
    put(L"ROOT\\QBIMVTA\\_MP");
    EXPECT_TRUE(Uninstall().result);
    EXPECT_EQ(Scans(), 1U) << "none of these";
    InstallDrivers();
    put(L"SWD\\OLD_QBIMVTA_MP_2\\0001");
    EXPECT_TRUE(Uninstall().result);
    EXPECT_EQ(Scans(), 5U);
}

TEST_F(DriverRemoval, IgnoresAbsentDevicesAndOtherClasses) {
    simulation().GetDevices().Put(
        {.instanceId = L"ROOT\\QBIMVTA_MP\\0001", .description = L"Filter miniport", .present = false});
    simulation().GetDevices().Put({.instanceId = L"ROOT\\QBIMVTA_MP\\0002",
                                   .description = L"Filter miniport",
                                   .classGuid = GUID_DEVCLASS_NETSERVICE});
    EXPECT_TRUE(Uninstall().result);
    EXPECT_EQ(Scans(), 1U);
}

TEST_F(DriverRemoval, SkipsADeviceWithoutADescription) {
    simulation().GetDevices().Put({.instanceId = L"ROOT\\QBIMVTA_MP\\0001"});
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(Scans(), 1U) << "it is not an orphan";
    ExpectOneEvent(removal, "SetupDiGetDeviceRegistryProperty", "0xd");
}

TEST_F(DriverRemoval, FindsAnOrphanAfterADeviceWithoutADescription) {
    simulation().GetDevices().Put({.instanceId = L"ROOT\\NET\\0000"});
    PutOrphanOfComponent(1);
    EXPECT_TRUE(Uninstall().result);
    EXPECT_FALSE(simulation().GetDevices().Has(L"ROOT\\QBIMVTA_MP\\0001"));
}

TEST_F(DriverRemoval, SkipsADeviceWhoseIdCannotBeRead) {
    PutOrphanOfComponent(1);
    const auto plan = simulation().GetFaults().FailNth("SetupDiGetDeviceInstanceIdW", 2, ERROR_INVALID_DATA);
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_TRUE(simulation().GetDevices().Has(L"ROOT\\QBIMVTA_MP\\0001"));
    ExpectOneEvent(removal, "SetupDiGetDeviceInstanceId", "0xd");
}

TEST_F(DriverRemoval, FindsNoOrphansWhenDevicesCannotBeListed) {
    PutOrphan();
    const auto plan = simulation().GetFaults().FailEvery("SetupDiGetClassDevsW", ERROR_ACCESS_DENIED);
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(Scans(), 1U);
    ExpectOneEvent(removal, "SetupDiGetClassDevs", "0x5");
    EXPECT_EQ(Calls({"SetupDiDestroyDeviceInfoList"}), Lines{});
}

TEST_F(DriverRemoval, FreesEachListOfDevices) {
    PutOrphan();
    (void)Uninstall();
    EXPECT_EQ(Calls({"SetupDiDestroyDeviceInfoList"}).size(), 5U);
    EXPECT_EQ(balance().Take().Count(Simulator::Kind::kDeviceList), 0U);
}

}  // namespace
