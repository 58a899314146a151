// The firewall's functions on Wine's own firewall objects: COM, the system's version and its services are not
// simulated. The expected results are queried from the objects first.

#include <array>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <netfw.h>
#include <wrl/client.h>

#include "FirewallFixture.h"
#include "LogCollector.h"
#include "vta_core_control.h"

namespace {

using Microsoft::WRL::ComPtr;

bool IsWine() {
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

/// Checks what is expected by the objects' answers against the lines in full, where the answers are known: Wine 8 and
/// Wine 10 implement neither the reading nor the writing of a profile's switch, and have a list that takes everything.
void ExpectAsWineAnswers(const Lines &expected, const Lines &lines) {
    using Version = const char *CDECL();
    auto *const version = reinterpret_cast<Version *>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version")));
    const std::string number = version();
    if (number.starts_with("8.") || number.starts_with("10.")) {
        EXPECT_EQ(expected, lines);
    }
}

std::string Failure(const std::string &what, HRESULT hr) {
    std::array<char, 120> text{};
    std::snprintf(text.data(), text.size(), "%s failed: 0x%08lx", what.c_str(), static_cast<unsigned long>(hr));
    return text.data();
}

/// The objects, as the test program itself creates them.
struct Objects {
    Objects() {
        EXPECT_EQ(CoCreateInstance(__uuidof(NetFwPolicy2), nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&policy)), S_OK);
        ComPtr<INetFwMgr> manager;
        ComPtr<INetFwPolicy> local;
        EXPECT_EQ(CoCreateInstance(__uuidof(NetFwMgr), nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&manager)), S_OK);
        EXPECT_EQ(manager->get_LocalPolicy(&local), S_OK);
        EXPECT_EQ(local->get_CurrentProfile(&profile), S_OK);
        EXPECT_EQ(profile->get_AuthorizedApplications(&applications), S_OK);
    }
    ComPtr<INetFwPolicy2> policy;
    ComPtr<INetFwProfile> profile;
    ComPtr<INetFwAuthorizedApplications> applications;
};

const Lines kWineOff{"DisableFirewall()", kNoStart};
const Lines kWineOn{"EnableFirewall()", kNoStart};
const Lines kWineKeepsOn = kWineOff + Lines{"get_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) failed: 0x80004001"};
constexpr std::array<const char *, 3> kNames{"NET_FW_PROFILE2_DOMAIN", "NET_FW_PROFILE2_PRIVATE",
                                             "NET_FW_PROFILE2_PUBLIC"};

NET_FW_PROFILE_TYPE2 Profile(unsigned index) {
    return static_cast<NET_FW_PROFILE_TYPE2>(1U << index);
}

/// The expected log of turning off, as far as the objects are on and can be read.
Lines OffBy(INetFwPolicy2 *policy, DWORD &mask) {
    Lines log = kWineOff;
    mask = 0;
    for (unsigned i = 0; i < kNames.size(); ++i) {
        VARIANT_BOOL enabled = VARIANT_FALSE;
        const HRESULT hr = policy->get_FirewallEnabled(Profile(i), &enabled);
        const std::string name = kNames.at(i);
        if (FAILED(hr)) {
            mask = 0;
            return log + Lines{Failure("get_FirewallEnabled(" + name + ")", hr)};
        }
        log.push_back("fwPolicy2->get_FirewallEnabled " + name + " returned " + std::to_string(enabled));
        mask |= enabled != VARIANT_FALSE ? 1U << i : 0;
    }
    return log;
}

/// The expected log of turning on with a flag of 7.
Lines OnBy(INetFwPolicy2 *policy, bool &restored) {
    Lines log = kWineOn + Lines{"Turning Windows Firewall back on, previous Setting was 7"};
    restored = true;
    for (unsigned i = 0; i < kNames.size() && restored; ++i) {
        const std::string put = std::string("put_FirewallEnabled(") + kNames.at(i) + ")";
        log.push_back(put + " true");
        const HRESULT hr = policy->put_FirewallEnabled(Profile(i), VARIANT_TRUE);
        restored = SUCCEEDED(hr);
        if (!restored)
            log.push_back(Failure(put, hr));
    }
    return log;
}

/// A text for COM.
struct ComText {
    explicit ComText(const wchar_t *from) : text(SysAllocString(from)) {}
    ~ComText() { SysFreeString(text); }
    ComText(const ComText &) = delete;
    ComText &operator=(const ComText &) = delete;
    const BSTR text;
};

/// The expected log of adding "C:\\agent.exe" to the list, after its first line; ends with the empty line where it
/// fails.
Lines AddBy(INetFwAuthorizedApplications *applications) {
    const ComText path(L"C:\\agent.exe");
    const ComText name(L"Agent");
    ComPtr<INetFwAuthorizedApplication> listed;
    VARIANT_BOOL enabled = VARIANT_FALSE;
    HRESULT hr = applications->Item(path.text, &listed);
    if (SUCCEEDED(hr))
        hr = listed->get_Enabled(&enabled);
    if (listed && FAILED(hr))
        return {Failure("get_Enabled", hr), Failure("WindowsFirewallAppIsEnabled", hr),
                Failure("WindowsFirewallAddApp", hr), ""};
    if (enabled == VARIANT_TRUE)
        return {};
    ComPtr<INetFwAuthorizedApplication> entry;
    hr = CoCreateInstance(__uuidof(NetFwAuthorizedApplication), nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&entry));
    EXPECT_EQ(hr, S_OK);
    hr = entry->put_ProcessImageFileName(path.text);
    if (FAILED(hr))
        return {Failure("put_ProcessImageFileName", hr), Failure("WindowsFirewallAddApp", hr), ""};
    hr = entry->put_Name(name.text);
    if (FAILED(hr))
        return {Failure("put_Name", hr), Failure("WindowsFirewallAddApp", hr), ""};
    hr = applications->Add(entry.Get());
    if (FAILED(hr))
        return {Failure("Add", hr), Failure("WindowsFirewallAddApp", hr), ""};
    return {R"(Authorized application C:\agent.exe is now enabled in the firewall.)"};
}

/// Only under Wine: on Windows these would switch the machine's own firewall.
class RealFirewall : public ModuleFixture {
protected:
    RealFirewall()
        : ModuleFixture({.folders = false,
                         .machine = false,
                         .services = false,
                         .security = false,
                         .setup = false,
                         .network = false,
                         .firewall = false}) {
        VtaCore::Control::EnableTrace("*", false);
        VtaCore::Control::EnableTrace("FC-WFW", true);
        (void)TakeTracedLines();
    }
    ~RealFirewall() override { VtaCore::Control::EnableTrace("*", false); }

    void SetUp() override {
        if (!IsWine())
            GTEST_SKIP() << "would switch the firewall of this Windows machine";
    }

    /// Runs in a separate thread, whose COM model is not set.
    static void InThread(const std::function<void()> &body) { std::thread(body).join(); }
    static bool ComIsStarted() {
        APTTYPE type{};
        APTTYPEQUALIFIER qualifier{};
        return CoGetApartmentType(&type, &qualifier) != CO_E_NOTINITIALIZED;
    }
    static void WithObjects(const std::function<void(const Objects &)> &body) {
        ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)));
        body(Objects());
        CoUninitialize();
    }
    Lines Call(const std::string &call, const std::string &result) {
        const Simulator::BalanceSnapshot before = balance().Take();
        EXPECT_EQ(lua.Eval("SLB.filter." + call), result);
        const Simulator::BalanceSnapshot after = balance().Take();
        for (const char *kind : {Simulator::Kind::kKey, Simulator::Kind::kHandle})
            EXPECT_EQ(after.Count(kind), before.Count(kind)) << kind;
        return TakeTracedMessages("FC-WFW");
    }
    std::optional<DWORD> Flag() { return simulation().GetRegistry().Dword(HKEY_LOCAL_MACHINE, kAgentKey, kFlagName); }
};

TEST_F(RealFirewall, IsTurnedOffAsItsObjectsAnswer) {
    InThread([this] {
        Lines expected;
        DWORD mask = 0;
        WithObjects([&](const Objects &objects) { expected = OffBy(objects.policy.Get(), mask); });
        ASSERT_EQ(mask, 0U) << "Wine's firewall is off, or can't be asked";
        ExpectAsWineAnswers(expected, kWineKeepsOn);
        EXPECT_EQ(Call("DisableNativeFirewall()", "0"), expected);
        EXPECT_EQ(Flag(), std::nullopt);
        EXPECT_FALSE(ComIsStarted());
    });
}

TEST_F(RealFirewall, IsTurnedOnAsItsObjectsAnswer) {
    InThread([this] {
        Lines expected;
        bool restored = false;
        WithObjects([&](const Objects &objects) { expected = OnBy(objects.policy.Get(), restored); });
        ExpectAsWineAnswers(expected,
                            kWineOn + Lines{"Turning Windows Firewall back on, previous Setting was 7",
                                            "put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) true",
                                            "put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) failed: 0x80004001"});
        simulation().GetRegistry().PutDword(HKEY_LOCAL_MACHINE, kAgentKey, kFlagName, 7);
        EXPECT_EQ(Call("EnableNativeFirewall()", "0"), expected);
        EXPECT_EQ(Flag(), restored ? std::nullopt : std::optional<DWORD>(7));
        EXPECT_FALSE(ComIsStarted());
    });
}

TEST_F(RealFirewall, LosesAnInvalidFlagWithoutAnyCallOfItsSwitches) {
    InThread([this] {
        simulation().GetRegistry().PutText(HKEY_LOCAL_MACHINE, kAgentKey, kFlagName, L"7");
        EXPECT_EQ(Call("EnableNativeFirewall()", "0"), kWineOn);
        EXPECT_EQ(simulation().GetRegistry().Text(HKEY_LOCAL_MACHINE, kAgentKey, kFlagName), std::nullopt);
        EXPECT_FALSE(ComIsStarted());
    });
}

TEST_F(RealFirewall, WorksInAThreadOfTheOtherModel) {
    InThread([this] {
        // Twice, since the call closes one that it has not opened.
        ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
        ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
        DWORD mask = 0;
        const Lines expected = OffBy(Objects().policy.Get(), mask);
        ExpectAsWineAnswers(expected, kWineKeepsOn);
        EXPECT_EQ(Call("DisableNativeFirewall()", "0"), expected);
        EXPECT_TRUE(ComIsStarted());
        CoUninitialize();
        EXPECT_FALSE(ComIsStarted());
    });
}

TEST_F(RealFirewall, ListsAnApplicationAsItsObjectsAnswer) {
    InThread([this] {
        Lines expected{R"(WindowsFirewallAddApp called with path = C:\agent.exe displayName = Agent)"};
        WithObjects([&](const Objects &objects) { expected = expected + AddBy(objects.applications.Get()); });
        const bool works = !expected.back().empty();
        if (!works)
            expected.pop_back();
        ExpectAsWineAnswers(expected, {R"(WindowsFirewallAddApp called with path = C:\agent.exe displayName = Agent)",
                                       R"(Authorized application C:\agent.exe is now enabled in the firewall.)"});
        EXPECT_EQ(Call(R"(WindowsFirewallAddApp('C:\\agent.exe', 'Agent'))", works ? "true" : "false"), expected);
        EXPECT_EQ(ComIsStarted(), works) << "after a success it stays with the thread";
        if (works)
            CoUninitialize();
        EXPECT_FALSE(ComIsStarted());
    });
}

TEST_F(RealFirewall, UnlistsAnApplicationAsItsObjectsAnswer) {
    InThread([this] {
        HRESULT removed = S_OK;
        WithObjects([&](const Objects &objects) {
            const ComText path(L"C:\\agent.exe");
            removed = objects.applications->Remove(path.text);
        });
        const bool works = SUCCEEDED(removed);
        Lines expected{R"(WindowsFirewallRemoveApp called with path = C:\agent.exe)"};
        if (!works)
            expected = expected + Lines{Failure("Remove", removed), Failure("WindowsFirewallAddApp", removed)};
        ExpectAsWineAnswers(expected, {R"(WindowsFirewallRemoveApp called with path = C:\agent.exe)"});
        EXPECT_EQ(Call(R"(WindowsFirewallRemoveApp('C:\\agent.exe'))", works ? "true" : "false"), expected);
        EXPECT_EQ(ComIsStarted(), works);
        if (works)
            CoUninitialize();
    });
}

TEST_F(RealFirewall, RefusesAnApplicationWithoutAPath) {
    InThread([this] {
        EXPECT_EQ(
            Call("WindowsFirewallAddApp('', 'Agent')", "false"),
            (Lines{"WindowsFirewallAddApp called with path =  displayName = Agent", "SysAllocString failed: 0x8007000e",
                   "WindowsFirewallAppIsEnabled failed: 0x8007000e", "WindowsFirewallAddApp failed: 0x8007000e"}));
        EXPECT_FALSE(ComIsStarted());
    });
}

}  // namespace
