#include "NetworkConfiguration.h"

#include <set>
#include <string>
#include <vector>

#include "SimulatorNetworkSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

TEST_F(SimulatedNetwork, WorksBetweenInitializeAndUninitialize) {
    const ComPtr<INetCfg> engine = Create();
    INetCfgComponent *component = nullptr;
    INetCfgClass *netClass = nullptr;
    EXPECT_EQ(engine->FindComponent(L"filter", &component), NETCFG_E_NOT_INITIALIZED);
    EXPECT_EQ(engine->QueryNetCfgClass(&GUID_DEVCLASS_NET, IID_PPV_ARGS(&netClass)), NETCFG_E_NOT_INITIALIZED);
    EXPECT_EQ(engine->Uninitialize(), NETCFG_E_NOT_INITIALIZED);
    EXPECT_EQ(engine->Apply(), NETCFG_E_NOT_INITIALIZED);
    EXPECT_EQ(engine->Initialize(nullptr), S_OK);
    EXPECT_EQ(engine->Initialize(nullptr), NETCFG_E_ALREADY_INITIALIZED);
    EXPECT_EQ(engine->FindComponent(L"filter", &component), S_FALSE);
    EXPECT_EQ(engine->Uninitialize(), S_OK);
    EXPECT_EQ(engine->FindComponent(L"filter", &component), NETCFG_E_NOT_INITIALIZED);
    EXPECT_EQ(engine->Initialize(nullptr), S_OK);
}

TEST_F(SimulatedNetwork, FindsComponentsByTheirIdCaseInsensitively) {
    network.Put({.id = L"Filter"});
    network.Put({.id = L"ms_tcpip", .classGuid = GUID_DEVCLASS_NETTRANS});
    const ComPtr<INetCfg> engine = CreateInitialised();
    LPWSTR id = nullptr;
    EXPECT_EQ(Find(engine, L"fILTER")->GetId(&id), S_OK);
    EXPECT_STREQ(id, L"Filter");
    CoTaskMemFree(id);
    GUID classGuid{};
    EXPECT_EQ(Find(engine, L"filter")->GetClassGuid(&classGuid), S_OK);
    EXPECT_EQ(classGuid, GUID_DEVCLASS_NETSERVICE);
    EXPECT_EQ(Find(engine, L"MS_TCPIP")->GetClassGuid(&classGuid), S_OK);
    EXPECT_EQ(classGuid, GUID_DEVCLASS_NETTRANS);
    auto *component = reinterpret_cast<INetCfgComponent *>(0x4711);
    EXPECT_EQ(engine->FindComponent(L"ms_tcpip6", &component), S_FALSE);
    EXPECT_EQ(component, nullptr);
    EXPECT_EQ(engine->FindComponent(L"filter", nullptr), S_OK) << "where it is only asked for";
    EXPECT_EQ(References(), 1U);
    EXPECT_EQ(Count(Kind::kComMemory), 0U);
}

TEST_F(SimulatedNetwork, ProvidesBothInterfacesOfClasses) {
    network.Put({.id = L"filter"});
    network.Put({.id = L"ms_tcpip", .classGuid = GUID_DEVCLASS_NETTRANS});
    const ComPtr<INetCfg> engine = CreateInitialised();
    ComPtr<INetCfgClass> netClass;
    ASSERT_EQ(engine->QueryNetCfgClass(&GUID_DEVCLASS_NETSERVICE, IID_PPV_ARGS(&netClass)), S_OK);
    ComPtr<INetCfgClassSetup> setup;
    EXPECT_EQ(netClass.As(&setup), S_OK);
    EXPECT_NE(SetupOf(engine), nullptr);
    ComPtr<INetCfgClass> back;
    EXPECT_EQ(setup.As(&back), S_OK);
    EXPECT_EQ(back, netClass);
    ComPtr<INetCfgLock> none;
    EXPECT_EQ(netClass.As(&none), E_NOINTERFACE);
    EXPECT_EQ(netClass->FindComponent(L"filter", nullptr), S_OK);
    EXPECT_EQ(netClass->FindComponent(L"ms_tcpip", nullptr), S_FALSE) << "of another class";
}

TEST_F(SimulatedNetwork, RemovesAComponentAtOnce) {
    network.Put({.id = L"filter"});
    network.Put({.id = L"other"});
    const ComPtr<INetCfg> engine = CreateLocked();
    const ComPtr<INetCfgComponent> component = Find(engine, L"filter");
    EXPECT_EQ(DeInstall(engine, L"filter"), S_OK);
    EXPECT_EQ(engine->FindComponent(L"filter", nullptr), S_FALSE);
    EXPECT_FALSE(network.Has(L"filter"));
    EXPECT_TRUE(network.Has(L"Other"));
    GUID classGuid{};
    EXPECT_EQ(component->GetClassGuid(&classGuid), NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT);
    EXPECT_EQ(SetupOf(engine)->DeInstall(component.Get(), nullptr, nullptr), NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT);
    EXPECT_EQ(engine->Apply(), S_OK);
}

TEST_F(SimulatedNetwork, RemovesAndAppliesOnlyUnderTheWriteLock) {
    network.Put({.id = L"filter"});
    const ComPtr<INetCfg> engine = CreateInitialised();
    EXPECT_EQ(DeInstall(engine, L"filter"), NETCFG_E_NO_WRITE_LOCK);
    EXPECT_EQ(engine->Apply(), NETCFG_E_NO_WRITE_LOCK);
    EXPECT_EQ(engine->Cancel(), NETCFG_E_NO_WRITE_LOCK);
    EXPECT_TRUE(network.Has(L"filter"));
}

TEST_F(SimulatedNetwork, RemovesWithTheComponentsResult) {
    network.Put({.id = L"stubborn", .deInstallsUntilGone = 0});
    network.Put({.id = L"third time", .deInstallsUntilGone = 3});
    network.Put({.id = L"reboot", .deInstallResult = NETCFG_S_REBOOT});
    network.Put({.id = L"failing", .deInstallResult = E_FAIL});
    const ComPtr<INetCfg> engine = CreateLocked();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(DeInstall(engine, L"stubborn"), S_OK);
        EXPECT_EQ(DeInstall(engine, L"failing"), E_FAIL);
    }
    EXPECT_TRUE(network.Has(L"stubborn"));
    EXPECT_TRUE(network.Has(L"failing"));
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(network.Has(L"third time"));
        EXPECT_EQ(DeInstall(engine, L"third time"), S_OK);
    }
    EXPECT_FALSE(network.Has(L"third time"));
    EXPECT_EQ(DeInstall(engine, L"reboot"), NETCFG_S_REBOOT);
    EXPECT_FALSE(network.Has(L"reboot"));
}

TEST_F(SimulatedNetwork, RefusesToRemoveInvalidComponentsOrWithoutAToken) {
    network.Put({.id = L"filter"});
    const ComPtr<INetCfg> engine = CreateLocked();
    auto *references = const_cast<wchar_t *>(L"untouched");
    OBO_TOKEN token{};
    EXPECT_EQ(SetupOf(engine)->DeInstall(nullptr, nullptr, &references), E_POINTER);
    EXPECT_EQ(references, nullptr);
    EXPECT_EQ(SetupOf(engine)->DeInstall(Find(engine, L"filter").Get(), &token, nullptr), E_INVALIDARG);
    EXPECT_TRUE(network.Has(L"filter"));
}

TEST_F(SimulatedNetwork, RemovesDevicesWithTheLastComponentOfTheirId) {
    network.Put({.id = L"miniport"});
    network.Put({.id = L"Miniport"});
    devices.Put({.instanceId = L"ROOT\\MINIPORT\\0000", .componentId = L"MINIPORT"});
    devices.Put({.instanceId = L"PCI\\CARD\\0000"});
    const ComPtr<INetCfg> engine = CreateLocked();
    EXPECT_EQ(DeInstall(engine, L"miniport"), S_OK);
    EXPECT_TRUE(devices.Has(L"ROOT\\MINIPORT\\0000"));
    EXPECT_EQ(DeInstall(engine, L"miniport"), S_OK);
    EXPECT_FALSE(devices.Has(L"ROOT\\MINIPORT\\0000"));
    EXPECT_TRUE(devices.Has(L"PCI\\CARD\\0000"));
}

TEST_F(SimulatedNetwork, InitializesAndAppliesWithTheConfiguredResults) {
    network.Use([](NetworkState &state) {
        state.initializeResult = E_ABORT;
        state.applyResult = NETCFG_S_REBOOT;
    });
    const ComPtr<INetCfg> engine = Create();
    EXPECT_EQ(engine->Initialize(nullptr), E_ABORT);
    EXPECT_EQ(engine->Uninitialize(), NETCFG_E_NOT_INITIALIZED);
    network.Use([](NetworkState &state) { state.initializeResult = S_OK; });
    EXPECT_EQ(LockOf(engine)->AcquireWriteLock(0, L"test", nullptr), S_OK);
    EXPECT_EQ(engine->Initialize(nullptr), S_OK);
    EXPECT_EQ(engine->Apply(), NETCFG_S_REBOOT);
}

namespace {

/// All methods but QueryInterface, without regard to what they answer.
void CallEachMethod(INetCfg *engine, INetCfgLock *lock) {
    (void)engine->Initialize(nullptr);
    (void)engine->Apply();
    (void)engine->Cancel();
    (void)engine->EnumComponents(nullptr, nullptr);
    (void)engine->FindComponent(nullptr, nullptr);
    (void)engine->QueryNetCfgClass(nullptr, IID_INetCfgClass, nullptr);
    (void)engine->Uninitialize();
    (void)lock->AcquireWriteLock(0, nullptr, nullptr);
    (void)lock->IsWriteLocked(nullptr);
    (void)lock->ReleaseWriteLock();
}

void CallEachMethod(INetCfgClass *netClass, INetCfgClassSetup *setup) {
    (void)netClass->FindComponent(nullptr, nullptr);
    (void)netClass->EnumComponents(nullptr);
    (void)setup->SelectAndInstall(nullptr, nullptr, nullptr);
    (void)setup->Install(nullptr, nullptr, 0, 0, nullptr, nullptr, nullptr);
    (void)setup->DeInstall(nullptr, nullptr, nullptr);
}

void CallEachMethod(INetCfgComponent *component) {
    (void)component->GetDisplayName(nullptr);
    (void)component->SetDisplayName(nullptr);
    (void)component->GetHelpText(nullptr);
    (void)component->GetId(nullptr);
    (void)component->GetCharacteristics(nullptr);
    (void)component->GetInstanceGuid(nullptr);
    (void)component->GetPnpDevNodeId(nullptr);
    (void)component->GetClassGuid(nullptr);
    (void)component->GetBindName(nullptr);
    (void)component->GetDeviceStatus(nullptr);
    (void)component->OpenParamKey(nullptr);
    (void)component->RaisePropertyUi(nullptr, 0, nullptr);
}

}  // namespace

TEST_F(SimulatedNetwork, ListsTheNamesOfAllItsMethods) {
    network.Put({.id = L"filter"});
    const ComPtr<INetCfg> engine = CreateInitialised();
    const ComPtr<INetCfgLock> lock = LockOf(engine);
    const ComPtr<INetCfgClassSetup> setup = SetupOf(engine);
    const ComPtr<INetCfgComponent> component = Find(engine, L"filter");
    ComPtr<INetCfgClass> netClass;
    ASSERT_EQ(setup.As(&netClass), S_OK);
    (void)journal().Take();

    for (IUnknown *object :
         std::initializer_list<IUnknown *>{engine.Get(), lock.Get(), netClass.Get(), setup.Get(), component.Get()})
        (void)object->QueryInterface(IID_IUnknown, nullptr);
    CallEachMethod(engine.Get(), lock.Get());
    CallEachMethod(netClass.Get(), setup.Get());
    CallEachMethod(component.Get());

    // Except those of bindings and enumerations, which are not called here.
    const std::set<std::string> interfaces{"INetCfg", "INetCfgLock", "INetCfgClass", "INetCfgClassSetup",
                                           "INetCfgComponent"};
    std::set<std::string> told;
    for (const std::string name : NetworkMethods()) {
        if (interfaces.contains(name.substr(0, name.find("::"))))
            told.insert(name);
    }
    const std::vector<std::string> called = journal().Names();
    EXPECT_EQ(told, std::set<std::string>(called.begin(), called.end()));
}

TEST_F(SimulatedNetwork, IsInTheJournalCallByCall) {
    network.Put({.id = L"filter"});
    (void)journal().Take();
    {
        const ComPtr<INetCfg> engine = CreateLocked();
        EXPECT_EQ(DeInstall(engine, L"filter"), S_OK);
        EXPECT_EQ(engine->Apply(), S_OK);
        EXPECT_EQ(engine->Uninitialize(), S_OK);
        EXPECT_EQ(LockOf(engine)->ReleaseWriteLock(), S_OK);
    }
    EXPECT_EQ(journal().Names(),
              (std::vector<std::string>{"CoCreateInstance", "INetCfg::QueryInterface", "INetCfgLock::AcquireWriteLock",
                                        "INetCfg::Initialize", "INetCfg::QueryNetCfgClass", "INetCfg::FindComponent",
                                        "INetCfgClassSetup::DeInstall", "INetCfg::Apply", "INetCfg::Uninitialize",
                                        "INetCfg::QueryInterface", "INetCfgLock::ReleaseWriteLock"}));
    const std::vector<JournalEntry> calls = journal().Take();
    EXPECT_EQ(calls[2].arguments, "0, \"test\", null");
    EXPECT_EQ(calls[4].arguments.find("{4D36E974-E325-11CE-BFC1-08002BE10318}, "
                                      "{C0E8AE9D-306E-11D1-AACF-00805FC1270E}, 0x"),
              0U)
        << calls[4].arguments;
    EXPECT_EQ(calls[5].arguments.find("\"filter\", 0x"), 0U) << calls[5].arguments;
}
