// What happens to a network that the installation broke: how it is checked, for how long, and which recoveries are
// tried.
#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "BindingsFixture.h"
#include "BrokenNetwork.h"

namespace {

using Recovery = BrokenNetwork::Recovery;
using Checks = std::vector<std::uint64_t>;

const std::string kAllHealthy = "Adapters all seem to be healthy and have IP info - presumably IP is working.";
const std::string kFirstHealthy = "Adapter 'First adapter' is healthy.";
const std::string kSecondHealthy = "Adapter 'Second adapter' is healthy.";
const std::string kFirstDown =
    "Adapter 'First adapter' reported that it was connected and now it isn't; assuming it's not healthy.";
const std::string kSecondDown =
    "Adapter 'Second adapter' reported that it was connected and now it isn't; assuming it's not healthy.";
const std::string kRebinding = "Network doesn't appear healthy - unbinding & rebinding qbimvta";
const std::string kRestarting = "Network still doesn't appear healthy - enabling & disabling adapters bound to qbimvta";
/// When the network is checked if nothing helps: three times, and three times after the second that the rebinding
/// takes.
const Checks kAllChecks{2'000, 4'000, 6'000, 9'000, 11'000, 13'000};

class NetworkRecovery : public BindingsFixture {
protected:
    NetworkRecovery() {
        onMoment = [this](const Simulator::NetworkMoment &moment) { broken.OnMoment(moment); };
    }
    ~NetworkRecovery() override { onMoment = nullptr; }

    /// The calls of these functions from the beginning of the check on; the sleeps are those of the watchdog.
    Texts Check(std::set<std::string> functions) {
        functions.insert("GetIpNetTable");
        Texts calls = FromFirst(CallsOfWork(functions), "GetIpNetTable(");
        std::erase_if(calls, [](const std::string &call) { return call.starts_with("GetIpNetTable("); });
        return calls;
    }
    /// What was logged from the first recovery on.
    static Texts Recoveries(const InstallOutcome &installation) {
        return FromFirst(WithoutSteps(installation.ThreadLog()), kRebinding);
    }
    /// The verdicts on the adapters.
    static Texts Verdicts(const InstallOutcome &installation) {
        Texts verdicts;
        for (const std::string &trace : installation.traces) {
            if (trace.starts_with("Adapter"))
                verdicts.push_back(trace);
        }
        return verdicts;
    }
    void InstallOld() { InstallOldDriver({1, 0, 0, 0}); }

    BrokenNetwork broken{simulation()};
};

// ---- A network that is healthy, or recovers by itself

TEST_F(NetworkRecovery, IsNotTriedOnAHealthyNetwork) {
    const InstallOutcome installation = InstallInBalance();
    EXPECT_TRUE(installation.result);
    EXPECT_EQ(broken.Checks(), Checks{2'000});
    EXPECT_EQ(Check({"Sleep"}), Texts{"Sleep(2000)"});
    EXPECT_EQ(FromFirst(installation.traces, "Sending ARP"),
              (Texts{"Sending ARP request for MAC of 10.0.0.1 - the default gateway of adapter First adapter",
                     "Sending ARP request for MAC of 10.0.1.1 - the default gateway of adapter Second adapter",
                     kFirstHealthy, kSecondHealthy, kAllHealthy}));
    EXPECT_EQ(Recoveries(installation), Texts{});
    EXPECT_FALSE(installation.AskedForReboot());
}

TEST_F(NetworkRecovery, BeginsTwoSecondsAfterTheInstallation) {
    (void)InstallInBalance();
    const Texts calls = Calls({"Sleep", "GetIpNetTable", "INetCfgClassSetup::Install"});
    const Texts since = FromFirst(calls, "INetCfgClassSetup::Install(");
    const auto check = std::find_if(since.begin(), since.end(),
                                    [](const std::string &call) { return call.starts_with("GetIpNetTable("); });
    Texts sleeps(since.begin(), check);
    std::erase_if(sleeps, [](const std::string &call) { return call != "Sleep(2000)"; });
    EXPECT_EQ(sleeps, Texts{"Sleep(2000)"});
}

TEST_F(NetworkRecovery, IsNotTriedOnAnOutageThatIsOverAtTheSecondCheck) {
    broken.Break(kFirst, Recovery::None);
    broken.AtCheck(2, [this] { broken.Repair(kFirst); });
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(broken.Checks(), (Checks{2'000, 4'000}));
    EXPECT_EQ(Verdicts(installation), (Texts{kFirstDown, kSecondHealthy, kFirstHealthy, kSecondHealthy, kAllHealthy}));
    EXPECT_EQ(Recoveries(installation), Texts{});
    EXPECT_FALSE(installation.AskedForReboot());
}

TEST_F(NetworkRecovery, IsNotTriedOnAnOutageThatIsOverAtTheThirdCheck) {
    broken.Break(kFirst, Recovery::None);
    broken.AtCheck(3, [this] { broken.Repair(kFirst); });
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(broken.Checks(), (Checks{2'000, 4'000, 6'000}));
    EXPECT_EQ(Recoveries(installation), Texts{});
    EXPECT_FALSE(installation.AskedForReboot());
}

TEST_F(NetworkRecovery, DoesNotCheckAHealthyAdapterAgain) {
    broken.Break(kFirst, Recovery::None);
    broken.Break(kSecond, Recovery::None);
    broken.AtCheck(2, [this] { broken.Repair(kFirst); });
    broken.AtCheck(3, [this] {
        broken.BreakNow(kFirst);
        broken.Repair(kSecond);
    });
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(Verdicts(installation),
              (Texts{kFirstDown, kSecondDown, kFirstHealthy, kSecondDown, kFirstHealthy, kSecondHealthy, kAllHealthy}));
    EXPECT_EQ(network().Read().components.size(), 5U);
    EXPECT_FALSE(installation.AskedForReboot());
}

TEST_F(NetworkRecovery, IgnoresAnAdapterThatGetsWorseAfterAHealthyFirstCheck) {
    broken.Break(kSecond, Recovery::None);
    broken.AtCheck(2, [this] { network().ChangeAdapter(kFirst, &BrokenNetwork::Disconnect); });
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(With(installation.traces, kFirstDown), Texts{});
    EXPECT_EQ(With(installation.traces, kFirstHealthy).size(), 6U);
    EXPECT_EQ(With(Recoveries(installation), "'First adapter'"),
              (Texts{"Adapter 'First adapter' is bound to qbimvta",
                     "No need to change the bindings of adapter 'First adapter'",
                     "Adapter 'First adapter' is bound to qbimvta",
                     "No need to change the bindings of adapter 'First adapter'"}));
}

// ---- The recoveries

TEST_F(NetworkRecovery, RebindsTheFilterAfterThreeChecks) {
    broken.Break(kFirst, Recovery::Rebinding);
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(broken.Checks(), (Checks{2'000, 4'000, 6'000, 9'000}));
    EXPECT_EQ(Check({"Sleep"}), (Texts{"Sleep(2000)", "Sleep(2000)", "Sleep(2000)", "Sleep(1000)", "Sleep(2000)"}));
    EXPECT_EQ(
        Recoveries(installation),
        (Texts{kRebinding, "Adapter 'First adapter' is bound to qbimvta",
               "Original bindings of adapter 'First adapter' are ms_tcpip=1 qbimvta=0",
               "Disabling binding from 'First adapter' -> qbimvta", "Adapter 'Second adapter' is bound to qbimvta",
               "No need to change the bindings of adapter 'Second adapter'",
               "Adapter 'First adapter' is not bound to qbimvta",
               "Original bindings of adapter 'First adapter' are ms_tcpip=1 qbimvta=0",
               "Enabling binding from 'First adapter' -> qbimvta", "Adapter 'Second adapter' is bound to qbimvta",
               "No need to change the bindings of adapter 'Second adapter'"}));
    EXPECT_EQ(Verdicts(installation).back(), kAllHealthy);
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_EQ(simulation().GetDevices().Changes().size(), 0U);
    EXPECT_FALSE(installation.AskedForReboot());
    EXPECT_TRUE(installation.result);
}

TEST_F(NetworkRecovery, RestartsTheAdapterAfterThreeMoreChecksAndDoesNotCheckAgain) {
    broken.Break(kFirst, Recovery::Restart);
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(broken.Checks(), kAllChecks);
    EXPECT_EQ(Check({"Sleep"}), (Texts{"Sleep(2000)", "Sleep(2000)", "Sleep(2000)", "Sleep(1000)", "Sleep(2000)",
                                       "Sleep(2000)", "Sleep(2000)", "Sleep(2000)"}));
    EXPECT_EQ(FromFirst(Recoveries(installation), kRestarting),
              (Texts{kRestarting, "Disabling adapter 'First adapter'", "Enabling adapter 'First adapter'"}));
    const Simulator::NetworkState after = network().Read();
    EXPECT_EQ(after.components[2].adapter->mediaStatus, 0U) << "it has recovered";
    EXPECT_EQ(With(installation.traces, kAllHealthy), Texts{}) << "but it is not checked";
    EXPECT_TRUE(installation.AskedForReboot());
    EXPECT_TRUE(installation.result);
    EXPECT_EQ(installation.EventTexts(1007).size(), 1U) << "the installation succeeded anyway";
}

TEST_F(NetworkRecovery, AsksForARebootWhenNothingHelps) {
    broken.Break(kFirst, Recovery::None);
    broken.Break(kSecond, Recovery::None);
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(broken.Checks(), kAllChecks);
    EXPECT_EQ(With(installation.traces, kFirstDown).size(), 6U);
    EXPECT_EQ(With(installation.traces, kSecondDown).size(), 6U);
    EXPECT_EQ(FromFirst(Recoveries(installation), kRestarting),
              (Texts{kRestarting, "Disabling adapter 'First adapter'", "Disabling adapter 'Second adapter'",
                     "Enabling adapter 'First adapter'", "Enabling adapter 'Second adapter'"}));
    EXPECT_TRUE(installation.AskedForReboot());
    EXPECT_TRUE(installation.result);
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_TRUE(IsBound(kSecond));
}

TEST_F(NetworkRecovery, RebindsAdaptersBoundToIpAfterAFreshInstallation) {
    network().Bind(kFirst, L"ms_tcpip", false);
    network().Bind(kFirst, L"ms_tcpip6");
    broken.Break(kFirst, Recovery::Rebinding);
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(With(Recoveries(installation), "binding from"),
              (Texts{"Disabling binding from 'First adapter' -> qbimvta",
                     "Enabling binding from 'First adapter' -> qbimvta"}));
    EXPECT_FALSE(installation.AskedForReboot());
}

TEST_F(NetworkRecovery, RestoresTheRecordedBindingAfterAnUpgrade) {
    InstallOld();
    network().Bind(kFirst, L"ms_tcpip", false);
    broken.Break(kFirst, Recovery::None);
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(With(Recoveries(installation), "'First adapter'"),
              (Texts{"Adapter 'First adapter' is bound to qbimvta",
                     "Original bindings of adapter 'First adapter' are ms_tcpip=0 qbimvta=1",
                     "No need to change the bindings of adapter 'First adapter'",
                     "Adapter 'First adapter' is bound to qbimvta",
                     "Original bindings of adapter 'First adapter' are ms_tcpip=0 qbimvta=1",
                     "No need to change the bindings of adapter 'First adapter'", "Disabling adapter 'First adapter'",
                     "Enabling adapter 'First adapter'"}));
    EXPECT_TRUE(IsBound(kFirst)) << "though IP is not bound to it";
    EXPECT_TRUE(installation.AskedForReboot());
}

TEST_F(NetworkRecovery, SkipsTheRestOfTheRebindingWhenTheConfigurationIsLocked) {
    broken.Break(kFirst, Recovery::Rebinding);
    broken.AtCheck(3, [this] { network().LockFromElsewhere(L"Somebody"); });
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(broken.Checks(), (Checks{2'000, 4'000, 6'000, 8'000, 10'000, 12'000}));
    EXPECT_EQ(Check({"Sleep"}), (Texts{"Sleep(2000)", "Sleep(2000)", "Sleep(2000)", "Sleep(2000)", "Sleep(2000)",
                                       "Sleep(2000)", "Sleep(2000)"}));
    EXPECT_EQ(Check({"INetCfgLock::AcquireWriteLock"}).size(), 1U);
    EXPECT_EQ(Failures(installation), Texts{"INetCfgLock::AcquireWriteLock (0x8004a024)"});
    EXPECT_EQ(Recoveries(installation), (Texts{kRebinding, kRestarting, "Disabling adapter 'First adapter'",
                                               "Enabling adapter 'First adapter'"}));
}

TEST_F(NetworkRecovery, WaitsFifteenSecondsForTheLockOnTheConfiguration) {
    broken.Break(kFirst, Recovery::Rebinding);
    broken.AtCheck(3, [this] {
        network().LockFromElsewhere(L"Somebody");
        network().Use([](Simulator::NetworkState &state) { state.lockWaitMs = 60'000; });
    });
    (void)InstallInBalance();
    EXPECT_EQ(broken.Checks(), (Checks{2'000, 4'000, 6'000, 23'000, 25'000, 27'000}));
}

TEST_F(NetworkRecovery, KeepsCheckingWhenTheBindingCannotBeRestored) {
    broken.Break(kFirst, Recovery::None);
    broken.AtCheck(3, [this] { Fail("INetCfgBindingPath::Enable", 2); });
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(Failures(installation), Texts{"INetCfgBindingInterface::Enable() (0x80004005)"});
    EXPECT_FALSE(IsBound(kFirst));
    EXPECT_EQ(broken.Checks(), (Checks{2'000, 4'000, 6'000, 9'000}));
    EXPECT_EQ(With(installation.traces, "Adapter 'First adapter' isn't bound to our driver; assuming it's healthy."),
              Texts{"Adapter 'First adapter' isn't bound to our driver; assuming it's healthy."});
    EXPECT_FALSE(installation.AskedForReboot());
}

TEST_F(NetworkRecovery, RecoversOnlyTheUnhealthyAdapters) {
    broken.Break(kSecond, Recovery::None);
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(With(Recoveries(installation), "binding from"),
              (Texts{"Disabling binding from 'Second adapter' -> qbimvta",
                     "Enabling binding from 'Second adapter' -> qbimvta"}));
    for (const Simulator::DeviceChange &change : simulation().GetDevices().Changes())
        EXPECT_EQ(change.instanceId, kSecond);
}

// ---- Adapters that come and go

TEST_F(NetworkRecovery, IgnoresAnAdapterThatVanished) {
    onMoment = [this](const Simulator::NetworkMoment &moment) {
        if (moment.what == Simulator::NetworkMoment::What::Installed)
            network().RemoveAdapter(kSecond);
        broken.OnMoment(moment);
    };
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(Verdicts(installation), (Texts{kFirstHealthy, kAllHealthy}));
    EXPECT_EQ(With(installation.traces, "Sending ARP").size(), 2U) << "its gateway is resolved anyway";
    EXPECT_FALSE(installation.AskedForReboot());
}

TEST_F(NetworkRecovery, IgnoresTheStateOfAnAdapterThatAppeared) {
    onMoment = [this](const Simulator::NetworkMoment &moment) {
        if (moment.what == Simulator::NetworkMoment::What::Installed) {
            const std::wstring node = PutNamed(L"NEW", {2, 0, 0, 0, 0, 9});
            network().ChangeAdapter(node, &BrokenNetwork::Disconnect);
        }
        broken.OnMoment(moment);
    };
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(Verdicts(installation), (Texts{kFirstHealthy, kSecondHealthy, "Adapter 'NEW' is healthy.", kAllHealthy}));
}

TEST_F(NetworkRecovery, AssumesAHealthyNetworkWhenAdaptersCannotBeRead) {
    broken.Break(kFirst, Recovery::None);
    broken.AtCheck(1, [this] { Fail("INetCfg::EnumComponents"); });
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(Verdicts(installation), Texts{kAllHealthy});
    EXPECT_FALSE(installation.AskedForReboot());
}

TEST_F(NetworkRecovery, ChecksTwoHundredAdapters) {
    for (int i = 2; i < 200; ++i) {
        const std::wstring node = PutNamed(L"NIC" + std::to_wstring(i), {2, 0, 0, 0, 1, static_cast<BYTE>(i)});
        if (i % 2 == 0)
            broken.Break(node, Recovery::Rebinding);
    }
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(broken.Checks(), (Checks{2'000, 4'000, 6'000, 9'000}));
    EXPECT_EQ(With(Recoveries(installation), "Disabling binding").size(), 99U);
    EXPECT_EQ(With(Recoveries(installation), "Enabling binding").size(), 99U);
    EXPECT_FALSE(installation.AskedForReboot());
}

// ---- The checks themselves

TEST_F(NetworkRecovery, DoesNotLogItsChecks) {
    broken.Break(kFirst, Recovery::None);
    broken.AtCheck(1, [this] { (void)simulation().GetFaults().FailEvery("GetAdaptersInfo", ERROR_NOT_SUPPORTED); });
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(CountCalls("GetAdaptersInfo"), 8U) << "six checks, two before";
    EXPECT_EQ(With(installation.Lines(wxLOG_Error), "GetAdaptersInfo"), Texts{});
    EXPECT_EQ(Failures(installation), Texts(5, "GetAdaptersInfo() (0x32)")) << "but it is reported to the agent";
    EXPECT_EQ(With(installation.ThreadLog(), ">GettingAdapterInfo").size(), 2U) << "those before the checks";
}

TEST_F(NetworkRecovery, LogsAgainAfterACheck) {
    broken.Break(kFirst, Recovery::None, [](auto &adapter) { adapter.deviceStatus = 31; });
    broken.AtCheck(1, [this] { (void)simulation().GetFaults().FailEvery("SendARP", ERROR_BAD_NET_NAME); });
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(installation.Lines(wxLOG_Error).size(), 10U) << "two adapters, at five checks";
}

// ---- Outgoing traffic

using SendArp =
    Simulator::Function<"SendARP", "IPHLPAPI.DLL", ULONG(IPAddr, IPAddr, void *, ULONG *), Simulator::ReturnsStatus>;

class OutgoingTraffic : public NetworkRecovery {
protected:
    OutgoingTraffic() {
        simulation().Functions().Put<SendArp>([this](const auto &next, IPAddr to, IPAddr from, void *mac, ULONG *size) {
            m_rooms.push_back(*size);
            return next(to, from, mac, size);
        });
    }

    std::vector<ULONG> m_rooms;
};

TEST_F(OutgoingTraffic, IsSentToTheGatewaysAtEachCheck) {
    broken.Break(kFirst, Recovery::None);
    broken.AtCheck(2, [this] { broken.Repair(kFirst); });
    (void)InstallInBalance();
    EXPECT_EQ(
        Check({"Sleep", "SendARP", "GetAdaptersInfo"}),
        (Texts{"Sleep(2000)", "SendARP(16777226, 0, *, *)", "SendARP(16842762, 0, *, *)", "GetAdaptersInfo(*, *)",
               "Sleep(2000)", "SendARP(16777226, 0, *, *)", "SendARP(16842762, 0, *, *)", "GetAdaptersInfo(*, *)"}));
    EXPECT_EQ(m_rooms, std::vector<ULONG>(4, 8));
}

TEST_F(OutgoingTraffic, IsSentOnlyOnAdaptersWithAGatewayAndIp) {
    network().ChangeAdapter(kFirst, [](auto &adapter) { adapter.gateway = "0.0.0.0"; });
    (void)PutNamed(L"NOIP", {2, 0, 0, 0, 0, 7}, NCF_PHYSICAL, false);
    network().ChangeAdapter(L"PCI\\NOIP\\1", [](auto &adapter) { adapter.gateway = "10.0.7.1"; });
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(With(installation.traces, "Sending ARP"),
              Texts{"Sending ARP request for MAC of 10.0.1.1 - the default gateway of adapter Second adapter"});
    EXPECT_EQ(Check({"SendARP"}), Texts{"SendARP(16842762, 0, *, *)"});
}

TEST_F(OutgoingTraffic, IsSentToTheGatewaysFromBeforeTheInstallation) {
    broken.Break(kFirst, Recovery::None, [](auto &adapter) { adapter.gateway = "10.0.0.2"; });
    (void)InstallInBalance();
    EXPECT_EQ(Check({"SendARP"}), (Texts{"SendARP(16777226, 0, *, *)", "SendARP(16842762, 0, *, *)"}));
}

TEST_F(OutgoingTraffic, NeedsNoAnswer) {
    network().ChangeAdapter(kFirst, [](auto &adapter) { adapter.gatewayMac.clear(); });
    const InstallOutcome installation = InstallInBalance();
    const Texts errors = installation.Lines(wxLOG_Error);
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_TRUE(errors[0].starts_with("SendARP (error 67: ")) << errors[0];
    EXPECT_EQ(Failures(installation), Texts{}) << "it is not reported to the agent";
    EXPECT_EQ(broken.Checks(), Checks{2'000});
    EXPECT_FALSE(installation.AskedForReboot());
}

TEST_F(OutgoingTraffic, IsNotTracedWhileItsChannelIsOff) {
    VtaCore::Control::EnableTrace("NDIS", false);
    EXPECT_EQ(InstallInBalance().traces, Texts{});
    EXPECT_EQ(Check({"SendARP"}).size(), 2U);
}

}  // namespace
