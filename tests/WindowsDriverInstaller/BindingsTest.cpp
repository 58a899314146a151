// Which adapters the filter is bound to, and how the bindings change.
#include <functional>
#include <string>
#include <vector>

#include "BindingsFixture.h"

namespace {

using What = Simulator::NetworkMoment::What;

const std::string kNoNeedForFirst = "No need to change the bindings of adapter 'First adapter'";
const std::string kNoNeedForSecond = "No need to change the bindings of adapter 'Second adapter'";

/// The filter is installed and bound to both adapters.
class FilterBindings : public BindingsFixture {
protected:
    FilterBindings() { PutFilter(); }

    static TcpAdapter Record(const wchar_t *node, bool boundToIp, bool boundToFilter) {
        TcpAdapter adapter;
        adapter.pnpDevNodeId = node;
        adapter.boundToIp = boundToIp;
        adapter.boundToFilter = boundToFilter;
        return adapter;
    }
    /// Which adapters are bound, the first and the second, as "+-".
    std::string Bound() { return std::string(IsBound(kFirst) ? "+" : "-") + (IsBound(kSecond) ? "+" : "-"); }
    void Bind(bool first, bool second) {
        network().Bind(kFirst, L"qbimvta", first);
        network().Bind(kSecond, L"qbimvta", second);
    }
    bool IsLocked() { return network().Read().lock.has_value(); }
    /// Unbinds all while the call fails, and expects that only the given calls are made, and nothing is reported or
    /// left open.
    void UnbindWhile(const std::string &function, unsigned nth, const std::string &bound) {
        SCOPED_TRACE(function + " " + std::to_string(nth));
        Bind(true, true);
        const auto plan = simulation().GetFaults().FailNth(function, nth, static_cast<DWORD>(E_FAIL));
        const InTest set = SetBindings(false, nullptr, false);
        EXPECT_TRUE(plan->Hit());
        EXPECT_TRUE(set.result);
        EXPECT_EQ(set.events, Texts{});
        EXPECT_EQ(set.left, Texts{});
        EXPECT_FALSE(IsLocked());
        EXPECT_EQ(Bound(), bound);
    }
};

// ---- Without a list

TEST_F(FilterBindings, CannotBeEnabledWithoutAList) {
    for (const bool useIp : {false, true}) {
        const InTest set = SetBindings(true, nullptr, useIp);
        EXPECT_FALSE(set.result);
        EXPECT_EQ(set.lines, Texts{});
        EXPECT_EQ(set.failedStep, 0xFFFFFFFF);
        EXPECT_EQ(CountCalls("CoInitializeEx"), 0U) << "no call is made";
    }
    EXPECT_EQ(Bound(), "++");
}

TEST_F(FilterBindings, AreAllDisabledWithoutAList) {
    const InTest set = SetBindings(false, nullptr, false);
    EXPECT_TRUE(set.result);
    EXPECT_EQ(Bound(), "--");
    EXPECT_EQ(
        set.lines,
        (Texts{"Adapter 'First adapter' is bound to qbimvta", "Disabling binding from 'First adapter' -> qbimvta",
               "Adapter 'Second adapter' is bound to qbimvta", "Disabling binding from 'Second adapter' -> qbimvta"}));
    EXPECT_EQ(set.events, Texts{});
    EXPECT_EQ(set.left, Texts{});
    EXPECT_EQ(set.steps, Texts{}) << "the steps of opening the configuration are not logged";
}

TEST_F(FilterBindings, AreDisabledWithoutAListWithOrWithoutIp) {
    EXPECT_TRUE(SetBindings(false, nullptr, true).result);
    EXPECT_EQ(Bound(), "--");
}

TEST_F(FilterBindings, AreAppliedOneByOne) {
    (void)SetBindings(false, nullptr, false);
    const Texts names = NamesOfCalls({"INetCfgBindingPath::Enable", "INetCfg::Apply"});
    EXPECT_EQ(names,
              (Texts{"INetCfgBindingPath::Enable", "INetCfg::Apply", "INetCfgBindingPath::Enable", "INetCfg::Apply"}));
}

TEST_F(FilterBindings, AreNotAppliedWhenAllAreDisabledAlready) {
    Bind(false, false);
    const InTest set = SetBindings(false, nullptr, false);
    EXPECT_TRUE(set.result);
    EXPECT_EQ(set.lines, (Texts{"Adapter 'First adapter' is not bound to qbimvta", kNoNeedForFirst,
                                "Adapter 'Second adapter' is not bound to qbimvta", kNoNeedForSecond}));
    EXPECT_EQ(CountCalls("INetCfg::Apply"), 0U);
    EXPECT_EQ(CountCalls("INetCfgBindingPath::Enable"), 0U);
}

TEST_F(FilterBindings, AreDisabledForComponentsThatAreNotAdapters) {
    network().ChangeAdapter(kFirst, [](auto &adapter) { adapter.characteristics = 0; });
    (void)SetBindings(false, nullptr, false);
    EXPECT_EQ(Bound(), "--") << "what matters is that the characteristics can be read, not their value";
}

// ---- With a list

TEST_F(FilterBindings, FollowTheRecordWhateverEnableSays) {
    for (unsigned bits = 0; bits < 32; ++bits) {
        const bool enable = (bits & 1U) != 0;
        const bool useIp = (bits & 2U) != 0;
        const bool ip = (bits & 4U) != 0;
        const bool filter = (bits & 8U) != 0;
        const bool enabled = (bits & 16U) != 0;
        SCOPED_TRACE(bits);
        Bind(enabled, enabled);
        const TcpAdapterList list{Record(kFirst, ip, filter)};
        const InTest set = SetBindings(enable, &list, useIp);
        EXPECT_TRUE(set.result);
        const bool wanted = useIp ? ip : filter;
        EXPECT_EQ(IsBound(kFirst), wanted);
        EXPECT_EQ(IsBound(kSecond), enabled) << "it is not in the list";
        EXPECT_EQ(CountCalls("INetCfg::Apply"), wanted != enabled ? 1U : 0U);
    }
}

TEST_F(FilterBindings, AreLoggedAsTheRecordStatesThem) {
    Bind(false, true);
    const TcpAdapterList list{Record(kFirst, true, false), Record(kSecond, false, true)};
    EXPECT_EQ(SetBindings(true, &list, true).lines,
              (Texts{"Adapter 'First adapter' is not bound to qbimvta",
                     "Original bindings of adapter 'First adapter' are ms_tcpip=1 qbimvta=0",
                     "Enabling binding from 'First adapter' -> qbimvta", "Adapter 'Second adapter' is bound to qbimvta",
                     "Original bindings of adapter 'Second adapter' are ms_tcpip=0 qbimvta=1",
                     "Disabling binding from 'Second adapter' -> qbimvta"}));
    EXPECT_EQ(Bound(), "+-");
}

TEST_F(FilterBindings, AreUnchangedForAnAdapterThatIsNotListed) {
    const TcpAdapterList list{Record(L"PCI\\GONE\\1", false, false)};
    const InTest set = SetBindings(false, &list, false);
    EXPECT_EQ(set.lines, (Texts{"Adapter 'First adapter' is bound to qbimvta", kNoNeedForFirst,
                                "Adapter 'Second adapter' is bound to qbimvta", kNoNeedForSecond}));
    EXPECT_EQ(Bound(), "++");
}

TEST_F(FilterBindings, AreUnchangedWithAnEmptyList) {
    const TcpAdapterList none;
    for (const bool enable : {false, true}) {
        EXPECT_TRUE(SetBindings(enable, &none, false).result);
        EXPECT_EQ(Bound(), "++");
        EXPECT_EQ(CountCalls("INetCfg::Apply"), 0U);
    }
}

TEST_F(FilterBindings, AreLookedUpByTheNodeCaseSensitively) {
    const TcpAdapterList list{Record(L"pci\\ven_8086&dev_100e\\1", false, false)};
    (void)SetBindings(false, &list, false);
    EXPECT_EQ(Bound(), "++");
}

TEST_F(FilterBindings, FollowTheFirstOfTwoRecords) {
    const TcpAdapterList list{Record(kFirst, false, false), Record(kFirst, true, true)};
    (void)SetBindings(false, &list, false);
    EXPECT_EQ(Bound(), "-+");
}

TEST_F(FilterBindings, AreUnchangedForAnotherAdapterOfTheSameModel) {
    network().ChangeAdapter(kSecond, [](auto &adapter) { adapter.id = L"PCI\\VEN_8086&DEV_100E"; });
    network().Use([](Simulator::NetworkState &state) {
        for (Simulator::NetworkComponent &component : state.components) {
            if (component.adapter)
                component.id = L"PCI\\VEN_8086&DEV_100E";
        }
    });
    const TcpAdapterList list{Record(kSecond, false, false)};
    (void)SetBindings(false, &list, false);
    EXPECT_EQ(Bound(), "+-");
}

TEST_F(FilterBindings, OfOtherComponentsAreUnchanged) {
    network().Put({.id = L"another"});
    network().Put({.id = L"qbimvta2"});
    for (const wchar_t *id : {L"another", L"qbimvta2", L"ms_tcpip6"})
        network().Bind(kFirst, id);
    (void)SetBindings(false, nullptr, false);
    EXPECT_EQ(Bound(), "--");
    for (const wchar_t *id : {L"another", L"qbimvta2", L"ms_tcpip", L"ms_tcpip6"})
        EXPECT_EQ(network().Binding(kFirst, id), true);
}

TEST_F(FilterBindings, AreMatchedByTheExactNameOfTheFilter) {
    network().Use([](Simulator::NetworkState &state) { ComponentWithId(state, L"qbimvta")->id = L"QBIMVTA"; });
    const InTest set = SetBindings(false, nullptr, false);
    EXPECT_TRUE(set.result);
    EXPECT_EQ(set.lines, Texts{});
    EXPECT_EQ(Bound(), "++");
}

TEST_F(FilterBindings, AreDisabledForTwoHundredAdapters) {
    for (int i = 2; i < 200; ++i)
        (void)PutNamed(L"NIC" + std::to_wstring(i), {2, 0, 0, 0, 1, static_cast<BYTE>(i)});
    const InTest set = SetBindings(false, nullptr, false);
    EXPECT_EQ(set.lines.size(), 400U);
    EXPECT_EQ(CountCalls("INetCfg::Apply"), 200U);
    for (const Simulator::NetworkBinding &binding : network().Read().bindings)
        EXPECT_EQ(binding.enabled, binding.component != L"qbimvta");
}

// ---- The configuration

TEST_F(FilterBindings, AreChangedUnderTheWriteLock) {
    (void)SetBindings(false, nullptr, false);
    EXPECT_EQ(Calls({"INetCfgLock::AcquireWriteLock"}),
              Texts{"INetCfgLock::AcquireWriteLock(15000, \"Quillon Vantry Agent Installer\", *)"});
    EXPECT_EQ(CountCalls("INetCfgLock::ReleaseWriteLock"), 1U);
    EXPECT_FALSE(IsLocked());
}

TEST_F(FilterBindings, AreUnchangedAfterWaitingFifteenSecondsForTheWriteLock) {
    network().LockFromElsewhere(L"Somebody");
    network().Use([](Simulator::NetworkState &state) { state.lockWaitMs = 60'000; });
    const std::uint64_t begin = simulation().GetClock().TickMs();
    const InTest set = SetBindings(false, nullptr, false);
    EXPECT_FALSE(set.result);
    EXPECT_EQ(simulation().GetClock().TickMs() - begin, 15'000U);
    EXPECT_EQ(set.events, Texts{"3005 INetCfgLock::AcquireWriteLock (0x8004a024)"});
    EXPECT_EQ(set.left, Texts{});
    EXPECT_EQ(Bound(), "++");
}

TEST_F(FilterBindings, AreUnchangedWithoutTheConfiguration) {
    for (const char *function : {"CoInitializeEx", "CoCreateInstance", "INetCfg::QueryInterface",
                                 "INetCfgLock::AcquireWriteLock", "INetCfg::Initialize"}) {
        SCOPED_TRACE(function);
        Fail(function, 1, static_cast<DWORD>(E_ACCESSDENIED));
        const InTest set = SetBindings(false, nullptr, false);
        EXPECT_FALSE(set.result);
        EXPECT_EQ(set.events.size(), 1U);
        EXPECT_EQ(set.left, Texts{});
        EXPECT_EQ(CountCalls("INetCfg::EnumComponents"), 0U);
        EXPECT_EQ(Bound(), "++");
    }
}

TEST_F(FilterBindings, AreEnumeratedAboveTheAdapters) {
    (void)SetBindings(false, nullptr, false);
    EXPECT_EQ(Calls({"INetCfg::EnumComponents", "INetCfgComponentBindings::EnumBindingPaths"}),
              (Texts{"INetCfg::EnumComponents({4D36E972-E325-11CE-BFC1-08002BE10318}, *)",
                     "INetCfgComponentBindings::EnumBindingPaths(1, *)",
                     "INetCfgComponentBindings::EnumBindingPaths(1, *)"}));
}

// ---- Failures during the enumeration

TEST_F(FilterBindings, AreUnchangedWhenTheComponentsCannotBeEnumerated) {
    UnbindWhile("INetCfg::EnumComponents", 1, "++");
}

TEST_F(FilterBindings, AreUnchangedForAnAdapterThatCannotBeRead) {
    for (const char *function : {"INetCfgComponent::GetCharacteristics", "INetCfgComponent::GetPnpDevNodeId",
                                 "INetCfgComponent::QueryInterface", "INetCfgComponentBindings::EnumBindingPaths"}) {
        UnbindWhile(function, 1, "+-");
        UnbindWhile(function, 2, "-+");
    }
}

TEST_F(FilterBindings, AreUnchangedWhenTheirPathCannotBeRead) {
    // The first adapter's path to TCP/IP, its path to the filter, then the same for the second.
    for (const char *function : {"INetCfgBindingPath::EnumBindingInterfaces", "IEnumNetCfgBindingPath::Next",
                                 "INetCfgBindingInterface::GetUpperComponent", "INetCfgComponent::GetId"}) {
        const bool ends = std::string(function) == "IEnumNetCfgBindingPath::Next";
        UnbindWhile(function, 1, ends ? "+-" : "--");
        UnbindWhile(function, 2, "+-");
    }
    UnbindWhile("INetCfgBindingPath::EnumBindingInterfaces", 4, "-+");
    UnbindWhile("IEnumNetCfgBindingInterface::Next", 1, "--");
    UnbindWhile("IEnumNetCfgBindingInterface::Next", 3, "+-");
    UnbindWhile("INetCfgBindingInterface::GetUpperComponent", 4, "-+");
    UnbindWhile("INetCfgComponent::GetId", 4, "-+");
}

TEST_F(FilterBindings, CountAsDisabledWhenTheirStateCannotBeRead) {
    UnbindWhile("INetCfgBindingPath::IsEnabled", 2, "+-");
    const TcpAdapterList list{Record(kFirst, true, true)};
    Bind(true, true);
    Fail("INetCfgBindingPath::IsEnabled", 2);
    EXPECT_EQ(SetBindings(false, &list, false).lines[2], "Enabling binding from 'First adapter' -> qbimvta");
}

TEST_F(FilterBindings, AreLoggedByTheNodeWithoutADisplayName) {
    Fail("INetCfgComponent::GetDisplayName");
    const InTest set = SetBindings(false, nullptr, false);
    EXPECT_EQ(set.lines[1], "Disabling binding from 'PCI\\VEN_8086&DEV_100E\\1' -> qbimvta");
    EXPECT_EQ(Bound(), "--");
}

TEST_F(FilterBindings, KeepTheChangesMadeBeforeTheEnumerationFails) {
    UnbindWhile("IEnumNetCfgComponent::Next", 2, "-+");
}

// ---- Failures of the change

TEST_F(FilterBindings, AreReportedOnceAndNotRetriedWhenTheyCannotBeChanged) {
    const auto plan = simulation().GetFaults().FailNth("INetCfgBindingPath::Enable", 1, static_cast<DWORD>(E_FAIL));
    const InTest set = SetBindings(false, nullptr, false);
    EXPECT_TRUE(set.result);
    EXPECT_EQ(set.events, Texts{"3005 INetCfgBindingInterface::Enable() (0x80004005)"});
    EXPECT_EQ(CountCalls("INetCfgBindingPath::Enable"), 2U) << "once for each adapter";
    EXPECT_EQ(CountCalls("INetCfg::Apply"), 1U) << "for the other one";
    EXPECT_EQ(set.lines,
              (Texts{"Adapter 'First adapter' is bound to qbimvta", "Adapter 'Second adapter' is bound to qbimvta",
                     "Disabling binding from 'Second adapter' -> qbimvta"}));
    EXPECT_EQ(set.left, Texts{});
    EXPECT_EQ(Bound(), "+-");
    EXPECT_FALSE(IsLocked());
}

TEST_F(FilterBindings, AreReportedOnceAndNotRetriedWhenTheyCannotBeApplied) {
    Bind(true, false);
    const auto plan = simulation().GetFaults().FailEvery("INetCfg::Apply", static_cast<DWORD>(NETCFG_E_NEED_REBOOT));
    const InTest set = SetBindings(false, nullptr, false);
    EXPECT_TRUE(set.result);
    EXPECT_EQ(plan->Hits(), 1U);
    EXPECT_EQ(set.events, Texts{"3005 INetCfg::Apply() (0x8004a025)"});
    EXPECT_EQ(set.lines[1], "Disabling binding from 'First adapter' -> qbimvta") << "what was enabled is logged";
    EXPECT_EQ(set.left, Texts{});
    EXPECT_EQ(Bound(), "+-");
}

TEST_F(FilterBindings, ChangedBeforeAFailureStayChanged) {
    Fail("INetCfg::Apply", 2);
    const InTest set = SetBindings(false, nullptr, false);
    EXPECT_TRUE(set.result);
    EXPECT_EQ(set.events, Texts{"3005 INetCfg::Apply() (0x80004005)"});
    EXPECT_EQ(Bound(), "-+");
}

TEST_F(FilterBindings, AreReportedForEachAdapterThatFails) {
    (void)simulation().GetFaults().FailEvery("INetCfgBindingPath::Enable", static_cast<DWORD>(E_ACCESSDENIED));
    const InTest set = SetBindings(false, nullptr, false);
    EXPECT_TRUE(set.result);
    EXPECT_EQ(set.events, (Texts{"3005 INetCfgBindingInterface::Enable() (0x80070005)",
                                 "3005 INetCfgBindingInterface::Enable() (0x80070005)"}));
}

// ---- In an installation

class RestoredBindings : public BindingsFixture {
protected:
    /// What happens to the network when the old filter is removed.
    void WhenRemoved(const std::function<void()> &event) {
        onMoment = [event](const Simulator::NetworkMoment &moment) {
            if (moment.what == What::Removed)
                event();
        };
    }
    /// From the line about the restoration on.
    static Texts Restoring(const InstallOutcome &installation) {
        return FromFirst(WithoutSteps(installation.ThreadLog()), "Restoring network bindings.");
    }
};

TEST_F(RestoredBindings, AreThoseFromBeforeTheUpgrade) {
    InstallOldDriver({1, 0, 0, 0});
    network().Bind(kSecond, L"qbimvta", false);
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(Restoring(installation),
              (Texts{"Restoring network bindings.", "Adapter 'First adapter' is bound to qbimvta",
                     "Original bindings of adapter 'First adapter' are ms_tcpip=1 qbimvta=1", kNoNeedForFirst,
                     "Adapter 'Second adapter' is bound to qbimvta",
                     "Original bindings of adapter 'Second adapter' are ms_tcpip=1 qbimvta=0",
                     "Disabling binding from 'Second adapter' -> qbimvta"}));
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_FALSE(IsBound(kSecond));
}

TEST_F(RestoredBindings, ExcludeAnAdapterThatAppearedMeanwhile) {
    InstallOldDriver({1, 0, 0, 0});
    std::wstring third;
    WhenRemoved([&] { third = PutNamed(L"THIRD", {2, 0, 0, 0, 0, 3}); });
    const InstallOutcome installation = InstallInBalance();
    EXPECT_TRUE(IsBound(third)) << "as the installation left it";
    EXPECT_EQ(With(Restoring(installation), "'THIRD'"),
              (Texts{"Adapter 'THIRD' is bound to qbimvta", "No need to change the bindings of adapter 'THIRD'"}));
}

TEST_F(RestoredBindings, IgnoreAnAdapterThatVanishedMeanwhile) {
    InstallOldDriver({1, 0, 0, 0});
    WhenRemoved([&] { network().RemoveAdapter(kSecond); });
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(installation.EventTexts(3005), Texts{});
    EXPECT_EQ(With(Restoring(installation), "Second"), Texts{});
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_FALSE(installation.AskedForReboot());
}

TEST_F(RestoredBindings, SurviveAnUpgradeForAnAdapterWithoutIp) {
    InstallOldDriver({1, 0, 0, 0});
    network().Bind(kSecond, L"ms_tcpip", false);
    (void)InstallInBalance();
    EXPECT_TRUE(IsBound(kSecond)) << "only fresh installations search for unsuitable adapters";
}

TEST_F(RestoredBindings, ComeBackAfterAllWereUnboundToUnloadAStaleDriver) {
    SetVersionAfterInstall(Version{1, 9, 9, 9});
    network().Bind(kSecond, L"ms_tcpip", false);  // so the filter is not bound to it when the stale driver is found
    Texts moments;
    onMoment = [&](const Simulator::NetworkMoment &moment) {
        if (moment.what == What::BindingDisabled || moment.what == What::BindingEnabled)
            moments.push_back(std::string(moment.what == What::BindingEnabled ? "+" : "-") +
                              (moment.adapter == kFirst ? "first" : "second"));
    };
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(moments, (Texts{"-second", "-first", "+first"}));
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_FALSE(IsBound(kSecond));
    EXPECT_TRUE(installation.AskedForReboot()) << "the driver is still the stale one";
}

}  // namespace
