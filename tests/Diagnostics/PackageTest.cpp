// The files of a diagnostic package, and the driver queries that they need.
#include <memory>

#include "DiagnosticsFixture.h"
#include "PrintedTexts.h"

namespace {

using Texts = std::vector<std::string>;
using Connections = std::vector<Vti::Connection>;
const Texts kAllFiles{kStats, kVariables, kConnTrack, kBlacklist, kProfile};

class DiagnosticPackage : public DiagnosticsFixture {
protected:
    /// Runs `change` after that call of the driver.
    static void At(const std::string &call, const std::function<void(Vti::Driver &)> &change) {
        driver().onCall = [=](Vti::Driver &driver, const std::string &made) {
            if (made == call)
                change(driver);
        };
    }
    static std::string Profile() { return {driver().profile.begin(), driver().profile.end()}; }
};

Texts ExpectedCalls() {
    Texts calls{"vti_driver_available()", "vti_get_stats(6192)", "qb_dump_stats()", "vti_driver_available()"};
    for (int i = 0; i < 174; ++i)
        calls.push_back("vti_get_varv(" + std::to_string(i) + ")");
    calls.insert(calls.end(), 174, "qb_dump_filter_variable()");
    const Texts rest{"vti_driver_available()",    "vti_get_conntrack(0, 16)",    "vti_get_conntrack(17, 336)",
                     "vti_get_conntrack(6, 208)", "qb_dump_all_conn_track()",    "vti_driver_available()",
                     "vti_get_blacklist(0)",      "vti_get_blacklist(300)",      "qb_dump_blacklist()",
                     "vti_get_profile_stats(0)",  "vti_get_profile_stats(5000)", "vti_get_var(62)"};
    calls.insert(calls.end(), rest.begin(), rest.end());
    return calls;
}

Connections ManyConnections(unsigned from, unsigned to) {
    Connections connections;
    for (unsigned i = from; i < to; ++i)
        connections.push_back(ConnectionOf(i));
    return connections;
}

TEST_F(DiagnosticPackage, ContainsTheDriversDumpsAndItsProfileInThisOrder) {
    const Package package = Run();
    EXPECT_EQ(package.Names(), kAllFiles);
    EXPECT_EQ(package.Content(kStats), PrintedStats(handle));
    EXPECT_EQ(package.Content(kVariables), PrintedVariables(driver()));
    EXPECT_EQ(package.Content(kConnTrack), PrintedConnections(driver().udp, driver().tcp));
    EXPECT_EQ(package.Content(kBlacklist), PrintedBlacklist(driver().blacklist));
    EXPECT_EQ(package.Content(kProfile), Profile());
    EXPECT_EQ(TakeEvents(), Texts());
}

TEST_F(DiagnosticPackage, HasTextFilesExceptTheProfileAndNoComments) {
    const Package package = Run();
    for (const PackedFile &file : package.Files()) {
        EXPECT_EQ(file.isText, file.name != kProfile) << file.name;
        EXPECT_EQ(file.comment, "") << file.name;
    }
}

TEST_F(DiagnosticPackage, QueriesTheDriverInThisOrder) {
    (void)Run();
    EXPECT_EQ(calls, ExpectedCalls());
}

TEST_F(DiagnosticPackage, IsTheSameInEachRun) {
    (void)Run();
    driver().udp.clear();
    driver().profile.clear();
    const Package package = Run();
    EXPECT_EQ(package.Names(), kAllFiles);
    EXPECT_EQ(package.Content(kConnTrack), PrintedConnections({}, driver().tcp));
    EXPECT_EQ(package.Content(kProfile), "");
}

TEST_F(DiagnosticPackage, ContainsOnlyTheProfileIfTheDriverIsNotOpen) {
    driver().available = false;
    for (const int32_t answer : {0, -1, -10001}) {
        driver().faults["vti_driver_available"].status = answer;
        const Package package = Run();
        EXPECT_EQ(package.Names(), Texts{kProfile});
        EXPECT_EQ(package.Content(kProfile), Profile());
        EXPECT_EQ(TakeEvents(), Texts());
        EXPECT_EQ(calls, (Texts{"vti_driver_available()", "vti_driver_available()", "vti_driver_available()",
                                "vti_driver_available()", "vti_get_profile_stats(0)", "vti_get_profile_stats(5000)",
                                "vti_get_var(62)"}));
    }
}

TEST_F(DiagnosticPackage, ContainsOnlyAnEmptyProfileIfTheLibraryHasClosedTheHandle) {
    vti_close(handle);
    const Package package = Run();
    EXPECT_EQ(package.Names(), Texts{kProfile});
    EXPECT_EQ(package.Content(kProfile), "");
    EXPECT_EQ(TakeEvents(), Texts());
}

// ---- Statistics

TEST_F(DiagnosticPackage, TheStatisticsRequestIsZeroExceptForItsWordsAndTheAddressesOfItsRegions) {
    (void)Run();
    std::vector<uint8_t> expected(6192);
    constexpr uint32_t words[] = {12, 6, 0, 7325, 1, 64, 21U << 16 | 293, 32U << 16 | 1, 0, 0};
    std::memcpy(expected.data(), words, sizeof(words));
    const std::uint64_t addresses[] = {driver().statsAddress + 64, driver().statsAddress + 1728,
                                       driver().statsAddress + 1896};
    std::memcpy(expected.data() + 40, addresses, sizeof(addresses));
    EXPECT_EQ(driver().statsRequest, expected);
}

TEST_F(DiagnosticPackage, StatisticsOfAnotherLayoutAreReportedAndLeftOut) {
    using Layout = std::array<uint16_t, 3>;
    for (const Layout &layout : {Layout{294, 21, 1}, Layout{293, 22, 1}, Layout{293, 21, 0}, Layout{0, 0, 0}}) {
        driver().statsLayout = layout;
        EXPECT_EQ(Run().Names(), (Texts{kVariables, kConnTrack, kBlacklist, kProfile}));
        EXPECT_EQ(TakeEvents(), Texts{"1001 GET_STATS|ffffffff ()"});
        EXPECT_EQ(CallsOf(calls, "qb_dump_stats"), Texts());
    }
}

// ---- Connections

TEST_F(DiagnosticPackage, WithoutConnectionsTheirFileIsLeftOutAndTheCallSucceeds) {
    VtaCore::Control::EnableTrace("diagnostics", true);
    driver().udp.clear();
    driver().tcp.clear();
    EXPECT_EQ(Run().Names(), (Texts{kStats, kVariables, kBlacklist, kProfile}));
    EXPECT_EQ(CallsOf(calls, "vti_get_conntrack"), Texts{"vti_get_conntrack(0, 16)"});
    EXPECT_EQ(CallsOf(TakeTracedMessages(), "AddDriverConnTrack"), Texts{"AddDriverConnTrack()"});
    EXPECT_EQ(TakeEvents(), Texts());
}

TEST_F(DiagnosticPackage, AFailedUdpTableLeavesTheRoomOfAllEntriesToTcp) {
    driver().faults["vti_get_conntrack"] = {-7, "no UDP", 1, 1};
    const Package package = Run();
    EXPECT_EQ(package.Content(kConnTrack), PrintedConnections({}, driver().tcp));
    EXPECT_EQ(CallsOf(calls, "vti_get_conntrack"),
              (Texts{"vti_get_conntrack(0, 16)", "vti_get_conntrack(17, 336)", "vti_get_conntrack(6, 336)"}));
    EXPECT_EQ(TakeEvents(), Texts{"1001 GET_CONN_TRACK|fffffff9 (no UDP)"});
}

TEST_F(DiagnosticPackage, AFailedTcpTableStaysEmptyBesideTheUdpTable) {
    driver().faults["vti_get_conntrack"] = {5, "no TCP", 1, 2};
    EXPECT_EQ(Run().Content(kConnTrack), PrintedConnections(driver().udp, {}));
    EXPECT_EQ(TakeEvents(), Texts{"1001 GET_CONN_TRACK|00000005 (no TCP)"});
}

TEST_F(DiagnosticPackage, TcpIsNotQueriedWhenUdpHasFilledAllEntries) {
    driver().tcp.clear();
    EXPECT_EQ(Run().Content(kConnTrack), PrintedConnections(driver().udp, {}));
    EXPECT_EQ(CallsOf(calls, "vti_get_conntrack"), (Texts{"vti_get_conntrack(0, 16)", "vti_get_conntrack(17, 144)"}));
}

TEST_F(DiagnosticPackage, ConnectionsThatEndedAfterTheTotalsAreNotListed) {
    At("vti_get_conntrack(17, 336)", [](Vti::Driver &driver) {
        driver.udp = {ConnectionOf(9)};
        driver.tcp = {ConnectionOf(10)};
    });
    EXPECT_EQ(Run().Content(kConnTrack), PrintedConnections({ConnectionOf(9)}, {ConnectionOf(10)}));
    EXPECT_EQ(CallsOf(calls, "vti_get_conntrack").back(), "vti_get_conntrack(6, 272)");
}

TEST_F(DiagnosticPackage, ConnectionsThatAppearedAfterTheTotalsAreListedAsFarAsTheyFit) {
    At("vti_get_conntrack(17, 336)", [](Vti::Driver &driver) {
        driver.udp = ManyConnections(0, 4);
        driver.tcp = ManyConnections(4, 8);
    });
    EXPECT_EQ(Run().Content(kConnTrack), PrintedConnections(ManyConnections(0, 4), {ConnectionOf(4)}));
    At("vti_get_conntrack(17, 528)", [](Vti::Driver &driver) { driver.udp = ManyConnections(0, 100); });
    (void)Run();
    EXPECT_EQ(CallsOf(calls, "vti_get_conntrack"), (Texts{"vti_get_conntrack(0, 16)", "vti_get_conntrack(17, 528)"}));
}

TEST_F(DiagnosticPackage, ATableThatClaimsMoreEntriesThanFitIsListedAsFarAsItFits) {
    balance().Guard({});
    At("vti_get_conntrack(17, 336)", [](Vti::Driver &driver) {
        driver.udp = ManyConnections(0, 5);
        driver.overstatement = 60'000;
    });
    const Package package = Run();
    balance().StopGuarding();
    driver().overstatement = 0;
    EXPECT_EQ(package.Content(kConnTrack), PrintedConnections(ManyConnections(0, 5), {}));
}

TEST_F(DiagnosticPackage, EveryNumberOfConnectionsThatFitsItsWordIsListed) {
    for (const unsigned entries : {1u, 2u, 1000u, 32'768u, 65'535u}) {
        const unsigned udp = entries / 3;
        driver().udp = ManyConnections(0, udp);
        driver().tcp = ManyConnections(udp, entries);
        const Package package = Run();
        EXPECT_TRUE(package.Content(kConnTrack) == PrintedConnections(driver().udp, driver().tcp)) << entries;
    }
    EXPECT_EQ(TakeEvents(), Texts());
}

// ---- Blacklist

TEST_F(DiagnosticPackage, ABlacklistOfAnySizeIsPrinted) {
    for (const std::size_t size : {0u, 1u, 15u, 16u, 17u, 4096u, 1'000'000u}) {
        driver().blacklist = BytesOf(size);
        const Package package = Run();
        EXPECT_TRUE(package.Content(kBlacklist) == PrintedBlacklist(driver().blacklist)) << size;
        EXPECT_EQ(CallsOf(calls, "vti_get_blacklist").back(), "vti_get_blacklist(" + std::to_string(size) + ")");
    }
}

TEST_F(DiagnosticPackage, ABlacklistThatChangesBetweenTheRequestsIsPrintedAsFarAsItFits) {
    At("vti_get_blacklist(300)", [](Vti::Driver &driver) { driver.blacklist = BytesOf(100); });
    EXPECT_EQ(Run().Content(kBlacklist), PrintedBlacklist(BytesOf(100)));
    driver().blacklist = BytesOf(300);
    At("vti_get_blacklist(300)", [](Vti::Driver &driver) { driver.blacklist = BytesOf(301); });
    EXPECT_EQ(Run().Content(kBlacklist), PrintedBlacklist(BytesOf(300)));
}

TEST_F(DiagnosticPackage, ABlacklistThatClaimsMoreThanFitsIsPrintedAsFarAsItFits) {
    balance().Guard({});
    At("vti_get_blacklist(300)", [](Vti::Driver &driver) { driver.overstatement = 100'000; });
    const Package package = Run();
    balance().StopGuarding();
    EXPECT_EQ(package.Content(kBlacklist), PrintedBlacklist(BytesOf(300)));
}

// ---- Profile

TEST_F(DiagnosticPackage, AProfileOfAnySizeIsCopiedByteByByte) {
    for (const std::size_t size : {0u, 1u, 1023u, 1024u, 1025u, 65'536u, 1'000'000u}) {
        driver().profile = BytesOf(size);
        const Package package = Run();
        EXPECT_TRUE(package.Content(kProfile) == Profile()) << size;
    }
}

TEST_F(DiagnosticPackage, AProfileThatChangesBetweenTheRequestsHasTheSizeOfTheSecond) {
    At("vti_get_profile_stats(5000)", [](Vti::Driver &driver) { driver.profile = BytesOf(10); });
    const Package package = Run();
    EXPECT_EQ(package.Content(kProfile), Profile());
    driver().profile = BytesOf(5000);
    At("vti_get_profile_stats(5000)", [](Vti::Driver &driver) { driver.profile = BytesOf(6000); });
    EXPECT_EQ(Run().Content(kProfile), Profile().substr(0, 5000));
}

TEST_F(DiagnosticPackage, AProfileThatClaimsMoreThanFitsIsCopiedAsFarAsItFits) {
    balance().Guard({});
    At("vti_get_profile_stats(5000)", [](Vti::Driver &driver) { driver.overstatement = 100'000; });
    const Package package = Run();
    balance().StopGuarding();
    EXPECT_EQ(package.Content(kProfile), Profile());
}

TEST_F(DiagnosticPackage, Variable62AtOneIsSetBackAfterTheProfileWasRead) {
    driver().variables[62] = 1;
    EXPECT_EQ(Run().Content(kProfile), Profile());
    EXPECT_EQ(driver().variables[62], 0u);
    EXPECT_EQ(calls.back(), "vti_set_var(62, 0)");
}

TEST_F(DiagnosticPackage, Variable62AtAnyOtherValueIsUnchanged) {
    for (const uint32_t value : {0u, 2u, 0x100u, 0x10000u, 0xFFFFFFFFu}) {
        driver().variables[62] = value;
        (void)Run();
        EXPECT_EQ(driver().variables[62], value);
        EXPECT_EQ(CallsOf(calls, "vti_set_var"), Texts());
    }
}

TEST_F(DiagnosticPackage, Variable62IsNotTouchedWithoutAProfile) {
    driver().variables[62] = 1;
    for (const int works : {0, 1}) {
        driver().faults["vti_get_profile_stats"] = {-1, "", -1, works};
        (void)Run();
        EXPECT_EQ(CallsOf(calls, "vti_get_var("), Texts());
    }
    driver().faults.clear();
    driver().profile.clear();
    (void)Run();
    EXPECT_EQ(CallsOf(calls, "vti_get_var("), Texts());
    EXPECT_EQ(driver().variables[62], 1u);
}

}  // namespace
