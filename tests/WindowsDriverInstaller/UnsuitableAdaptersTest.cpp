// Adapters that lose the filter right after a fresh installation: those without TCP/IP, and, on older servers, physical
// ones that share their MAC.
#include <string>
#include <tuple>
#include <vector>

#include "BindingsFixture.h"

namespace {

using Mac = std::vector<BYTE>;
const Mac kShared{2, 0x1A, 0, 0, 0, 0xF7};
const Mac kRemoteAccess{0, 1, ' ', 'R', 'A', 'S'};

class UnsuitableAdapters : public BindingsFixture {
protected:
    void RunOn(BYTE productType, DWORD major, DWORD minor, WORD servicePack = 0) {
        Simulator::Machine &machine = simulation().GetMachine();
        machine.productType = productType;
        machine.osMajor = major;
        machine.osMinor = minor;
        machine.servicePack = servicePack;
    }
    void RunOnOldServer() { RunOn(VER_NT_SERVER, 6, 1); }

    /// What an installation, fresh unless there was a driver, logs about the adapters' suitability.
    Texts Judgements() { return JudgementsAmong(WithoutSteps(InstallInBalance().ThreadLog())); }
    static Texts JudgementsAmong(const Texts &lines) {
        Texts judgements;
        for (const std::string &line : lines) {
            if (line.find("MAC") != line.npos || line.find("TCPIP") != line.npos)
                judgements.push_back(line);
        }
        return judgements;
    }
};

// ---- Adapters without TCP/IP

TEST_F(UnsuitableAdapters, LoseTheFilterWithoutIpOnAllSystems) {
    const std::vector<std::tuple<BYTE, DWORD, DWORD>> systems{
        {VER_NT_WORKSTATION, 6, 1}, {VER_NT_WORKSTATION, 10, 0}, {VER_NT_SERVER, 6, 1}, {VER_NT_SERVER, 10, 0}};
    PutFilter();
    network().Bind(kFirst, L"ms_tcpip", false);
    for (const auto &[productType, major, minor] : systems) {
        RunOn(productType, major, minor);
        network().Bind(kFirst, L"qbimvta");
        const InTest unbound = UnbindUnsuitable();
        EXPECT_EQ(JudgementsAmong(unbound.lines),
                  Texts{"Adapter 'First adapter' is not bound to TCPIP - marking it to be unbound from QBIMVTA"});
        EXPECT_EQ(unbound.left, Texts{});
        EXPECT_FALSE(IsBound(kFirst));
        EXPECT_TRUE(IsBound(kSecond));
    }
}

TEST_F(UnsuitableAdapters, LoseTheFilterInAFreshInstallation) {
    network().Bind(kSecond, L"ms_tcpip", false);
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(WithoutSteps(installation.ThreadLog()),
              (Texts{"Adapter 'Second adapter' is not bound to TCPIP - marking it to be unbound from QBIMVTA",
                     "Adapter 'First adapter' is bound to qbimvta",
                     "No need to change the bindings of adapter 'First adapter'",
                     "Adapter 'Second adapter' is bound to qbimvta",
                     "Original bindings of adapter 'Second adapter' are ms_tcpip=0 qbimvta=0",
                     "Disabling binding from 'Second adapter' -> qbimvta"}));
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_FALSE(IsBound(kSecond));
}

TEST_F(UnsuitableAdapters, AreNotThoseWithOnlyIpVersion6) {
    network().Bind(kSecond, L"ms_tcpip", false);
    network().Bind(kSecond, L"ms_tcpip6");
    EXPECT_EQ(Judgements(), Texts{});
    EXPECT_TRUE(IsBound(kSecond));
}

TEST_F(UnsuitableAdapters, AreNotThoseThatTheFilterIsNotBoundTo) {
    PutFilter();
    network().Bind(kFirst, L"ms_tcpip", false);
    network().Bind(kFirst, L"qbimvta", false);
    const InTest unbound = UnbindUnsuitable();
    EXPECT_EQ(unbound.lines, Texts{});
    EXPECT_EQ(CountCalls("INetCfgLock::AcquireWriteLock"), 0U) << "there is nothing to change";
}

TEST_F(UnsuitableAdapters, AreNotSearchedForInAnUpgrade) {
    RunOnOldServer();
    InstallOldDriver({1, 0, 0, 0});
    network().Bind(kFirst, L"ms_tcpip", false);
    const std::wstring twin = PutNamed(L"TWIN", {0, 1, 2, 3, 4, 6}, NCF_VIRTUAL);
    EXPECT_EQ(Judgements(), Texts{});
    for (const std::wstring &node : {std::wstring(kFirst), std::wstring(kSecond), twin})
        EXPECT_TRUE(IsBound(node));
}

TEST_F(UnsuitableAdapters, AreAllUnboundOfTwoHundred) {
    PutFilter();
    for (int i = 2; i < 200; ++i)
        (void)PutNamed(L"NIC" + std::to_wstring(i), {2, 0, 0, 0, 1, static_cast<BYTE>(i)}, NCF_PHYSICAL, i % 2 == 0);
    const InTest unbound = UnbindUnsuitable();
    EXPECT_EQ(JudgementsAmong(unbound.lines).size(), 99U);
    for (int i = 2; i < 200; ++i)
        EXPECT_EQ(IsBound(L"PCI\\NIC" + std::to_wstring(i) + L"\\1"), i % 2 == 0) << i;
}

// ---- Adapters without a MAC

TEST_F(UnsuitableAdapters, AreNotComparedWithoutAValidMac) {
    RunOnOldServer();
    const Mac seven{0, 0, 0, 0, 0, 0, 1};
    const std::vector<Mac> invalid{{}, {1}, {1, 2, 3, 4, 5}, {0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0, 0, 0, 0}};
    for (std::size_t i = 0; i < invalid.size(); ++i)
        (void)PutNamed(L"BAD" + std::to_wstring(i), invalid[i], NCF_PHYSICAL, false);
    (void)PutNamed(L"GOOD", seven, NCF_PHYSICAL, false);
    EXPECT_EQ(
        Judgements(),
        (Texts{"Adapter 'BAD0' has an invalid MAC - ignoring it", "Adapter 'BAD1' has an invalid MAC - ignoring it",
               "Adapter 'BAD2' has an invalid MAC - ignoring it", "Adapter 'BAD3' has an invalid MAC - ignoring it",
               "Adapter 'BAD4' has an invalid MAC - ignoring it",
               "Adapter 'GOOD' is not bound to TCPIP - marking it to be unbound from QBIMVTA"}));
    for (std::size_t i = 0; i < invalid.size(); ++i)
        EXPECT_TRUE(IsBound(L"PCI\\BAD" + std::to_wstring(i) + L"\\1")) << i;
    EXPECT_FALSE(IsBound(L"PCI\\GOOD\\1"));
}

TEST_F(UnsuitableAdapters, AreNotTheTwinsOfAnAdapterWithoutAValidMac) {
    RunOnOldServer();
    for (const wchar_t *name : {L"ONE", L"TWO"})
        (void)PutNamed(name, {0, 0, 0, 0, 0, 0});
    EXPECT_EQ(Judgements(), (Texts{"Adapter 'ONE' has an invalid MAC - ignoring it",
                                   "Adapter 'TWO' has an invalid MAC - ignoring it"}));
}

// ---- Remote-access adapters

TEST_F(UnsuitableAdapters, AreNotVirtualRemoteAccessAdapters) {
    RunOnOldServer();
    const std::wstring ras = PutNamed(L"RAS", kRemoteAccess, NCF_VIRTUAL, false);
    const std::wstring ras2 = PutNamed(L"RAS2", {9, 9, ' ', 'R', 'A', 'S', 7}, NCF_VIRTUAL | NCF_HIDDEN, false);
    EXPECT_EQ(Judgements(), Texts{});
    EXPECT_TRUE(IsBound(ras));
    EXPECT_TRUE(IsBound(ras2));
}

TEST_F(UnsuitableAdapters, ArePhysicalAdaptersWithARemoteAccessMac) {
    const std::wstring ras = PutNamed(L"RAS", kRemoteAccess, NCF_PHYSICAL, false);
    EXPECT_EQ(Judgements(), Texts{"Adapter 'RAS' is not bound to TCPIP - marking it to be unbound from QBIMVTA"});
    EXPECT_FALSE(IsBound(ras));
}

TEST_F(UnsuitableAdapters, AreVirtualAdaptersThatOnlyResembleRemoteAccess) {
    for (const Mac &mac : {Mac{' ', 'R', 'A', 'S', 0, 1}, Mac{0, ' ', 'R', 'A', 'S', 0}, Mac{0, 0, ' ', 'r', 'a', 's'}})
        (void)PutNamed(L"NEARLY" + std::to_wstring(mac[1]), mac, NCF_VIRTUAL, false);
    EXPECT_EQ(Judgements().size(), 3U);
}

TEST_F(UnsuitableAdapters, MayBeTheTwinsOfRemoteAccessAdapters) {
    RunOnOldServer();
    const std::wstring ras = PutNamed(L"RAS", kRemoteAccess, NCF_VIRTUAL);
    const std::wstring nic = PutNamed(L"NIC", kRemoteAccess);
    EXPECT_EQ(Judgements(),
              (Texts{"Adapter 'NIC' has the same MAC (000120524153) as adapter 'RAS'",
                     "Marking physical adapter 'NIC' with duplicate MAC 000120524153 to be unbound from QBIMVTA"}));
    EXPECT_TRUE(IsBound(ras));
    EXPECT_FALSE(IsBound(nic));
}

// ---- Adapters that share a MAC

TEST_F(UnsuitableAdapters, ArePhysicalAdaptersThatShareAVirtualAdaptersMacOnAnOldServer) {
    RunOnOldServer();
    const std::wstring team = PutNamed(L"TEAM", kShared, NCF_VIRTUAL);
    const std::wstring nic = PutNamed(L"NIC", kShared);
    EXPECT_EQ(Judgements(),
              (Texts{"Adapter 'TEAM' has the same MAC (021a000000f7) as adapter 'NIC'",
                     "Adapter 'NIC' has the same MAC (021a000000f7) as adapter 'TEAM'",
                     "Marking physical adapter 'NIC' with duplicate MAC 021a000000f7 to be unbound from QBIMVTA"}));
    EXPECT_TRUE(IsBound(team));
    EXPECT_FALSE(IsBound(nic));
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_TRUE(IsBound(kSecond));
}

TEST_F(UnsuitableAdapters, AreNoTwinsOnANewServer) {
    RunOn(VER_NT_SERVER, 10, 0);
    (void)PutNamed(L"TEAM", kShared, NCF_VIRTUAL);
    const std::wstring nic = PutNamed(L"NIC", kShared);
    EXPECT_EQ(Judgements(), Texts{});
    EXPECT_TRUE(IsBound(nic));
}

TEST_F(UnsuitableAdapters, AreNoTwinsOnAWorkstation) {
    RunOn(VER_NT_WORKSTATION, 6, 1);
    (void)PutNamed(L"TEAM", kShared, NCF_VIRTUAL);
    const std::wstring nic = PutNamed(L"NIC", kShared);
    EXPECT_EQ(Judgements(), Texts{});
    EXPECT_TRUE(IsBound(nic));
}

TEST_F(UnsuitableAdapters, AreTwinsOnlyOnServersBeforeVersion62) {
    const std::vector<std::tuple<BYTE, DWORD, DWORD, WORD, bool>> systems{{VER_NT_SERVER, 5, 2, 2, true},
                                                                          {VER_NT_SERVER, 6, 0, 2, true},
                                                                          {VER_NT_SERVER, 6, 1, 0, true},
                                                                          {VER_NT_SERVER, 6, 1, 1, true},
                                                                          {VER_NT_SERVER, 6, 2, 0, false},
                                                                          {VER_NT_SERVER, 6, 2, 1, false},
                                                                          {VER_NT_SERVER, 6, 3, 0, false},
                                                                          {VER_NT_SERVER, 10, 0, 0, false},
                                                                          {VER_NT_DOMAIN_CONTROLLER, 6, 1, 0, true},
                                                                          {VER_NT_DOMAIN_CONTROLLER, 10, 0, 0, false},
                                                                          {VER_NT_WORKSTATION, 5, 1, 3, false},
                                                                          {VER_NT_WORKSTATION, 6, 1, 0, false}};
    PutFilter();
    (void)PutNamed(L"TEAM", kShared, NCF_VIRTUAL);
    const std::wstring nic = PutNamed(L"NIC", kShared);
    for (const auto &[productType, major, minor, servicePack, searches] : systems) {
        SCOPED_TRACE(std::to_string(productType) + ": " + std::to_string(major) + "." + std::to_string(minor));
        RunOn(productType, major, minor, servicePack);
        network().Bind(nic, L"qbimvta");
        EXPECT_EQ(JudgementsAmong(UnbindUnsuitable().lines).size(), searches ? 3U : 0U);
        EXPECT_EQ(IsBound(nic), !searches);
        const Texts questions = Calls({"VerifyVersionInfoW"});
        ASSERT_EQ(questions.size(), productType == VER_NT_WORKSTATION ? 1U : 2U);
        EXPECT_TRUE(questions[0].starts_with("VerifyVersionInfoW(*, 128, ")) << questions[0];
        if (questions.size() == 2) {
            EXPECT_TRUE(questions[1].starts_with("VerifyVersionInfoW(*, 35, ")) << questions[1];
        }
    }
}

TEST_F(UnsuitableAdapters, AreAllPhysicalAdaptersThatShareAMac) {
    RunOnOldServer();
    const std::wstring one = PutNamed(L"ONE", kShared);
    const std::wstring two = PutNamed(L"TWO", kShared);
    EXPECT_EQ(Judgements().size(), 4U);
    EXPECT_FALSE(IsBound(one));
    EXPECT_FALSE(IsBound(two));
}

TEST_F(UnsuitableAdapters, AreNotVirtualAdaptersThatShareAMac) {
    RunOnOldServer();
    const std::wstring one = PutNamed(L"ONE", kShared, NCF_VIRTUAL);
    const std::wstring two = PutNamed(L"TWO", kShared, NCF_VIRTUAL);
    EXPECT_EQ(Judgements(), (Texts{"Adapter 'ONE' has the same MAC (021a000000f7) as adapter 'TWO'",
                                   "Adapter 'TWO' has the same MAC (021a000000f7) as adapter 'ONE'"}));
    EXPECT_TRUE(IsBound(one));
    EXPECT_TRUE(IsBound(two));
}

TEST_F(UnsuitableAdapters, AreTwinsByTheWholeMac) {
    RunOnOldServer();
    Mac longer = kShared;
    longer.insert(longer.end(), {0, 0});
    Mac other = kShared;
    other.back() ^= 1;
    (void)PutNamed(L"ONE", kShared);
    (void)PutNamed(L"LONGER", longer);
    (void)PutNamed(L"OTHER", other);
    EXPECT_EQ(Judgements(), Texts{});
}

TEST_F(UnsuitableAdapters, AreNoTwinsWithTheSameNode) {
    RunOnOldServer();
    PutFilter();
    (void)PutNamed(L"ONE", kShared);
    (void)PutNamed(L"ONE", kShared);
    const InTest unbound = UnbindUnsuitable();
    EXPECT_EQ(unbound.lines, Texts{});
    EXPECT_EQ(CountCalls("INetCfgLock::AcquireWriteLock"), 0U);
}

TEST_F(UnsuitableAdapters, AreComparedWithTheFirstTwin) {
    RunOnOldServer();
    for (const wchar_t *name : {L"ONE", L"TWO", L"THREE"})
        (void)PutNamed(name, kShared, NCF_VIRTUAL);
    EXPECT_EQ(Judgements(), (Texts{"Adapter 'ONE' has the same MAC (021a000000f7) as adapter 'TWO'",
                                   "Adapter 'TWO' has the same MAC (021a000000f7) as adapter 'ONE'",
                                   "Adapter 'THREE' has the same MAC (021a000000f7) as adapter 'ONE'"}));
}

TEST_F(UnsuitableAdapters, AreMarkedInTheOrderOfTheirMacs) {
    RunOnOldServer();
    const Mac higher{0x80, 0, 0, 0, 0, 1};
    const Mac lower{0x01, 0, 0, 0, 0, 1};
    (void)PutNamed(L"HIGH1", higher);
    (void)PutNamed(L"LOW1", lower);
    (void)PutNamed(L"HIGH2", higher);
    (void)PutNamed(L"LOW2", lower);
    EXPECT_EQ(With(Judgements(), "Marking"),
              (Texts{"Marking physical adapter 'LOW1' with duplicate MAC 010000000001 to be unbound from QBIMVTA",
                     "Marking physical adapter 'LOW2' with duplicate MAC 010000000001 to be unbound from QBIMVTA",
                     "Marking physical adapter 'HIGH1' with duplicate MAC 800000000001 to be unbound from QBIMVTA",
                     "Marking physical adapter 'HIGH2' with duplicate MAC 800000000001 to be unbound from QBIMVTA"}));
}

TEST_F(UnsuitableAdapters, AreMarkedOnce) {
    RunOnOldServer();
    const std::wstring withoutIp = PutNamed(L"NOIP", kShared, NCF_PHYSICAL, false);
    const std::wstring team = PutNamed(L"TEAM", kShared, NCF_VIRTUAL);
    const std::wstring nic = PutNamed(L"NIC", kShared);
    EXPECT_EQ(Judgements(),
              (Texts{"Adapter 'NOIP' is not bound to TCPIP - marking it to be unbound from QBIMVTA",
                     "Adapter 'TEAM' has the same MAC (021a000000f7) as adapter 'NOIP'",
                     "Adapter 'NIC' has the same MAC (021a000000f7) as adapter 'NOIP'",
                     "Marking physical adapter 'NIC' with duplicate MAC 021a000000f7 to be unbound from QBIMVTA"}));
    EXPECT_FALSE(IsBound(withoutIp));
    EXPECT_TRUE(IsBound(team));
    EXPECT_FALSE(IsBound(nic));
}

TEST_F(UnsuitableAdapters, KeepTheFilterWhenTheConfigurationIsLocked) {
    PutFilter();
    network().Bind(kFirst, L"ms_tcpip", false);
    network().LockFromElsewhere(L"Somebody");
    const InTest unbound = UnbindUnsuitable();
    EXPECT_EQ(unbound.events, Texts{"3005 INetCfgLock::AcquireWriteLock (0x8004a024)"});
    EXPECT_TRUE(IsBound(kFirst));
}

}  // namespace
