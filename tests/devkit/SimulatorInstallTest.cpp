#include "NetworkConfiguration.h"

#include <mutex>
#include <string>
#include <vector>

#include "SimulatorNetworkSupport.h"
#include "vti_control.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

constexpr wchar_t kCard[] = L"PCI\\CARD\\1";
constexpr HRESULT kMarkedForDelete = static_cast<HRESULT>(0x80070430);

class SimulatedInstallation : public SimulatedNetwork {
protected:
    SimulatedInstallation() {
        network.PutAdapter({.id = L"pci\\card", .bindName = L"{one}", .pnpDevNodeId = kCard, .ip = "10.0.0.2"});
        network.Put({.id = L"ms_tcpip", .classGuid = GUID_DEVCLASS_NETTRANS});
    }
    void CanInstall(const InstallableComponent &component) {
        network.Use([&](NetworkState &state) { state.installable.push_back(component); });
    }
    static HRESULT Install(const ComPtr<INetCfg> &engine, const wchar_t *id, INetCfgComponent **component = nullptr) {
        OBO_TOKEN token{};
        token.Type = OBO_USER;
        return SetupOf(engine)->Install(id, &token, 2, 0, nullptr, nullptr, component);
    }
};

}  // namespace

TEST_F(SimulatedInstallation, AddsTheComponentAndBindsItToEveryAdapter) {
    CanInstall({.component = {.id = L"filter", .deInstallResult = NETCFG_S_REBOOT}});
    network.PutAdapter({.id = L"usb", .bindName = L"{two}", .pnpDevNodeId = L"USB\\1"});
    const ComPtr<INetCfg> engine = CreateLocked();
    ComPtr<INetCfgComponent> component;
    EXPECT_EQ(Install(engine, L"Filter", &component), S_OK);
    EXPECT_EQ(Text(component, &INetCfgComponent::GetId), L"filter");
    EXPECT_TRUE(network.Has(L"filter"));
    EXPECT_EQ(network.Binding(kCard, L"filter"), true);
    EXPECT_EQ(network.Binding(L"usb\\1", L"filter"), true);
    EXPECT_EQ(network.Binding(kCard, L"ms_tcpip"), std::nullopt);
    EXPECT_EQ(DeInstall(engine, L"filter"), NETCFG_S_REBOOT);
    EXPECT_FALSE(network.Has(L"filter"));
    EXPECT_EQ(Install(engine, L"filter"), S_OK) << "where the component is not asked for";
    EXPECT_TRUE(network.Has(L"filter"));
}

TEST_F(SimulatedInstallation, AnswersEachAttemptAsItsScriptSays) {
    CanInstall({.component = {.id = L"filter"}, .results = {kMarkedForDelete, kMarkedForDelete, NETCFG_S_REBOOT}});
    const ComPtr<INetCfg> engine = CreateLocked();
    for (int attempt = 0; attempt < 2; ++attempt) {
        auto *component = reinterpret_cast<INetCfgComponent *>(0x4711);
        EXPECT_EQ(Install(engine, L"filter", &component), kMarkedForDelete);
        EXPECT_EQ(component, nullptr);
        EXPECT_FALSE(network.Has(L"filter"));
    }
    EXPECT_EQ(Install(engine, L"filter"), NETCFG_S_REBOOT);
    EXPECT_TRUE(network.Has(L"filter"));
    EXPECT_EQ(Install(engine, L"filter"), S_OK);
    EXPECT_EQ(network.Read().components.size(), 3U) << "installed once";
}

TEST_F(SimulatedInstallation, CanReportSuccessAndInstallNothing) {
    CanInstall({.component = {.id = L"filter"}, .leavesNothing = true});
    const ComPtr<INetCfg> engine = CreateLocked();
    INetCfgComponent *component = nullptr;
    EXPECT_EQ(Install(engine, L"filter", &component), S_OK);
    EXPECT_EQ(component, nullptr);
    EXPECT_FALSE(network.Has(L"filter"));
}

TEST_F(SimulatedInstallation, InstallsOnlyComponentsOfItsClass) {
    CanInstall({.component = {.id = L"protocol", .classGuid = GUID_DEVCLASS_NETTRANS}});
    const ComPtr<INetCfg> engine = CreateLocked();
    EXPECT_EQ(Install(engine, L"none"), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(Install(engine, L"protocol"), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(Install(engine, nullptr), E_POINTER);
    EXPECT_FALSE(network.Has(L"protocol"));
}

TEST_F(SimulatedInstallation, NeedsTheWriteLockAndAKnownToken) {
    CanInstall({.component = {.id = L"filter"}, .results = {E_FAIL}});
    const ComPtr<INetCfg> engine = CreateInitialised();
    EXPECT_EQ(Install(engine, L"filter"), NETCFG_E_NO_WRITE_LOCK);
    OBO_TOKEN token{};
    EXPECT_EQ(SetupOf(engine)->Install(L"filter", &token, 2, 0, nullptr, nullptr, nullptr), E_INVALIDARG);
    EXPECT_EQ(Install(CreateLocked(), L"filter"), E_FAIL) << "no attempt was counted before";
}

TEST_F(SimulatedInstallation, FailsAndHangsAsPlanned) {
    CanInstall({.component = {.id = L"filter"}});
    (void)faults().FailNth("INetCfgClassSetup::Install", 1, static_cast<DWORD>(NETCFG_S_REBOOT));
    const FaultPlanHandle hang = faults().HangNth("INetCfgClassSetup::Install", 2);
    const ComPtr<INetCfg> engine = CreateLocked();
    EXPECT_EQ(Install(engine, L"filter"), NETCFG_S_REBOOT);
    EXPECT_FALSE(network.Has(L"filter"));
    const auto setup = SetupOf(engine);
    {
        const TestThread thread([&] { (void)setup->Install(L"filter", nullptr, 2, 0, nullptr, nullptr, nullptr); });
        ASSERT_TRUE(hang->WaitUntilHit(kPatienceMs));
        ASSERT_TRUE(TerminateThread(thread.Handle(), 1));
    }
    EXPECT_FALSE(network.Has(L"filter"));
    EXPECT_EQ(Install(engine, L"filter"), S_OK);
    EXPECT_TRUE(network.Has(L"filter"));
}

TEST_F(SimulatedInstallation, LetsANetworkBreakAndRecoverByTheProgramsCalls) {
    using What = NetworkMoment::What;
    CanInstall({.component = {.id = L"filter"}});
    network.OnMoment([this](const NetworkMoment &moment) {
        if (moment.what == What::Installed)
            network.ChangeAdapter(kCard, [](NetworkAdapter &adapter) { adapter.ip = "0.0.0.0"; });
        if (moment.what == What::BindingEnabled)
            network.ChangeAdapter(moment.adapter, [](NetworkAdapter &adapter) { adapter.ip = "10.0.0.3"; });
    });
    const auto ip = [this] {
        return network.Use([](NetworkState &state) { return ComponentWithNode(state, kCard)->adapter->ip; });
    };
    const ComPtr<INetCfg> engine = CreateLocked();
    EXPECT_EQ(Install(engine, L"filter"), S_OK);
    EXPECT_EQ(ip(), "0.0.0.0");
    ComPtr<INetCfgComponentBindings> bindings;
    ASSERT_EQ(Find(engine, L"filter").As(&bindings), S_OK);
    ComPtr<IEnumNetCfgBindingPath> paths;
    ASSERT_EQ(bindings->EnumBindingPaths(EBP_BELOW, &paths), S_OK);
    ComPtr<INetCfgBindingPath> path;
    ASSERT_EQ(paths->Next(1, &path, nullptr), S_OK);
    EXPECT_EQ(path->Enable(FALSE), S_OK);
    EXPECT_EQ(engine->Apply(), S_OK);
    EXPECT_EQ(ip(), "0.0.0.0");
    EXPECT_EQ(path->Enable(TRUE), S_OK);
    EXPECT_EQ(engine->Apply(), S_OK);
    EXPECT_EQ(ip(), "10.0.0.3");
}

TEST_F(SimulatedInstallation, LetsTheRunningDriverChangeWithTheComponent) {
    Vti::Reset();
    CanInstall({.component = {.id = L"filter"}});
    network.OnMoment([](const NetworkMoment &moment) {
        const std::lock_guard<std::mutex> guard(Vti::Lock());
        Vti::TheDriver().present = moment.what == NetworkMoment::What::Installed;
        Vti::TheDriver().version = "2.0.0.0";
    });
    const ComPtr<INetCfg> engine = CreateLocked();
    EXPECT_EQ(Install(engine, L"filter"), S_OK);
    EXPECT_EQ(Vti::TheDriver().version, "2.0.0.0");
    EXPECT_TRUE(Vti::TheDriver().present);
    EXPECT_EQ(DeInstall(engine, L"filter"), S_OK);
    EXPECT_FALSE(Vti::TheDriver().present);
    Vti::Reset();
}
