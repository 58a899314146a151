// How adapters are disabled and enabled when the network has not recovered otherwise.
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "BindingsFixture.h"
#include "BrokenNetwork.h"

namespace {

using Recovery = BrokenNetwork::Recovery;
using Changes = std::vector<Simulator::DeviceChange>;

constexpr DWORD kDisable = 2;
constexpr DWORD kEnable = 1;
constexpr DWORD kGlobal = 1;
constexpr DWORD kThisProfile = 2;

const std::string kRestarting = "Network still doesn't appear healthy - enabling & disabling adapters bound to qbimvta";
const std::string kNoneBound = "No adapters are bound to qbimvta - enabling and disabling adapters bound to IP";

/// The adapter's gateway stays reachable, so only the restart logs anything.
void FailDevice(Simulator::NetworkAdapter &adapter) {
    adapter.deviceStatus = 31;
}

class AdapterRestart : public BindingsFixture {
protected:
    AdapterRestart() {
        onMoment = [this](const Simulator::NetworkMoment &moment) { broken.OnMoment(moment); };
        broken.Break(kFirst, Recovery::None, &FailDevice);
    }
    ~AdapterRestart() override { onMoment = nullptr; }

    /// Installs. The function is called at the last check of the network, so that it can plan failures of the restart.
    InstallOutcome InstallAnd(std::function<void()> beforeRestart = [] {}) {
        broken.AtCheck(6, std::move(beforeRestart));
        InstallOutcome installation = InstallInBalance();
        EXPECT_EQ(broken.Checks().size(), 6U);
        EXPECT_TRUE(installation.AskedForReboot());
        return installation;
    }
    /// What the restart logged.
    static Texts Restart(const InstallOutcome &installation) {
        return FromFirst(WithoutSteps(installation.ThreadLog()), kRestarting);
    }
    [[nodiscard]] Changes Done() { return simulation().GetDevices().Changes(); }
    /// What happened to one adapter.
    static Changes Through(const std::wstring &node) {
        return {{node, kDisable, kThisProfile}, {node, kEnable, kGlobal}, {node, kEnable, kThisProfile}};
    }
    /// From the last check on.
    Texts RestartCalls(std::set<std::string> functions) {
        functions.insert("GetAdaptersInfo");
        const Texts calls = CallsOfWork(functions);
        Texts last;
        for (const std::string &call : calls) {
            if (call.starts_with("GetAdaptersInfo("))
                last.clear();
            else
                last.push_back(call);
        }
        return last;
    }
    /// The filter is bound to both adapters, IP to the first only; the second becomes unhealthy, too.
    void UpgradeWithoutIpOnSecond() {
        InstallOldDriver({1, 0, 0, 0});
        network().Bind(kSecond, L"ms_tcpip", false);
        broken.Break(kSecond, Recovery::None, &FailDevice);
    }

    BrokenNetwork broken{simulation()};
};

TEST_F(AdapterRestart, DisablesInTheCurrentProfileAndEnablesGloballyAndInTheCurrentOne) {
    const InstallOutcome installation = InstallAnd();
    EXPECT_EQ(Done(), Through(kFirst));
    EXPECT_EQ(Restart(installation),
              (Texts{kRestarting, "Disabling adapter 'First adapter'", "Enabling adapter 'First adapter'"}));
    EXPECT_EQ(installation.Lines(wxLOG_Error), Texts{});
    EXPECT_TRUE(simulation().GetDevices().IsEnabled(kFirst));
}

TEST_F(AdapterRestart, CallsTheClassInstallerOfEachDeviceAsDocumented) {
    (void)InstallAnd();
    EXPECT_EQ(RestartCalls({"Sleep", "SetupDiGetClassDevsW", "SetupDiSetClassInstallParamsW",
                            "SetupDiCallClassInstaller", "SetupDiDestroyDeviceInfoList"}),
              (Texts{"SetupDiGetClassDevsW(null, null, null, 14)", "SetupDiSetClassInstallParamsW(*, *, *, 20)",
                     "SetupDiCallClassInstaller(18, *, *)", "SetupDiDestroyDeviceInfoList(*)", "Sleep(2000)",
                     "SetupDiGetClassDevsW(null, null, null, 14)", "SetupDiSetClassInstallParamsW(*, *, *, 20)",
                     "SetupDiCallClassInstaller(18, *, *)", "SetupDiSetClassInstallParamsW(*, *, *, 20)",
                     "SetupDiCallClassInstaller(18, *, *)", "SetupDiDestroyDeviceInfoList(*)"}));
    const Texts ids = RestartCalls({"SetupDiGetDeviceInstanceIdW"});
    EXPECT_EQ(ids, Texts(4, "SetupDiGetDeviceInstanceIdW(*, *, *, 260, null)")) << "of two devices, twice";
}

// ---- Which devices

TEST_F(AdapterRestart, MatchesTheDeviceByTheStartOfItsNameCaseInsensitively) {
    simulation().GetDevices().Remove(kFirst);
    simulation().GetDevices().Put({.instanceId = L"pci\\ven_8086&dev_100e&subsys_1\\3&1"});
    simulation().GetDevices().Put({.instanceId = L"USB\\PCI\\VEN_8086&DEV_100E\\1"});
    simulation().GetDevices().Put({.instanceId = L"PCI\\VEN_8086&DEV_100"});
    (void)InstallAnd();
    EXPECT_EQ(Done(), Through(L"pci\\ven_8086&dev_100e&subsys_1\\3&1"));
}

TEST_F(AdapterRestart, SearchesDevicesOfAllClasses) {
    simulation().GetDevices().Put({.instanceId = kFirst, .classGuid = GUID_DEVCLASS_SYSTEM});
    (void)InstallAnd();
    EXPECT_EQ(Done(), Through(kFirst));
}

TEST_F(AdapterRestart, IgnoresDevicesThatAreNotPresent) {
    simulation().GetDevices().Put({.instanceId = L"PCI\\VEN_8086&DEV_100E\\GONE", .present = false});
    (void)InstallAnd();
    EXPECT_EQ(Done(), Through(kFirst));
}

TEST_F(AdapterRestart, IgnoresDevicesOfOtherProducts) {
    simulation().GetDevices().Put({.instanceId = L"PCI\\VEN_8086&DEV_100F\\1"});
    simulation().GetDevices().Put({.instanceId = L"ROOT\\OTHER_FILTER_MP\\0000"});
    (void)InstallAnd();
    for (const Simulator::DeviceChange &change : Done())
        EXPECT_EQ(change.instanceId, kFirst);
}

TEST_F(AdapterRestart, RestartsAllDevicesOfTheModelButRebindsOnlyTheUnhealthyAdapter) {
    const std::wstring twin = L"PCI\\VEN_8086&DEV_100E\\2";
    network().PutAdapter({.id = L"PCI\\VEN_8086&DEV_100E",
                          .bindName = L"{33333333-0000-0000-0000-000000000003}",
                          .pnpDevNodeId = twin,
                          .displayName = L"Another product",
                          .mac = {0, 1, 2, 3, 4, 7}});
    network().Bind(twin, L"ms_tcpip");
    simulation().GetDevices().Put({.instanceId = twin});
    const InstallOutcome installation = InstallAnd();
    EXPECT_EQ(With(WithoutSteps(installation.ThreadLog()), "binding from 'Another product'"), Texts{});
    EXPECT_EQ(Done(), (Changes{{kFirst, kDisable, kThisProfile},
                               {twin, kDisable, kThisProfile},
                               {kFirst, kEnable, kGlobal},
                               {kFirst, kEnable, kThisProfile},
                               {twin, kEnable, kGlobal},
                               {twin, kEnable, kThisProfile}}));
    EXPECT_EQ(Restart(installation),
              (Texts{kRestarting, "Disabling adapter 'First adapter'", "Disabling adapter 'First adapter'",
                     "Enabling adapter 'First adapter'", "Enabling adapter 'First adapter'"}));
}

TEST_F(AdapterRestart, RestartsADeviceTwiceThatMatchesTwoRecords) {
    const std::wstring function = L"PCI\\VEN_8086\\1";  // its component id is a prefix of the first one's
    network().PutAdapter({.id = L"PCI\\VEN_8086",
                          .bindName = L"{33333333-0000-0000-0000-000000000003}",
                          .pnpDevNodeId = function,
                          .displayName = L"Third adapter",
                          .mac = {0, 1, 2, 3, 4, 7}});
    network().Bind(function, L"ms_tcpip");
    broken.Break(function, Recovery::None, &FailDevice);
    const InstallOutcome installation = InstallAnd();
    EXPECT_EQ(Restart(installation),
              (Texts{kRestarting, "Disabling adapter 'First adapter'", "Disabling adapter 'Third adapter'",
                     "Enabling adapter 'First adapter'", "Enabling adapter 'Third adapter'"}));
    EXPECT_EQ(Done(), (Changes{{kFirst, kDisable, kThisProfile},
                               {kFirst, kDisable, kThisProfile},
                               {kFirst, kEnable, kGlobal},
                               {kFirst, kEnable, kThisProfile},
                               {kFirst, kEnable, kGlobal},
                               {kFirst, kEnable, kThisProfile}}));
}

TEST_F(AdapterRestart, TruncatesANameTo64Characters) {
    network().ChangeAdapter(kFirst, [](auto &adapter) { adapter.displayName = std::wstring(70, L'x'); });
    const Texts lines = Restart(InstallAnd());
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[1], "Disabling adapter '" + std::string(64, 'x') + "'");
    EXPECT_EQ(lines[2], "Enabling adapter '" + std::string(64, 'x') + "'");
}

TEST_F(AdapterRestart, SkipsADeviceWhoseNameCannotBeRead) {
    const std::wstring later = L"PCI\\VEN_8086&DEV_100E\\2";
    simulation().GetDevices().Put({.instanceId = later});
    (void)InstallAnd([this] { Fail("SetupDiGetDeviceInstanceIdW", 1, ERROR_INVALID_DATA); });
    const Changes done = Done();
    ASSERT_EQ(done.size(), 5U);
    EXPECT_EQ(done[0], (Simulator::DeviceChange{later, kDisable, kThisProfile}));
}

TEST_F(AdapterRestart, SkipsADeviceWhoseNameIsTooLong) {
    simulation().GetDevices().Remove(kFirst);
    simulation().GetDevices().Put({.instanceId = L"PCI\\VEN_8086&DEV_100E\\" + std::wstring(260, L'1')});
    const std::wstring longest = L"PCI\\VEN_8086&DEV_100E\\" + std::wstring(259 - 22, L'2');
    simulation().GetDevices().Put({.instanceId = longest});
    (void)InstallAnd();
    EXPECT_EQ(Done(), Through(longest));
}

// ---- Failures

TEST_F(AdapterRestart, CountsADeviceThatCouldNotBeDisabledAsRestarted) {
    const InstallOutcome installation =
        InstallAnd([this] { Fail("SetupDiCallClassInstaller", 1, ERROR_ACCESS_DENIED); });
    const Texts errors = installation.Lines(wxLOG_Error);
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_TRUE(errors[0].starts_with("not critical - SetupDiCallClassInstaller() (error 5: ")) << errors[0];
    EXPECT_EQ(With(Restart(installation), kNoneBound), Texts{});
    EXPECT_EQ(Done(), (Changes{{kFirst, kEnable, kGlobal}, {kFirst, kEnable, kThisProfile}}));
    EXPECT_EQ(Failures(installation), Texts{}) << "it is not reported to the agent";
}

TEST_F(AdapterRestart, EnablesInTheCurrentProfileEvenIfEnablingGloballyFailed) {
    const InstallOutcome installation =
        InstallAnd([this] { Fail("SetupDiCallClassInstaller", 2, ERROR_ACCESS_DENIED); });
    EXPECT_EQ(installation.Lines(wxLOG_Error), Texts{});
    EXPECT_EQ(Done(), (Changes{{kFirst, kDisable, kThisProfile}, {kFirst, kEnable, kThisProfile}}));
}

TEST_F(AdapterRestart, LogsADeviceThatCannotBeEnabledInTheCurrentProfile) {
    const InstallOutcome installation =
        InstallAnd([this] { Fail("SetupDiCallClassInstaller", 3, ERROR_ACCESS_DENIED); });
    const Texts errors = installation.Lines(wxLOG_Error);
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_TRUE(errors[0].starts_with("not critical - SetupDiCallClassInstaller(DICS_FLAG_CONFIGSPECIFIC) (error 5: "))
        << errors[0];
    EXPECT_EQ(Failures(installation), Texts{});
}

TEST_F(AdapterRestart, DoesNotEnableADeviceWhoseParametersCannotBeSet) {
    const InstallOutcome installation =
        InstallAnd([this] { Fail("SetupDiSetClassInstallParamsW", 2, ERROR_ACCESS_DENIED); });
    EXPECT_EQ(Done(), (Changes{{kFirst, kDisable, kThisProfile}}));
    EXPECT_EQ(RestartCalls({"SetupDiSetClassInstallParamsW"}).size(), 2U) << "not even for this profile";
    EXPECT_EQ(installation.Lines(wxLOG_Error), Texts{});
}

TEST_F(AdapterRestart, DoesNotEnableADeviceInTheCurrentProfileWhenItsParametersCannotBeSet) {
    const InstallOutcome installation =
        InstallAnd([this] { Fail("SetupDiSetClassInstallParamsW", 3, ERROR_ACCESS_DENIED); });
    EXPECT_EQ(Done(), (Changes{{kFirst, kDisable, kThisProfile}, {kFirst, kEnable, kGlobal}}));
    EXPECT_EQ(installation.Lines(wxLOG_Error), Texts{});
}

TEST_F(AdapterRestart, ContinuesWithTheNextRecordWhenParametersCannotBeSet) {
    broken.Break(kSecond, Recovery::None, &FailDevice);
    (void)InstallAnd([this] { Fail("SetupDiSetClassInstallParamsW", 1, ERROR_ACCESS_DENIED); });
    Changes expected{{kSecond, kDisable, kThisProfile}};
    for (const wchar_t *node : {kFirst, kSecond}) {
        expected.push_back({node, kEnable, kGlobal});
        expected.push_back({node, kEnable, kThisProfile});
    }
    EXPECT_EQ(Done(), expected);
}

TEST_F(AdapterRestart, ReportsThatDevicesCannotBeListed) {
    const InstallOutcome installation = InstallAnd(
        [this] { (void)simulation().GetFaults().FailEvery("SetupDiGetClassDevsW", ERROR_NOT_ENOUGH_MEMORY); });
    EXPECT_EQ(Failures(installation), Texts(3, "SetupDiGetClassDevs (0x8)"));
    EXPECT_EQ(Restart(installation), (Texts{kRestarting, kNoneBound}));
    EXPECT_EQ(Done(), Changes{});
}

// ---- Adapters bound to IP instead

TEST_F(AdapterRestart, RestartsAdaptersBoundToIpWhenNoneWasBoundToTheFilter) {
    UpgradeWithoutIpOnSecond();
    const InstallOutcome installation = InstallAnd([this] { Fail("SetupDiGetClassDevsW", 1, ERROR_INVALID_DATA); });
    EXPECT_EQ(Restart(installation), (Texts{kRestarting, kNoneBound, "Disabling adapter 'First adapter'",
                                            "Enabling adapter 'First adapter'"}));
    EXPECT_EQ(Done(), Through(kFirst)) << "the second has no IP, neither when it is disabled nor when it is enabled";
}

TEST_F(AdapterRestart, RestartsAdaptersBoundToTheFilterWithOrWithoutIp) {
    UpgradeWithoutIpOnSecond();
    const InstallOutcome installation = InstallAnd();
    EXPECT_EQ(Restart(installation),
              (Texts{kRestarting, "Disabling adapter 'First adapter'", "Disabling adapter 'Second adapter'",
                     "Enabling adapter 'First adapter'", "Enabling adapter 'Second adapter'"}));
}

TEST_F(AdapterRestart, DoesNotCountADeviceWhoseParametersCannotBeSetAsRestarted) {
    const InstallOutcome installation =
        InstallAnd([this] { Fail("SetupDiSetClassInstallParamsW", 1, ERROR_ACCESS_DENIED); });
    EXPECT_EQ(Restart(installation), (Texts{kRestarting, "Disabling adapter 'First adapter'", kNoneBound,
                                            "Disabling adapter 'First adapter'", "Enabling adapter 'First adapter'"}));
    EXPECT_EQ(Done(), Through(kFirst));
}

TEST_F(AdapterRestart, RestartsNothingWithoutADevice) {
    simulation().GetDevices().Remove(kFirst);
    const InstallOutcome installation = InstallAnd();
    EXPECT_EQ(Restart(installation), (Texts{kRestarting, kNoneBound}));
    EXPECT_EQ(Done(), Changes{});
}

TEST_F(AdapterRestart, UsesTheBindingsOfTheLastCheck) {
    // Without a component id, the record of the last check matches no device, whatever earlier records said.
    const InstallOutcome installation = InstallAnd([this] { Fail("INetCfgComponent::GetId", 1); });
    EXPECT_EQ(Done(), Changes{});
    EXPECT_EQ(Restart(installation), (Texts{kRestarting, kNoneBound}));
}

}  // namespace
