// Each call made to add and remove an application, failed in turn, compared with the expected outcome.

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FirewallFixture.h"

namespace {

using Simulator::FirewallApplication;

const FirewallApplication kProgram{L"C:\\agent.exe", L"Agent", VARIANT_TRUE};

struct Case {
    bool adds;
    bool oldSystem;
    bool versionKnown;                   ///< A switch has run before.
    std::optional<VARIANT_BOOL> listed;  ///< The entry's switch.
};

/// A call within an operation.
struct Step {
    std::string function;
    Lines onFailure;  ///< Its log line and those that follow, without the code.
    bool allocates = false;
    bool tolerated = false;  ///< On failure the application counts as not listed.
};

std::string WithCode(const std::string &line, DWORD code) {
    char text[200];
    std::snprintf(text, sizeof text, "%s: 0x%08lx", line.c_str(), code);
    return text;
}

std::vector<Step> ObjectSteps(const Case &given) {
    const Lines initialise{"WindowsFirewallInitialize failed"};
    std::vector<Step> steps{{"CoInitializeEx", {"CoInitializeEx failed"}}};
    if (given.versionKnown && !given.oldSystem)
        steps.push_back({"CoCreateInstance", Lines{"CoCreateInstance(NetFwPolicy2) failed"} + initialise});
    steps.push_back({"CoCreateInstance", Lines{"CoCreateInstance(NetFwMgr) failed"} + initialise});
    steps.push_back({"INetFwMgr::get_LocalPolicy", Lines{"get_LocalPolicy failed"} + initialise});
    steps.push_back({"INetFwPolicy::get_CurrentProfile", Lines{"get_CurrentProfile failed"} + initialise});
    return steps;
}

std::vector<Step> AddSteps(bool listed, bool enabled) {
    const Lines add{"WindowsFirewallAddApp failed"};
    const Lines looked = Lines{"WindowsFirewallAppIsEnabled failed"} + add;
    std::vector<Step> steps{
        {"INetFwProfile::get_AuthorizedApplications", Lines{"get_AuthorizedApplications failed"} + looked},
        {"SysAllocString", Lines{"SysAllocString failed"} + looked, true},
        {"INetFwAuthorizedApplications::Item", {}, false, true},
    };
    if (listed)
        steps.push_back({"INetFwAuthorizedApplication::get_Enabled", Lines{"get_Enabled failed"} + looked});
    if (enabled)
        return steps;
    steps.push_back({"INetFwProfile::get_AuthorizedApplications", Lines{"get_AuthorizedApplications failed"} + add});
    steps.push_back({"CoCreateInstance", Lines{"CoCreateInstance failed"} + add});
    steps.push_back({"SysAllocString", Lines{"SysAllocString failed"} + add, true});
    steps.push_back(
        {"INetFwAuthorizedApplication::put_ProcessImageFileName", Lines{"put_ProcessImageFileName failed"} + add});
    steps.push_back({"SysAllocString", Lines{"SysAllocString failed"} + add, true});
    steps.push_back({"INetFwAuthorizedApplication::put_Name", Lines{"put_Name failed"} + add});
    steps.push_back({"INetFwAuthorizedApplications::Add", Lines{"Add failed"} + add});
    return steps;
}

std::vector<Step> RemoveSteps() {
    const Lines failed{"WindowsFirewallAddApp failed"};
    return {{"INetFwProfile::get_AuthorizedApplications", Lines{"get_AuthorizedApplications failed"} + failed},
            {"SysAllocString", Lines{"SysAllocString failed"} + failed, true},
            {"INetFwAuthorizedApplications::Remove", Lines{"Remove failed"} + failed}};
}

/// All calls of a run in which none fails.
std::vector<Step> CallsOf(const Case &given) {
    std::vector<Step> steps = ObjectSteps(given);
    const std::vector<Step> rest =
        given.adds ? AddSteps(given.listed.has_value(), given.listed == VARIANT_TRUE) : RemoveSteps();
    steps.insert(steps.end(), rest.begin(), rest.end());
    return steps;
}

std::ptrdiff_t CountOf(const std::string &function, std::vector<Step>::const_iterator begin,
                       std::vector<Step>::const_iterator end) {
    return std::count_if(begin, end, [&](const Step &step) { return step.function == function; });
}

std::vector<Case> Cases() {
    const std::optional<VARIANT_BOOL> entries[] = {std::nullopt, VARIANT_TRUE, VARIANT_FALSE, VARIANT_BOOL{1}};
    std::vector<Case> cases;
    for (const auto &listed : entries) {
        for (unsigned bits = 0; bits < 8; ++bits)
            cases.push_back({(bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0, listed});
    }
    return cases;
}

std::string NameOf(const Case &given) {
    return std::string(given.adds ? "add" : "remove") + (given.oldSystem ? ", old" : ", new") +
           (given.versionKnown ? ", version known" : "") + ", entry " +
           (given.listed ? std::to_string(*given.listed) : "missing");
}

class FirewallApplicationsInTrouble : public FirewallFixture {
protected:
    void Arrange(const Case &given) {
        faults().Clear();
        simulation().GetMachine().osMajor = given.oldSystem ? 5 : 10;
        Reload();
        if (given.versionKnown)
            (void)TurnOn();
        simulation().GetFirewall().Use([&](Simulator::FirewallState &state) {
            state.applications.clear();
            if (given.listed)
                state.applications.push_back({kProgram.path, L"Listed", *given.listed});
        });
    }
    Answer Run(const Case &given) {
        return Call(given.adds ? R"(WindowsFirewallAddApp('C:\\agent.exe', 'Agent'))"
                               : R"(WindowsFirewallRemoveApp('C:\\agent.exe'))");
    }
    std::vector<FirewallApplication> Listed() { return simulation().GetFirewall().Read().applications; }
    static std::string FirstLine(const Case &given) {
        return given.adds ? R"(WindowsFirewallAddApp called with path = C:\agent.exe displayName = Agent)"
                          : R"(WindowsFirewallRemoveApp called with path = C:\agent.exe)";
    }
    static std::vector<FirewallApplication> After(const Case &given) {
        if (!given.adds)
            return {};
        return {given.listed == VARIANT_TRUE ? FirewallApplication{kProgram.path, L"Listed"} : kProgram};
    }

    /// Fails one call of the operation.
    void Try(const Case &given, std::size_t at, DWORD code) {
        Arrange(given);
        const std::vector<Step> calls = CallsOf(given);
        const Step &failing = calls[at];
        const auto nth = CountOf(failing.function, calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(at) + 1);
        const std::vector<FirewallApplication> before = Listed();
        const auto plan = faults().FailNth(failing.function, static_cast<unsigned>(nth), code);
        const Answer answer = Run(given);
        ASSERT_TRUE(plan->Hit());
        Lines log{FirstLine(given)};
        if (failing.tolerated) {
            EXPECT_EQ(answer.result, "true");
            EXPECT_EQ(answer.log,
                      (log + Lines{R"(Authorized application C:\agent.exe is now enabled in the firewall.)"}));
            EXPECT_EQ(Listed(), std::vector{kProgram});
            return;
        }
        for (const std::string &line : failing.onFailure)
            log.push_back(WithCode(line, failing.allocates ? static_cast<DWORD>(E_OUTOFMEMORY) : code));
        EXPECT_EQ(answer.result, "false");
        EXPECT_EQ(answer.log, log);
        EXPECT_EQ(Listed(), before);
        EXPECT_EQ(Left(), LeftThings());
        EXPECT_EQ(Calls("CoUninitialize").size(), failing.function == "CoInitializeEx" ? 0U : 1U);
        EXPECT_EQ(Calls(failing.function).size(), static_cast<std::size_t>(nth)) << "nothing follows";
    }
    /// Runs without a failure: its calls must be the expected ones.
    void TryWithout(const Case &given) {
        Arrange(given);
        const Answer answer = Run(given);
        const bool succeeds = given.adds || given.listed.has_value();
        EXPECT_EQ(answer.result, succeeds ? "true" : "false");
        EXPECT_EQ(Listed(), After(given));
        const std::vector<Step> calls = CallsOf(given);
        for (const Step &step : calls) {
            EXPECT_EQ(Calls(step.function).size(),
                      static_cast<std::size_t>(CountOf(step.function, calls.begin(), calls.end())))
                << step.function;
        }
    }
};

TEST_F(FirewallApplicationsInTrouble, FailAtEachCallAsTheTableSays) {
    unsigned combinations = 0;
    for (const Case &given : Cases()) {
        SCOPED_TRACE(NameOf(given));
        TryWithout(given);
        for (std::size_t at = 0; at < CallsOf(given).size(); ++at) {
            for (const HRESULT code : {E_ACCESSDENIED, RPC_E_DISCONNECTED}) {
                SCOPED_TRACE(testing::Message() << "step " << at << ", code " << code);
                Try(given, at, static_cast<DWORD>(code));
                ++combinations;
                if (HasFailure())
                    return;
            }
        }
    }
    std::printf("%u combinations of an operation, a machine and a failing call\n", combinations);
    EXPECT_GT(combinations, 500U);
}

}  // namespace
