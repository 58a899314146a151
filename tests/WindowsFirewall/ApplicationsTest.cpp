// The list of authorised applications through SLB.filter.

#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FirewallFixture.h"
#include "LogCollector.h"

namespace {

using Simulator::FirewallApplication;

const std::string kAdd = R"(WindowsFirewallAddApp('C:\\agent\\agent.exe', 'Agent'))";
const std::string kRemove = R"(WindowsFirewallRemoveApp('C:\\agent\\agent.exe'))";
const Lines kAdding{"WindowsFirewallAddApp called with path = C:\\agent\\agent.exe displayName = Agent"};
const Lines kRemoving{"WindowsFirewallRemoveApp called with path = C:\\agent\\agent.exe"};
const Lines kAdded{"Authorized application C:\\agent\\agent.exe is now enabled in the firewall."};
const FirewallApplication kAgent{L"C:\\agent\\agent.exe", L"Agent", VARIANT_TRUE};
const FirewallApplication kOther{L"C:\\other.exe", L"Other", VARIANT_FALSE};

/// What a successful call leaves: the profile and COM stay with the thread.
const LeftThings kStays{{"COM initialisation", 1}, {"COM reference", 1}};

class FirewallApplications : public FirewallFixture {
protected:
    void Put(const std::vector<FirewallApplication> &applications) {
        simulation().GetFirewall().Use([&](Simulator::FirewallState &state) { state.applications = applications; });
    }
    [[nodiscard]] std::vector<FirewallApplication> Listed() { return simulation().GetFirewall().Read().applications; }
    void ExpectAnswer(const std::string &call, const std::string &result, const Lines &log) {
        const Answer answer = Call(call);
        EXPECT_EQ(answer.result, result) << call;
        EXPECT_EQ(answer.log, log) << call;
    }
};

TEST_F(FirewallApplications, AreAddedEnabledAndUnderTheirName) {
    Put({kOther});
    ExpectAnswer(kAdd, "true", kAdding + kAdded);
    EXPECT_EQ(Listed(), (std::vector{kOther, kAgent}));
    EXPECT_EQ(Left(), kStays);
    EXPECT_EQ(Calls("CoUninitialize"), Lines());
}

TEST_F(FirewallApplications, AreCreatedByTheirPublishedName) {
    (void)Call(kAdd);
    std::string last;
    for (const Simulator::JournalEntry &entry : simulation().GetJournal().Entries()) {
        if (entry.function == "CoCreateInstance")
            last = entry.arguments;
        if (entry.function == "CoInitializeEx") {
            EXPECT_EQ(entry.arguments, "null, 6");
        }
    }
    EXPECT_EQ(last.find("{EC9846B3-2762-4A6B-A214-6ACB603462D2}, null, 1, {B5E64FFA-C2C5-444E-A301-FB5E00018050}"), 0U)
        << last;
}

TEST_F(FirewallApplications, ThatAreListedAndEnabledAreUnchanged) {
    FirewallApplication named = kAgent;
    named.name = L"Another name";
    Put({named});
    ExpectAnswer(kAdd, "true", kAdding);
    EXPECT_EQ(Calls("INetFwAuthorizedApplications::Add"), Lines());
    EXPECT_EQ(Listed(), std::vector{named});
    EXPECT_EQ(Left(), kStays);
}

TEST_F(FirewallApplications, ThatAreListedButDisabledAreWrittenAgain) {
    FirewallApplication disabled = kAgent;
    disabled.enabled = VARIANT_FALSE;
    Put({disabled, kOther});
    ExpectAnswer(kAdd, "true", kAdding + kAdded);
    EXPECT_EQ(Listed(), (std::vector{kAgent, kOther}));
}

TEST_F(FirewallApplications, CountAsEnabledOnlyForVariantTrue) {
    for (const int odd : {1, 2, -2, 0x7FFF}) {
        FirewallApplication oddly = kAgent;
        oddly.enabled = static_cast<VARIANT_BOOL>(odd);
        Put({oddly});
        ExpectAnswer(kAdd, "true", kAdding + kAdded);
        EXPECT_EQ(Listed(), std::vector{kAgent});
    }
}

TEST_F(FirewallApplications, NeedAPath) {
    const Lines log{"WindowsFirewallAddApp called with path =  displayName = Agent",
                    "SysAllocString failed: 0x8007000e", "WindowsFirewallAppIsEnabled failed: 0x8007000e",
                    "WindowsFirewallAddApp failed: 0x8007000e"};
    for (const char *path : {"''", "nil", "'\\xFF\\xFE'", "{}", "true"}) {
        ExpectAnswer("WindowsFirewallAddApp(" + std::string(path) + ", 'Agent')", "false", log);
        EXPECT_EQ(Left(), LeftThings());
    }
    EXPECT_TRUE(Listed().empty());
}

TEST_F(FirewallApplications, NeedADisplayName) {
    ExpectAnswer(R"(WindowsFirewallAddApp('C:\\agent\\agent.exe', ''))", "false",
                 {"WindowsFirewallAddApp called with path = C:\\agent\\agent.exe displayName = ",
                  "SysAllocString failed: 0x8007000e", "WindowsFirewallAddApp failed: 0x8007000e"});
    EXPECT_EQ(Calls("INetFwAuthorizedApplications::Add"), Lines());
    EXPECT_TRUE(Listed().empty());
    EXPECT_EQ(Left(), LeftThings());
}

TEST_F(FirewallApplications, LogWhichTextCouldNotBeAllocated) {
    // The first text is allocated when it checks whether the program is listed.
    std::set<std::string> places;
    for (const unsigned nth : {1U, 2U, 3U}) {
        const auto plan = faults().FailNth("SysAllocString", nth, ERROR_OUTOFMEMORY);
        EXPECT_EQ(lua.Eval("SLB.filter." + kAdd), "false");
        ASSERT_TRUE(plan->Hit());
        faults().Clear();
        for (const TracedLine &line : TakeTracedLines()) {
            if (line.message != "SysAllocString failed: 0x8007000e")
                continue;
            EXPECT_EQ(line.function, nth == 1 ? "WindowsFirewall::WindowsFirewallAppIsEnabled"
                                              : "WindowsFirewall::DoWindowsFirewallAddApp");
            EXPECT_TRUE(places.insert(line.file + ":" + std::to_string(line.line)).second) << line.line;
        }
    }
    EXPECT_EQ(places.size(), 3U);
}

TEST_F(FirewallApplications, TraceEachStepWithItsOwnLineNumber) {
    (void)faults().FailEvery("INetFwAuthorizedApplications::Add", kDenied);
    EXPECT_EQ(lua.Eval("SLB.filter." + kAdd), "false");
    (void)faults().FailEvery("INetFwMgr::get_LocalPolicy", kDenied);
    EXPECT_EQ(lua.Eval("SLB.filter." + kAdd), "false");
    (void)faults().FailEvery("CoInitializeEx", kDenied);
    EXPECT_EQ(lua.Eval("SLB.filter." + kAdd), "false");
    std::map<std::string, std::set<std::string>> places;  // by message
    for (const TracedLine &line : TakeTracedLines()) {
        if (line.function == "WindowsFirewall::WindowsFirewallAddApp")
            places[line.message].insert(line.file + ":" + std::to_string(line.line));
    }
    EXPECT_EQ(places.size(), 4U) << "the call, and a failure of COM, of its objects, and of the operation";
    std::set<std::string> all;
    for (const auto &[message, lines] : places) {
        EXPECT_EQ(lines.size(), 1U) << message;
        all.insert(lines.begin(), lines.end());
    }
    EXPECT_EQ(all.size(), places.size());
}

TEST_F(FirewallApplications, AreReadAsUtf8) {
    ExpectAnswer("WindowsFirewallAddApp('C:\\\\\xC3\xA4\\\\\xE6\x97\xA5.exe', '\xE2\x82\xAC')", "true",
                 {"WindowsFirewallAddApp called with path = C:\\\xC3\xA4\\\xE6\x97\xA5.exe displayName = \xE2\x82\xAC",
                  "Authorized application C:\\\xC3\xA4\\\xE6\x97\xA5.exe is now enabled in the firewall."});
    ASSERT_EQ(Listed().size(), 1U);
    EXPECT_EQ(Listed()[0].path, L"C:\\\u00E4\\\u65E5.exe");
    EXPECT_EQ(Listed()[0].name, L"\u20AC");
}

TEST_F(FirewallApplications, MayHavePercentSignsInTheirNames) {
    ExpectAnswer("WindowsFirewallAddApp('C:\\\\%s%n.exe', '%d')", "true",
                 {"WindowsFirewallAddApp called with path = C:\\%s%n.exe displayName = %d",
                  "Authorized application C:\\%s%n.exe is now enabled in the firewall."});
}

TEST_F(FirewallApplications, LeaveOneInitialisationOfComForEachSuccess) {
    for (std::size_t times = 1; times <= 3; ++times) {
        EXPECT_EQ(Call(kAdd).result, "true");
        EXPECT_EQ(Left(), kStays);
        EXPECT_EQ(balance().Take().Count(Simulator::Kind::kComInitialisation), times);
    }
    EXPECT_EQ(Call(kRemove).result, "true");
    EXPECT_EQ(balance().Take().Count(Simulator::Kind::kComInitialisation), 4U);
}

TEST_F(FirewallApplications, AreAddedWithoutThePolicyInAFreshProcess) {
    EXPECT_EQ(Call(kAdd).result, "true");
    EXPECT_EQ(Calls("GetVersionExW"), Lines());
    EXPECT_EQ(Calls("CoCreateInstance").size(), 2U) << "the manager and the entry";
}

TEST_F(FirewallApplications, LeaveThePolicyTooOnceASwitchHasQueriedTheVersion) {
    (void)TurnOn();
    EXPECT_EQ(Call(kAdd).result, "true");
    EXPECT_EQ(Calls("CoCreateInstance").size(), 3U);
    EXPECT_EQ(Left(), (LeftThings{{"COM initialisation", 1}, {"COM reference", 2}}));
    (void)faults().FailNth("INetFwAuthorizedApplications::Remove", 1, static_cast<DWORD>(E_FAIL));
    EXPECT_EQ(Call(kRemove).result, "false");
    EXPECT_EQ(Left(), LeftThings()) << "a failure releases both";
}

TEST_F(FirewallApplications, AreRemovedByTheirPathCaseInsensitively) {
    FirewallApplication shouting = kAgent;
    shouting.path = L"C:\\AGENT\\AGENT.EXE";
    Put({kOther, shouting});
    ExpectAnswer(kRemove, "true", kRemoving);
    EXPECT_EQ(Listed(), std::vector{kOther});
    EXPECT_EQ(Left(), kStays);
    EXPECT_EQ(Calls("INetFwAuthorizedApplications::Item"), Lines()) << "no check comes first";
}

TEST_F(FirewallApplications, ThatAreNotListedAreRemovedWithTheSystemsResult) {
    ExpectAnswer(kRemove, "false",
                 kRemoving + Lines{"Remove failed: 0x80070002", "WindowsFirewallAddApp failed: 0x80070002"});
    EXPECT_EQ(Left(), LeftThings());
    simulation().GetFirewall().Use([](Simulator::FirewallState &state) { state.removeMissingResult = S_OK; });
    ExpectAnswer(kRemove, "true", kRemoving);
    EXPECT_EQ(Left(), kStays);
}

TEST_F(FirewallApplications, AreNotRemovedWithoutAPath) {
    Put({kAgent});
    for (const char *path : {"''", "nil", "", "'\\xFF\\xFE'", "{}", "true"}) {
        ExpectAnswer("WindowsFirewallRemoveApp(" + std::string(path) + ")", "false",
                     {"WindowsFirewallRemoveApp called with path = ", "SysAllocString failed: 0x8007000e",
                      "WindowsFirewallAddApp failed: 0x8007000e"});
        EXPECT_EQ(Calls("INetFwAuthorizedApplications::Remove"), Lines());
        EXPECT_EQ(Left(), LeftThings());
    }
    EXPECT_EQ(Listed(), std::vector{kAgent});
}

TEST_F(FirewallApplications, WorkInAThreadOfAnotherModelAndCloseComOnceAfterAFailure) {
    simulation().GetCom().threadsHaveApartments = true;
    (void)faults().FailEvery("CoInitializeEx", static_cast<DWORD>(RPC_E_CHANGED_MODE));
    ExpectAnswer(kAdd, "true", kAdding + kAdded);
    EXPECT_EQ(Calls("CoUninitialize"), Lines());
    (void)faults().FailNth("INetFwAuthorizedApplications::Remove", 1, static_cast<DWORD>(E_FAIL));
    ExpectAnswer(kRemove, "false",
                 kRemoving + Lines{"Remove failed: 0x80004005", "WindowsFirewallAddApp failed: 0x80004005"});
    EXPECT_EQ(Calls("CoUninitialize").size(), 1U);
}

TEST_F(FirewallApplications, UseNeitherServiceNorFlag) {
    (void)Call(kAdd);
    (void)Call(kRemove);
    EXPECT_EQ(Calls("OpenSCManagerW"), Lines());
    EXPECT_EQ(Calls("Reg"), Lines());
}

}  // namespace
