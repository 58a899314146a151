#include "NetworkConfiguration.h"

#include <optional>
#include <string>
#include <vector>

#include "SimulatorNetworkSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

constexpr wchar_t kCard[] = L"PCI\\CARD\\1";
constexpr wchar_t kOther[] = L"PCI\\OTHER\\1";

/// Two adapters; the filter is bound to both, the protocol to the first.
class SimulatedBindings : public SimulatedNetwork {
protected:
    SimulatedBindings() {
        network.Put({.id = L"ms_tcpip", .classGuid = GUID_DEVCLASS_NETTRANS});
        network.Put({.id = L"filter"});
        network.PutAdapter({.id = L"pci\\card", .bindName = L"{one}", .pnpDevNodeId = kCard});
        network.PutAdapter({.id = L"pci\\other", .bindName = L"{two}", .pnpDevNodeId = kOther});
        network.Bind(kCard, L"ms_tcpip");
        network.Bind(kCard, L"filter");
        network.Bind(kOther, L"filter", false);
    }

    static ComPtr<INetCfgComponentBindings> BindingsOf(const ComPtr<INetCfgComponent> &component) {
        ComPtr<INetCfgComponentBindings> bindings;
        EXPECT_EQ(component.As(&bindings), S_OK);
        return bindings;
    }
    static ComPtr<IEnumNetCfgBindingPath> Enumerate(const ComPtr<INetCfgComponent> &component, DWORD flags) {
        ComPtr<IEnumNetCfgBindingPath> list;
        EXPECT_EQ(BindingsOf(component)->EnumBindingPaths(flags, &list), S_OK);
        return list;
    }
    static std::vector<ComPtr<INetCfgBindingPath>> Paths(const ComPtr<INetCfgComponent> &component, DWORD flags) {
        const auto list = Enumerate(component, flags);
        std::vector<ComPtr<INetCfgBindingPath>> paths;
        ComPtr<INetCfgBindingPath> path;
        while (list->Next(1, &path, nullptr) == S_OK)
            paths.push_back(path);
        return paths;
    }
    /// The one interface of a path.
    static ComPtr<INetCfgBindingInterface> InterfaceOf(const ComPtr<INetCfgBindingPath> &path) {
        ComPtr<IEnumNetCfgBindingInterface> list;
        EXPECT_EQ(path->EnumBindingInterfaces(&list), S_OK);
        ComPtr<INetCfgBindingInterface> found;
        EXPECT_EQ(list->Next(1, &found, nullptr), S_OK);
        ComPtr<INetCfgBindingInterface> second;
        EXPECT_EQ(list->Next(1, &second, nullptr), S_FALSE);
        return found;
    }
    static std::wstring Upper(const ComPtr<INetCfgBindingPath> &path) {
        ComPtr<INetCfgComponent> component;
        EXPECT_EQ(InterfaceOf(path)->GetUpperComponent(&component), S_OK);
        return Text(component, &INetCfgComponent::GetId);
    }
    static std::wstring Lower(const ComPtr<INetCfgBindingPath> &path) {
        ComPtr<INetCfgComponent> component;
        EXPECT_EQ(InterfaceOf(path)->GetLowerComponent(&component), S_OK);
        return Text(component, &INetCfgComponent::GetPnpDevNodeId);
    }
    static HRESULT IsBound(const ComPtr<INetCfg> &engine, const wchar_t *component, std::size_t adapter) {
        return BindingsOf(Find(engine, component))->IsBoundTo(Adapters(engine).at(adapter).Get());
    }
    /// The path from the first adapter to the filter.
    static ComPtr<INetCfgBindingPath> FilterPath(const ComPtr<INetCfg> &engine) {
        return Paths(Adapters(engine).at(0), EBP_ABOVE).at(1);
    }
};

}  // namespace

TEST_F(SimulatedBindings, ReportWhatIsBoundToAnAdapter) {
    const ComPtr<INetCfg> engine = CreateInitialised();
    EXPECT_EQ(IsBound(engine, L"ms_tcpip", 0), S_OK);
    EXPECT_EQ(IsBound(engine, L"ms_tcpip", 1), S_FALSE) << "no binding";
    EXPECT_EQ(IsBound(engine, L"filter", 0), S_OK);
    EXPECT_EQ(IsBound(engine, L"filter", 1), S_FALSE) << "disabled";
    EXPECT_EQ(BindingsOf(Find(engine, L"filter"))->IsBoundTo(nullptr), E_POINTER);
    EXPECT_EQ(BindingsOf(Adapters(engine)[0])->IsBoundTo(Find(engine, L"filter").Get()), S_FALSE) << "upside down";
}

TEST_F(SimulatedBindings, ArePathsUpFromAnAdapterAndDownFromAComponent) {
    const ComPtr<INetCfg> engine = CreateInitialised();
    const auto adapters = Adapters(engine);
    const auto up = Paths(adapters[0], EBP_ABOVE);
    ASSERT_EQ(up.size(), 2U);
    EXPECT_EQ(Upper(up[0]), L"ms_tcpip");
    EXPECT_EQ(Upper(up[1]), L"filter");
    EXPECT_EQ(Lower(up[1]), kCard);
    const auto down = Paths(Find(engine, L"filter"), EBP_BELOW);
    ASSERT_EQ(down.size(), 2U);
    EXPECT_EQ(down[0]->IsEnabled(), S_OK);
    EXPECT_EQ(Lower(down[1]), kOther);
    EXPECT_EQ(down[1]->IsEnabled(), S_FALSE);
    EXPECT_TRUE(Paths(adapters[0], EBP_BELOW).empty());
    EXPECT_TRUE(Paths(Find(engine, L"filter"), EBP_ABOVE).empty());
    ComPtr<IEnumNetCfgBindingPath> list;
    EXPECT_EQ(BindingsOf(adapters[0])->EnumBindingPaths(0, &list), E_INVALIDARG);
    EXPECT_EQ(BindingsOf(adapters[0])->EnumBindingPaths(EBP_ABOVE, nullptr), E_POINTER);
}

TEST_F(SimulatedBindings, ArePathsOfSeveralInterfacesWhereOthersLieAbove) {
    network.Put({.id = L"upper"});
    network.Bind(kOther, L"upper>missing>ms_tcpip>FILTER");
    const ComPtr<INetCfg> engine = CreateInitialised();
    ComPtr<IEnumNetCfgBindingInterface> list;
    const auto paths = Paths(Adapters(engine).at(1), EBP_ABOVE);
    ASSERT_EQ(paths.size(), 2U);
    EXPECT_EQ(Upper(paths[0]), L"filter") << "the other path has one";
    ASSERT_EQ(paths[1]->EnumBindingInterfaces(&list), S_OK);
    std::vector<std::wstring> ends;
    ComPtr<INetCfgBindingInterface> each;
    while (list->Next(1, &each, nullptr) == S_OK) {
        ComPtr<INetCfgComponent> upper;
        ComPtr<INetCfgComponent> lower;
        EXPECT_EQ(each->GetUpperComponent(&upper), S_OK);
        EXPECT_EQ(each->GetLowerComponent(&lower), S_OK);
        ends.push_back(Text(upper, &INetCfgComponent::GetId) + L" above " + Text(lower, &INetCfgComponent::GetId));
    }
    EXPECT_EQ(ends, (std::vector<std::wstring>{L"upper above ms_tcpip", L"ms_tcpip above filter",
                                               L"filter above pci\\other"}));
    EXPECT_EQ(paths[1]->IsEnabled(), S_OK) << "unlike the other path";
}

TEST_F(SimulatedBindings, ExistWhileBothTheirEndsExist) {
    const ComPtr<INetCfg> engine = CreateInitialised();
    const auto path = FilterPath(engine);
    const auto ends = InterfaceOf(path);
    network.RemoveAdapter(kCard);
    EXPECT_EQ(network.Binding(kCard, L"filter"), std::nullopt);
    EXPECT_EQ(path->IsEnabled(), NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT);
    ComPtr<INetCfgComponent> component;
    EXPECT_EQ(ends->GetUpperComponent(&component), NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT);
    EXPECT_EQ(Paths(Find(engine, L"filter"), EBP_BELOW).size(), 1U);
    network.PutAdapter({.id = L"pci\\card", .bindName = L"{one}", .pnpDevNodeId = kCard});
    EXPECT_EQ(network.Binding(kCard, L"Filter"), true);
    EXPECT_EQ(path->IsEnabled(), NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT) << "it is another adapter";
}

TEST_F(SimulatedBindings, AreRemovedForGoodWithTheirComponent) {
    const ComPtr<INetCfg> engine = CreateLocked();
    EXPECT_EQ(DeInstall(engine, L"filter"), S_OK);
    network.Put({.id = L"filter"});
    EXPECT_EQ(network.Binding(kCard, L"filter"), std::nullopt);
    EXPECT_EQ(network.Binding(kCard, L"ms_tcpip"), true);
}

TEST_F(SimulatedBindings, ChangeAtOnceForTheEngineAndWithApplyForTheMachine) {
    const ComPtr<INetCfg> engine = CreateLocked();
    const auto path = FilterPath(engine);
    EXPECT_EQ(path->Enable(FALSE), S_OK);
    EXPECT_EQ(path->IsEnabled(), S_FALSE);
    EXPECT_EQ(FilterPath(engine)->IsEnabled(), S_FALSE);
    EXPECT_EQ(IsBound(engine, L"filter", 0), S_FALSE);
    EXPECT_EQ(network.Binding(kCard, L"filter"), true);
    EXPECT_EQ(FilterPath(CreateInitialised())->IsEnabled(), S_OK) << "of another engine";
    EXPECT_EQ(engine->Apply(), S_OK);
    EXPECT_EQ(network.Binding(kCard, L"filter"), false);
    EXPECT_EQ(path->Enable(TRUE), S_OK);
    EXPECT_EQ(engine->Apply(), S_OK);
    EXPECT_EQ(network.Binding(kCard, L"filter"), true);
}

TEST_F(SimulatedBindings, DiscardTheChangesOfAnEngineWithoutApply) {
    for (const bool cancels : {false, true}) {
        const ComPtr<INetCfg> engine = CreateLocked();
        const auto path = FilterPath(engine);
        EXPECT_EQ(path->Enable(FALSE), S_OK);
        if (cancels) {
            EXPECT_EQ(engine->Cancel(), S_OK);
        } else {
            EXPECT_EQ(engine->Uninitialize(), S_OK);
            EXPECT_EQ(path->IsEnabled(), NETCFG_E_NOT_INITIALIZED);
            EXPECT_EQ(engine->Initialize(nullptr), S_OK);
        }
        EXPECT_EQ(path->IsEnabled(), S_OK);
        EXPECT_EQ(engine->Apply(), S_OK);
        EXPECT_EQ(network.Binding(kCard, L"filter"), true);
        EXPECT_EQ(LockOf(engine)->ReleaseWriteLock(), S_OK);
    }
}

TEST_F(SimulatedBindings, AreUnchangedWhenApplyFails) {
    const ComPtr<INetCfg> engine = CreateLocked();
    EXPECT_EQ(FilterPath(engine)->Enable(FALSE), S_OK);
    network.Use([](NetworkState &state) { state.applyResult = E_FAIL; });
    EXPECT_EQ(engine->Apply(), E_FAIL);
    EXPECT_EQ(network.Binding(kCard, L"filter"), true);
    network.Use([](NetworkState &state) { state.applyResult = S_OK; });
    (void)faults().FailNth("INetCfg::Apply", 1, static_cast<DWORD>(E_ABORT));
    EXPECT_EQ(engine->Apply(), E_ABORT);
    EXPECT_EQ(network.Binding(kCard, L"filter"), true);
    EXPECT_EQ(engine->Apply(), S_OK);
    EXPECT_EQ(network.Binding(kCard, L"filter"), false);
}

TEST_F(SimulatedBindings, ChangeOnlyUnderTheWriteLock) {
    const ComPtr<INetCfg> engine = CreateInitialised();
    EXPECT_EQ(FilterPath(engine)->Enable(FALSE), NETCFG_E_NO_WRITE_LOCK);
    EXPECT_EQ(FilterPath(engine)->IsEnabled(), S_OK);
}

TEST_F(SimulatedBindings, FailToChangeAsPlanned) {
    const ComPtr<INetCfg> engine = CreateLocked();
    const auto path = FilterPath(engine);
    (void)faults().FailNth("INetCfgBindingPath::Enable", 1, static_cast<DWORD>(E_ACCESSDENIED));
    EXPECT_EQ(path->Enable(FALSE), E_ACCESSDENIED);
    EXPECT_EQ(path->IsEnabled(), S_OK);
    EXPECT_EQ(path->Enable(FALSE), S_OK);
    EXPECT_EQ(path->IsEnabled(), S_FALSE);
}

TEST_F(SimulatedBindings, ReportTheMomentsOfTheirChanges) {
    std::vector<NetworkMoment> moments;
    network.OnMoment([&](const NetworkMoment &moment) { moments.push_back(moment); });
    const ComPtr<INetCfg> engine = CreateLocked();
    const auto path = FilterPath(engine);
    EXPECT_EQ(path->Enable(TRUE), S_OK);
    EXPECT_EQ(engine->Apply(), S_OK);
    EXPECT_TRUE(moments.empty()) << "nothing changed";
    EXPECT_EQ(path->Enable(FALSE), S_OK);
    EXPECT_TRUE(moments.empty()) << "not applied";
    EXPECT_EQ(engine->Apply(), S_OK);
    EXPECT_EQ(path->Enable(TRUE), S_OK);
    EXPECT_EQ(engine->Apply(), S_OK);
    ASSERT_EQ(moments.size(), 2U);
    EXPECT_EQ(moments[0].what, NetworkMoment::What::BindingDisabled);
    EXPECT_EQ(moments[0].component, L"filter");
    EXPECT_EQ(moments[0].adapter, kCard);
    EXPECT_EQ(moments[1].what, NetworkMoment::What::BindingEnabled);
}

TEST_F(SimulatedBindings, HaveCountedObjectsWithTheirInterfaces) {
    {
        const ComPtr<INetCfg> engine = CreateInitialised();
        const auto component = Find(engine, L"filter");
        const auto bindings = BindingsOf(component);
        ComPtr<INetCfgComponent> back;
        EXPECT_EQ(bindings.As(&back), S_OK);
        EXPECT_EQ(back, component);
        const auto path = Paths(component, EBP_BELOW).at(0);
        ComPtr<INetCfgLock> none;
        EXPECT_EQ(path.As(&none), E_NOINTERFACE);
        EXPECT_EQ(InterfaceOf(path).As(&none), E_NOINTERFACE);
        EXPECT_EQ(References(), 5U);
    }
    EXPECT_EQ(References(), 0U);
    EXPECT_EQ(Count(Kind::kComMemory), 0U);
}

TEST_F(SimulatedBindings, StayUsableWhenTheThreadOfAHangingChangeIsKilled) {
    const FaultPlanHandle hang = faults().HangNth("INetCfgBindingPath::Enable", 1);
    const ComPtr<INetCfg> engine = CreateLocked();
    const auto path = FilterPath(engine);
    {
        const TestThread thread([&path] { (void)path->Enable(FALSE); });
        ASSERT_TRUE(hang->WaitUntilHit(kPatienceMs));
        ASSERT_TRUE(TerminateThread(thread.Handle(), 1));
    }
    EXPECT_EQ(path->IsEnabled(), S_OK);
    EXPECT_EQ(path->Enable(FALSE), S_OK);
    EXPECT_EQ(engine->Apply(), S_OK);
    EXPECT_EQ(network.Binding(kCard, L"filter"), false);
}
