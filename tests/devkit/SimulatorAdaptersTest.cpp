#include "NetworkConfiguration.h"

#include <array>
#include <string>
#include <vector>

#include "SimulatorNetworkSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

class SimulatedAdapters : public SimulatedNetwork {
protected:
    SimulatedAdapters() {
        network.Put({.id = L"ms_tcpip", .classGuid = GUID_DEVCLASS_NETTRANS});
        network.PutAdapter({.id = L"pci\\card",
                            .bindName = L"{one}",
                            .pnpDevNodeId = L"PCI\\CARD\\1",
                            .displayName = L"First",
                            .deviceStatus = 22});
        network.PutAdapter({.id = L"root\\virtual",
                            .bindName = L"{two}",
                            .pnpDevNodeId = L"ROOT\\VIRTUAL\\0",
                            .characteristics = NCF_VIRTUAL | NCF_HIDDEN,
                            .deviceStatusResult = E_ACCESSDENIED});
    }
    static std::vector<std::wstring> BindNames(const ComPtr<INetCfg> &engine) {
        std::vector<std::wstring> names;
        for (const auto &adapter : Adapters(engine))
            names.push_back(Text(adapter, &INetCfgComponent::GetBindName));
        return names;
    }
    static ComPtr<IEnumNetCfgComponent> Enumerate(const ComPtr<INetCfg> &engine,
                                                  const GUID *classGuid = &GUID_DEVCLASS_NET) {
        ComPtr<IEnumNetCfgComponent> components;
        EXPECT_EQ(engine->EnumComponents(classGuid, &components), S_OK);
        return components;
    }
    using Names = std::vector<std::wstring>;
};

}  // namespace

TEST_F(SimulatedAdapters, AreComponentsWithTheirProperties) {
    const ComPtr<INetCfg> engine = CreateInitialised();
    const auto adapters = Adapters(engine);
    ASSERT_EQ(adapters.size(), 2U);
    EXPECT_EQ(Text(adapters[0], &INetCfgComponent::GetId), L"pci\\card");
    EXPECT_EQ(Text(adapters[0], &INetCfgComponent::GetBindName), L"{one}");
    EXPECT_EQ(Text(adapters[0], &INetCfgComponent::GetPnpDevNodeId), L"PCI\\CARD\\1");
    EXPECT_EQ(Text(adapters[0], &INetCfgComponent::GetDisplayName), L"First");
    DWORD characteristics = 0;
    EXPECT_EQ(adapters[0]->GetCharacteristics(&characteristics), S_OK);
    EXPECT_EQ(characteristics, static_cast<DWORD>(NCF_PHYSICAL));
    EXPECT_EQ(adapters[1]->GetCharacteristics(&characteristics), S_OK);
    EXPECT_EQ(characteristics, static_cast<DWORD>(NCF_VIRTUAL | NCF_HIDDEN));
    ULONG status = 0;
    EXPECT_EQ(adapters[0]->GetDeviceStatus(&status), S_OK);
    EXPECT_EQ(status, 22U);
    GUID classGuid{};
    EXPECT_EQ(adapters[1]->GetClassGuid(&classGuid), S_OK);
    EXPECT_EQ(classGuid, GUID_DEVCLASS_NET);
    EXPECT_EQ(Count(Kind::kComMemory), 0U);
}

TEST_F(SimulatedAdapters, MayLackANameAndAStatus) {
    const ComPtr<INetCfg> engine = CreateInitialised();
    const auto adapter = Adapters(engine).at(1);
    wchar_t stale[] = L"stale";
    LPWSTR name = stale;
    EXPECT_EQ(adapter->GetDisplayName(&name), E_FAIL);
    EXPECT_EQ(name, nullptr);
    ULONG status = 4711;
    EXPECT_EQ(adapter->GetDeviceStatus(&status), E_ACCESSDENIED);
    EXPECT_EQ(status, 4711U);
    EXPECT_EQ(adapter->GetDeviceStatus(nullptr), E_POINTER);
    EXPECT_EQ(adapter->GetBindName(nullptr), E_POINTER);
}

TEST_F(SimulatedAdapters, HavePropertiesThatOtherComponentsLack) {
    const ComPtr<INetCfg> engine = CreateInitialised();
    const auto protocol = Find(engine, L"ms_tcpip");
    LPWSTR text = nullptr;
    EXPECT_EQ(protocol->GetBindName(&text), E_NOTIMPL);
    EXPECT_EQ(protocol->GetPnpDevNodeId(&text), E_NOTIMPL);
    EXPECT_EQ(protocol->GetDisplayName(&text), E_NOTIMPL);
    ULONG number = 0;
    EXPECT_EQ(protocol->GetDeviceStatus(&number), E_NOTIMPL);
    DWORD characteristics = 4711;
    EXPECT_EQ(protocol->GetCharacteristics(&characteristics), S_OK);
    EXPECT_EQ(characteristics, 0U);
}

TEST_F(SimulatedAdapters, AreListedByClass) {
    const ComPtr<INetCfg> engine = CreateInitialised();
    std::array<INetCfgComponent *, 4> components{};
    ULONG fetched = 0;
    EXPECT_EQ(Enumerate(engine, nullptr)->Next(4, components.data(), &fetched), S_FALSE);
    EXPECT_EQ(fetched, 3U);
    EXPECT_EQ(components[3], nullptr);
    for (ULONG i = 0; i < fetched; ++i)
        components[i]->Release();
    ComPtr<INetCfgClass> protocols;
    ASSERT_EQ(engine->QueryNetCfgClass(&GUID_DEVCLASS_NETTRANS, IID_PPV_ARGS(&protocols)), S_OK);
    ComPtr<IEnumNetCfgComponent> list;
    ASSERT_EQ(protocols->EnumComponents(&list), S_OK);
    ComPtr<INetCfgComponent> protocol;
    ASSERT_EQ(list->Next(1, &protocol, nullptr), S_OK);
    EXPECT_EQ(Text(protocol, &INetCfgComponent::GetId), L"ms_tcpip");
    EXPECT_EQ(list->Next(1, &protocol, nullptr), S_FALSE);
}

TEST_F(SimulatedAdapters, AreListedOnlyByAnInitialisedEngine) {
    const ComPtr<INetCfg> engine = Create();
    auto *components = reinterpret_cast<IEnumNetCfgComponent *>(0x4711);
    EXPECT_EQ(engine->EnumComponents(&GUID_DEVCLASS_NET, &components), NETCFG_E_NOT_INITIALIZED);
    EXPECT_EQ(components, nullptr);
    EXPECT_EQ(engine->EnumComponents(&GUID_DEVCLASS_NET, nullptr), E_POINTER);
}

TEST_F(SimulatedAdapters, CanBeSkippedInAListAndReadAgain) {
    const ComPtr<INetCfg> engine = CreateInitialised();
    const auto list = Enumerate(engine);
    ComPtr<INetCfgComponent> component;
    EXPECT_EQ(list->Skip(1), S_OK);
    ComPtr<IEnumNetCfgComponent> copy;
    ASSERT_EQ(list->Clone(&copy), S_OK);
    ASSERT_EQ(list->Next(1, &component, nullptr), S_OK);
    EXPECT_EQ(Text(component, &INetCfgComponent::GetBindName), L"{two}");
    EXPECT_EQ(list->Skip(1), S_FALSE);
    ASSERT_EQ(copy->Next(1, &component, nullptr), S_OK);
    EXPECT_EQ(Text(component, &INetCfgComponent::GetBindName), L"{two}");
    EXPECT_EQ(list->Reset(), S_OK);
    ASSERT_EQ(list->Next(1, &component, nullptr), S_OK);
    EXPECT_EQ(Text(component, &INetCfgComponent::GetBindName), L"{one}");
    EXPECT_EQ(list->Next(2, &component, nullptr), E_INVALIDARG) << "without the number";
    EXPECT_EQ(list->Next(1, nullptr, nullptr), E_POINTER);
    EXPECT_EQ(list->Clone(nullptr), E_POINTER);
    ComPtr<INetCfg> none;
    EXPECT_EQ(list.As(&none), E_NOINTERFACE);
}

TEST_F(SimulatedAdapters, AreMissingFromListsMadeAfterTheyVanish) {
    const ComPtr<INetCfg> engine = CreateInitialised();
    const auto list = Enumerate(engine);
    network.RemoveAdapter(L"pci\\card\\1");
    network.PutAdapter({.id = L"usb\\new", .bindName = L"{new}", .pnpDevNodeId = L"USB\\1"});
    ComPtr<INetCfgComponent> gone;
    ASSERT_EQ(list->Next(1, &gone, nullptr), S_OK);
    LPWSTR text = nullptr;
    EXPECT_EQ(gone->GetBindName(&text), NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT);
    EXPECT_EQ(list->Skip(1), S_OK);
    EXPECT_EQ(list->Next(1, &gone, nullptr), S_FALSE);
    EXPECT_EQ(BindNames(engine), (Names{L"{two}", L"{new}"}));
}

TEST_F(SimulatedAdapters, CanBeChangedWhileTheyExist) {
    const ComPtr<INetCfg> engine = CreateInitialised();
    EXPECT_TRUE(network.ChangeAdapter(L"pci\\card\\1", [](NetworkAdapter &it) { it.bindName = L"{other}"; }));
    EXPECT_FALSE(network.ChangeAdapter(L"none", [](NetworkAdapter &) { FAIL(); }));
    EXPECT_EQ(BindNames(engine), (Names{L"{other}", L"{two}"}));
}

TEST_F(SimulatedAdapters, AreSubjectToFaultPlansCallByCall) {
    const ComPtr<INetCfg> engine = CreateInitialised();
    (void)journal().Take();
    (void)faults().FailNth("IEnumNetCfgComponent::Next", 2, static_cast<DWORD>(E_OUTOFMEMORY));
    (void)faults().FailNth("INetCfgComponent::GetBindName", 1, static_cast<DWORD>(E_ABORT));
    const auto adapters = Adapters(engine);
    ASSERT_EQ(adapters.size(), 1U) << "the second call failed";
    LPWSTR text = nullptr;
    EXPECT_EQ(adapters[0]->GetBindName(&text), E_ABORT);
    EXPECT_EQ(journal().Names(),
              (std::vector<std::string>{"INetCfg::EnumComponents", "IEnumNetCfgComponent::Next",
                                        "IEnumNetCfgComponent::Next", "INetCfgComponent::GetBindName"}));
    EXPECT_EQ(Givers(), (std::vector<std::string>{"CoCreateInstance", "IEnumNetCfgComponent::Next"}));
}

TEST_F(SimulatedAdapters, OutliveTheSimulationAsObjects) {
    const ComPtr<INetCfg> engine = CreateInitialised();
    const auto list = Enumerate(engine);
    simulation.reset();
    ComPtr<INetCfgComponent> component;
    EXPECT_EQ(list->Next(1, &component, nullptr), RPC_E_DISCONNECTED);
}
