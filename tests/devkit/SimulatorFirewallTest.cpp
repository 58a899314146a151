#include "Firewall.h"

#include <initializer_list>
#include <memory>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <netfw.h>
#include <windows.h>
#include <wrl/client.h>

#include "AutomationObject.h"
#include "Simulation.h"
#include "SimulatorTestSupport.h"

using namespace Simulator;
using namespace SimulatorTest;
using Microsoft::WRL::ComPtr;

namespace {

/// A text for COM, and the owner of one that COM returns.
class Bstr {
public:
    Bstr() = default;
    explicit Bstr(const wchar_t *text) : m_text(SysAllocString(text)) {}
    ~Bstr() { SysFreeString(m_text); }
    Bstr(const Bstr &) = delete;
    Bstr &operator=(const Bstr &) = delete;

    [[nodiscard]] BSTR Get() const { return m_text; }
    BSTR *operator&() { return &m_text; }

private:
    BSTR m_text = nullptr;
};

/// This program on a machine with a firewall, COM initialised in its first thread.
class SimulatedFirewall : public ::testing::Test {
protected:
    SimulatedFirewall() {
        (void)simulation->Attach(ThisProgram());
        EXPECT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)));
    }
    ~SimulatedFirewall() override { CoUninitialize(); }

    template <class Interface>
    static ComPtr<Interface> Create(const CLSID &id) {
        ComPtr<Interface> object;
        EXPECT_EQ(CoCreateInstance(id, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&object)), S_OK);
        return object;
    }
    static ComPtr<INetFwPolicy2> Policy() { return Create<INetFwPolicy2>(__uuidof(NetFwPolicy2)); }
    static ComPtr<INetFwProfile> CurrentProfile() {
        ComPtr<INetFwPolicy> policy;
        ComPtr<INetFwProfile> profile;
        EXPECT_EQ(Create<INetFwMgr>(__uuidof(NetFwMgr))->get_LocalPolicy(&policy), S_OK);
        EXPECT_EQ(policy->get_CurrentProfile(&profile), S_OK);
        return profile;
    }
    static ComPtr<INetFwAuthorizedApplications> List() {
        ComPtr<INetFwAuthorizedApplications> list;
        EXPECT_EQ(CurrentProfile()->get_AuthorizedApplications(&list), S_OK);
        return list;
    }
    static ComPtr<INetFwAuthorizedApplication> Entry(const wchar_t *path, const wchar_t *name) {
        auto entry = Create<INetFwAuthorizedApplication>(__uuidof(NetFwAuthorizedApplication));
        EXPECT_EQ(entry->put_ProcessImageFileName(Bstr(path).Get()), S_OK);
        EXPECT_EQ(entry->put_Name(Bstr(name).Get()), S_OK);
        return entry;
    }
    [[nodiscard]] std::size_t Count(const char *kind) const { return simulation->GetBalance().Take().Count(kind); }

    std::unique_ptr<Simulation> simulation = std::make_unique<Simulation>(
        SimulationParts{.registry = false, .folders = false, .services = false, .setup = false, .network = false});
    Firewall &firewall = simulation->GetFirewall();
};

}  // namespace

TEST_F(SimulatedFirewall, HasASwitchForEachProfile) {
    const ComPtr<INetFwPolicy2> policy = Policy();
    firewall.Put({.domainProfile = VARIANT_FALSE, .privateProfile = 7, .publicProfile = VARIANT_TRUE});
    VARIANT_BOOL enabled = 99;
    EXPECT_EQ(policy->get_FirewallEnabled(NET_FW_PROFILE2_DOMAIN, &enabled), S_OK);
    EXPECT_EQ(enabled, VARIANT_FALSE);
    EXPECT_EQ(policy->get_FirewallEnabled(NET_FW_PROFILE2_PRIVATE, &enabled), S_OK);
    EXPECT_EQ(enabled, 7);
    EXPECT_EQ(policy->get_FirewallEnabled(NET_FW_PROFILE2_PUBLIC, &enabled), S_OK);
    EXPECT_EQ(enabled, VARIANT_TRUE);
    EXPECT_EQ(policy->put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN, VARIANT_TRUE), S_OK);
    EXPECT_EQ(policy->put_FirewallEnabled(NET_FW_PROFILE2_PRIVATE, VARIANT_FALSE), S_OK);
    EXPECT_EQ(policy->put_FirewallEnabled(NET_FW_PROFILE2_PUBLIC, VARIANT_FALSE), S_OK);
    EXPECT_EQ(firewall.Read(), (FirewallState{.privateProfile = VARIANT_FALSE, .publicProfile = VARIANT_FALSE}));
}

TEST_F(SimulatedFirewall, RejectsInvalidProfiles) {
    const ComPtr<INetFwPolicy2> policy = Policy();
    VARIANT_BOOL enabled = 99;
    for (const int profile : {0, 3, 8, 0x7FFFFFFF}) {
        EXPECT_EQ(policy->get_FirewallEnabled(static_cast<NET_FW_PROFILE_TYPE2>(profile), &enabled), E_INVALIDARG);
        EXPECT_EQ(policy->put_FirewallEnabled(static_cast<NET_FW_PROFILE_TYPE2>(profile), VARIANT_FALSE), E_INVALIDARG);
    }
    EXPECT_EQ(policy->get_FirewallEnabled(NET_FW_PROFILE2_DOMAIN, nullptr), E_POINTER);
    EXPECT_EQ(enabled, 99) << "left alone";
    EXPECT_EQ(firewall.Read(), FirewallState());
}

TEST_F(SimulatedFirewall, HasASwitchOfTheCurrentProfile) {
    const ComPtr<INetFwProfile> profile = CurrentProfile();
    VARIANT_BOOL enabled = 99;
    EXPECT_EQ(profile->get_FirewallEnabled(&enabled), S_OK);
    EXPECT_EQ(enabled, VARIANT_TRUE);
    EXPECT_EQ(profile->put_FirewallEnabled(VARIANT_FALSE), S_OK);
    EXPECT_EQ(firewall.Read(), (FirewallState{.currentProfile = VARIANT_FALSE}));
    EXPECT_EQ(profile->get_FirewallEnabled(nullptr), E_POINTER);
}

TEST_F(SimulatedFirewall, HasNoPolicyOnAnOldSystem) {
    simulation->GetMachine().osMajor = 5;
    ComPtr<INetFwPolicy2> policy;
    EXPECT_EQ(CoCreateInstance(__uuidof(NetFwPolicy2), nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&policy)),
              REGDB_E_CLASSNOTREG);
    EXPECT_EQ(policy.Get(), nullptr);
    EXPECT_NE(CurrentProfile().Get(), nullptr);
    simulation->GetMachine().osMajor = 6;
    EXPECT_NE(Policy().Get(), nullptr);
}

TEST_F(SimulatedFirewall, ListsApplicationsByTheirPathCaseInsensitively) {
    const ComPtr<INetFwAuthorizedApplications> list = List();
    EXPECT_EQ(list->Add(Entry(L"C:\\a.exe", L"A").Get()), S_OK);
    EXPECT_EQ(list->Add(Entry(L"C:\\b.exe", L"B").Get()), S_OK);
    EXPECT_EQ(list->Add(Entry(L"c:\\A.EXE", L"Another").Get()), S_OK);
    LONG count = 0;
    EXPECT_EQ(list->get_Count(&count), S_OK);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(firewall.Read().applications[0], (FirewallApplication{L"c:\\A.EXE", L"Another", VARIANT_TRUE}));
    EXPECT_EQ(list->Remove(Bstr(L"C:\\B.exe").Get()), S_OK);
    EXPECT_EQ(firewall.Read().applications.size(), 1U);
}

TEST_F(SimulatedFirewall, ReturnsACopyOfAnEntry) {
    firewall.Put({.applications = {{L"C:\\a.exe", L"A", VARIANT_BOOL{5}}}});
    ComPtr<INetFwAuthorizedApplication> entry;
    ASSERT_EQ(List()->Item(Bstr(L"C:\\A.exe").Get(), &entry), S_OK);
    VARIANT_BOOL enabled = 0;
    EXPECT_EQ(entry->get_Enabled(&enabled), S_OK);
    EXPECT_EQ(enabled, 5);
    Bstr name;
    EXPECT_EQ(entry->get_Name(&name), S_OK);
    EXPECT_EQ(std::wstring(name.Get()), L"A");
    Bstr path;
    EXPECT_EQ(entry->get_ProcessImageFileName(&path), S_OK);
    EXPECT_EQ(std::wstring(path.Get()), L"C:\\a.exe");
    EXPECT_EQ(entry->put_Enabled(VARIANT_FALSE), S_OK);
    EXPECT_EQ(firewall.Read().applications[0].enabled, 5) << "not before it is added";
    EXPECT_EQ(List()->Add(entry.Get()), S_OK);
    EXPECT_EQ(firewall.Read().applications[0].enabled, VARIANT_FALSE);
}

TEST_F(SimulatedFirewall, ReportsUnlistedApplications) {
    const ComPtr<INetFwAuthorizedApplications> list = List();
    const Bstr path(L"C:\\a.exe");
    auto *entry = reinterpret_cast<INetFwAuthorizedApplication *>(0x4711);
    EXPECT_EQ(list->Item(path.Get(), &entry), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(entry, nullptr);
    EXPECT_EQ(list->Remove(path.Get()), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    firewall.Put({.removeMissingResult = S_OK});
    EXPECT_EQ(list->Remove(path.Get()), S_OK);
    EXPECT_EQ(list->Item(nullptr, &entry), E_INVALIDARG);
    EXPECT_EQ(list->Remove(Bstr(L"").Get()), E_INVALIDARG);
    EXPECT_EQ(list->Add(nullptr), E_INVALIDARG);
    const auto empty = Create<INetFwAuthorizedApplication>(__uuidof(NetFwAuthorizedApplication));
    EXPECT_EQ(list->Add(empty.Get()), E_INVALIDARG) << "without a path";
    EXPECT_EQ(empty->put_Name(Bstr(L"").Get()), E_INVALIDARG);
}

TEST_F(SimulatedFirewall, ImplementsNoOtherMethods) {
    const ComPtr<INetFwPolicy2> policy = Policy();
    auto *rules = reinterpret_cast<INetFwRules *>(0x4711);
    EXPECT_EQ(policy->get_Rules(&rules), E_NOTIMPL);
    EXPECT_EQ(rules, nullptr);
    UINT count = 99;
    EXPECT_EQ(policy->GetTypeInfoCount(&count), E_NOTIMPL);
    EXPECT_EQ(count, 99U);
    EXPECT_EQ(simulation->GetJournal().Count("INetFwPolicy2::get_Rules"), 1U);
    EXPECT_EQ(simulation->GetJournal().Count("INetFwPolicy2::GetTypeInfoCount"), 1U);
    (void)simulation->GetFaults().FailNth("INetFwPolicy2::get_Rules", 1, static_cast<DWORD>(E_ACCESSDENIED));
    EXPECT_EQ(policy->get_Rules(&rules), E_ACCESSDENIED);
}

TEST_F(SimulatedFirewall, SupportsOnlyItsInterfaceIDispatchAndIUnknown) {
    const ComPtr<INetFwPolicy2> policy = Policy();
    ComPtr<IDispatch> dispatch;
    EXPECT_EQ(policy.As(&dispatch), S_OK);
    ComPtr<INetFwMgr> manager;
    EXPECT_EQ(policy.As(&manager), E_NOINTERFACE);
    EXPECT_EQ(Count(Kind::kComReference), 2U);
}

TEST_F(SimulatedFirewall, FailsAsPlannedWithoutAnyEffect) {
    const ComPtr<INetFwPolicy2> policy = Policy();
    (void)simulation->GetFaults().FailNth("INetFwPolicy2::put_FirewallEnabled", 1, static_cast<DWORD>(E_ACCESSDENIED));
    EXPECT_EQ(policy->put_FirewallEnabled(NET_FW_PROFILE2_PUBLIC, VARIANT_FALSE), E_ACCESSDENIED);
    EXPECT_EQ(firewall.Read(), FirewallState());
    const std::vector<JournalEntry> calls = simulation->GetJournal().Take();
    EXPECT_EQ(calls.back().function, "INetFwPolicy2::put_FirewallEnabled");
    EXPECT_EQ(calls.back().arguments, "4, 0");
}

TEST_F(SimulatedFirewall, ListsTheNamesOfAllItsMethods) {
    (void)simulation->GetJournal().Take();
    const ComPtr<INetFwPolicy2> policy = Policy();
    const ComPtr<INetFwMgr> manager = Create<INetFwMgr>(__uuidof(NetFwMgr));
    ComPtr<INetFwPolicy> localPolicy;
    EXPECT_EQ(manager->get_LocalPolicy(&localPolicy), S_OK);
    const ComPtr<INetFwProfile> profile = CurrentProfile();
    const ComPtr<INetFwAuthorizedApplications> list = List();
    const ComPtr<INetFwAuthorizedApplication> entry = Entry(L"C:\\a.exe", L"a");
    for (IUnknown *object : std::initializer_list<IUnknown *>{policy.Get(), manager.Get(), localPolicy.Get(),
                                                              profile.Get(), list.Get(), entry.Get()})
        (void)object->QueryInterface(__uuidof(IUnknown), nullptr);
    (void)policy->get_FirewallEnabled(NET_FW_PROFILE2_DOMAIN, nullptr);
    (void)policy->put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN, VARIANT_TRUE);
    (void)profile->get_FirewallEnabled(nullptr);
    (void)profile->put_FirewallEnabled(VARIANT_TRUE);
    (void)list->get_Count(nullptr);
    (void)list->Add(nullptr);
    (void)list->Remove(nullptr);
    (void)list->Item(nullptr, nullptr);
    (void)entry->get_Name(nullptr);
    (void)entry->get_ProcessImageFileName(nullptr);
    (void)entry->get_Enabled(nullptr);
    (void)entry->put_Enabled(VARIANT_TRUE);
    std::set<std::string> called;
    for (const std::string &name : simulation->GetJournal().Names()) {
        if (name.starts_with("INetFw"))
            called.insert(name);
    }
    const std::span<const char *const> told = FirewallMethods();
    EXPECT_EQ(std::set<std::string>(told.begin(), told.end()), called);
}

TEST_F(SimulatedFirewall, HasObjectsThatOutliveIt) {
    const ComPtr<INetFwProfile> profile = CurrentProfile();
    simulation.reset();
    VARIANT_BOOL enabled = 99;
    EXPECT_EQ(profile->get_FirewallEnabled(&enabled), RPC_E_DISCONNECTED);
    EXPECT_EQ(enabled, 99);
}

TEST_F(SimulatedFirewall, CountsItsTexts) {
    const BSTR text = SysAllocString(L"abc");
    EXPECT_EQ(SysStringLen(text), 3U);
    EXPECT_EQ(Count(Kind::kBstr), 1U);
    firewall.Put({.applications = {{L"C:\\a.exe", L"A"}}});
    ComPtr<INetFwAuthorizedApplication> entry;
    ASSERT_EQ(List()->Item(Bstr(L"C:\\a.exe").Get(), &entry), S_OK);
    BSTR name = nullptr;
    EXPECT_EQ(entry->get_Name(&name), S_OK);
    EXPECT_EQ(Count(Kind::kBstr), 2U);
    SysFreeString(name);
    SysFreeString(text);
    SysFreeString(nullptr);
    EXPECT_EQ(Count(Kind::kBstr), 0U);
    (void)simulation->GetFaults().FailNth("SysAllocString", 1, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(SysAllocString(L"abc"), nullptr);
}
