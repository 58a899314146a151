// Start, stop and restart of the drivers through SLB.filter, on simulated services.
#include "WindowsDriverInstaller/drivers/ServiceControl.h"

#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "LogCollector.h"
#include "ModuleFixture.h"

namespace {

using Simulator::Service;
using Simulator::ServiceStatus;
using Texts = std::vector<std::string>;

constexpr wchar_t kNdis[] = L"qbimvta";
constexpr wchar_t kWfp[] = L"qbimwfp";
constexpr ServiceStatus kStopped{SERVICE_STOPPED};
constexpr ServiceStatus kRunning{SERVICE_RUNNING};
constexpr ServiceStatus kStarting{SERVICE_START_PENDING};

std::string Quoted(const std::wstring &name) {
    return '"' + Simulator::Utf8(name) + '"';
}

/// A stopped and a running service, with a clock that sleeps advance. Handles must be closed after each call.
class ServiceControl : public ModuleFixture {
protected:
    ServiceControl() {
        simulation().GetClock().Step(Simulator::Clock::AutoAdvance::Sleeps);
        Put(kWfp, kStopped);
        Put(kNdis, kRunning);
    }

    void Put(const wchar_t *name, const ServiceStatus &status) {
        Service service;
        service.status = status;
        services().Put(name, service);
    }
    /// A stopped service that reports these statuses one after the other once it is started.
    void PutStarting(const std::vector<ServiceStatus> &script) {
        Service service;
        service.starting = script;
        services().Put(kWfp, service);
    }
    [[nodiscard]] DWORD State(const wchar_t *name) { return services().Get(name).status.state; }

    /// Calls SLB.filter.<call>; journal and clock then cover only this call.
    bool Call(const std::string &call) {
        (void)simulation().GetJournal().Take();
        m_begin = simulation().GetClock().TickMs();
        const std::string result = lua.Eval("SLB.filter." + call);
        EXPECT_EQ(OpenHandles(), 0U) << call;
        EXPECT_TRUE(result == "true" || result == "false") << call << ": " << result;
        return result == "true";
    }
    [[nodiscard]] std::size_t OpenHandles() { return balance().Take().Count(Simulator::Kind::kService); }
    [[nodiscard]] std::uint64_t ElapsedMs() { return simulation().GetClock().TickMs() - m_begin; }
    /// What was logged, all of it at level error.
    Texts Errors() {
        Texts texts;
        for (const LogLine &line : m_log.Take()) {
            EXPECT_EQ(line.level, static_cast<wxLogLevel>(wxLOG_Error)) << line.text;
            texts.push_back(line.text);
        }
        return texts;
    }
    /// The calls, with handles as #1, #2 in the order of their creation, other pointers as *.
    Texts Calls() {
        static const std::set<std::string> wanted{"OpenSCManagerW", "OpenServiceW",   "CloseServiceHandle",
                                                  "StartServiceW",  "ControlService", "QueryServiceStatus",
                                                  "Sleep",          "GetTickCount"};
        static const std::regex pointer("0x[0-9a-fA-F]+");
        std::map<std::string, std::size_t> handles;
        Texts calls;
        for (const Simulator::JournalEntry &entry : simulation().GetJournal().Entries()) {
            if (wanted.count(entry.function) == 0)
                continue;
            std::string arguments = entry.arguments;
            std::smatch first;
            if (std::regex_search(arguments, first, pointer) && first.position() == 0) {
                const std::size_t number = handles.try_emplace(first.str(), handles.size() + 1).first->second;
                arguments = "#" + std::to_string(number) + first.suffix().str();
            }
            calls.push_back(entry.function + "(" + std::regex_replace(arguments, pointer, "*") + ")");
        }
        return calls;
    }
    Texts Sleeps() {
        Texts sleeps;
        for (const Simulator::JournalEntry &entry : simulation().GetJournal().Entries())
            if (entry.function == "Sleep")
                sleeps.push_back(entry.arguments);
        return sleeps;
    }
    Simulator::ServiceManager &services() { return simulation().GetServices(); }
    Simulator::Faults &faults() { return simulation().GetFaults(); }

private:
    LogCollector m_log;
    std::uint64_t m_begin = 0;
};

/// The check whether the service runs, which comes first; its handles are #1 and #2.
Texts After(const std::wstring &name, const Texts &rest) {
    Texts calls{"OpenSCManagerW(null, null, 983103)", "OpenServiceW(#1, " + Quoted(name) + ", 983551)",
                "QueryServiceStatus(#2, *)", "CloseServiceHandle(#2)", "CloseServiceHandle(#1)"};
    calls.insert(calls.end(), rest.begin(), rest.end());
    return calls;
}

TEST_F(ServiceControl, AStartWithoutWaitStartsTheServiceAndDoesNotPoll) {
    EXPECT_TRUE(Call("StartWFPDriver(false)"));
    EXPECT_EQ(State(kWfp), static_cast<DWORD>(SERVICE_START_PENDING));
    EXPECT_EQ(Calls(), After(kWfp, {"OpenSCManagerW(null, null, 983103)", "OpenServiceW(#3, \"qbimwfp\", 983551)",
                                    "StartServiceW(#4, 0, null)", "CloseServiceHandle(#4)", "CloseServiceHandle(#3)"}));
    EXPECT_EQ(Errors(), Texts{});
}

TEST_F(ServiceControl, AStartWaitsForWhateverLuaTakesForTrueAndForNothingElse) {
    for (const char *argument : {"", "nil", "false"}) {
        Put(kWfp, kStopped);
        EXPECT_TRUE(Call(std::string("StartWFPDriver(") + argument + ")"));
        EXPECT_EQ(State(kWfp), static_cast<DWORD>(SERVICE_START_PENDING)) << argument;
        EXPECT_EQ(Sleeps(), Texts{}) << argument;
    }
    for (const char *argument : {"0", "''", "{}", "true, false"}) {
        PutStarting({kStarting, kRunning});
        EXPECT_TRUE(Call(std::string("StartWFPDriver(") + argument + ")"));
        EXPECT_EQ(State(kWfp), static_cast<DWORD>(SERVICE_RUNNING)) << argument;
        EXPECT_EQ(Sleeps(), Texts{"1000"}) << argument;
    }
    EXPECT_EQ(Errors(), Texts{});
}

TEST_F(ServiceControl, AStopWithoutWaitStopsTheServiceAndDoesNotPoll) {
    EXPECT_TRUE(Call("StopNDISDriver(false)"));
    EXPECT_EQ(State(kNdis), static_cast<DWORD>(SERVICE_STOP_PENDING));
    EXPECT_EQ(Calls(), After(kNdis, {"OpenSCManagerW(null, null, 983103)", "OpenServiceW(#3, \"qbimvta\", 983551)",
                                     "ControlService(#4, 1, *)", "CloseServiceHandle(#4)", "CloseServiceHandle(#3)"}));
    EXPECT_EQ(Errors(), Texts{});
}

TEST_F(ServiceControl, AStartWithWaitPollsUntilTheServiceRuns) {
    PutStarting({kStarting, kRunning});
    EXPECT_TRUE(Call("StartWFPDriver(true)"));
    EXPECT_EQ(State(kWfp), static_cast<DWORD>(SERVICE_RUNNING));
    EXPECT_EQ(Calls(), After(kWfp, {"OpenSCManagerW(null, null, 983103)", "OpenServiceW(#3, \"qbimwfp\", 983551)",
                                    "StartServiceW(#4, 0, null)", "GetTickCount()", "QueryServiceStatus(#4, *)",
                                    "GetTickCount()", "Sleep(1000)", "QueryServiceStatus(#4, *)",
                                    "CloseServiceHandle(#4)", "CloseServiceHandle(#3)"}));
}

TEST_F(ServiceControl, EachFunctionControlsItsOwnService) {
    for (const auto &[suffix, name] : std::map<std::string, const wchar_t *>{{"WFP", kWfp}, {"NDIS", kNdis}}) {
        Put(kWfp, kStopped);
        Put(kNdis, kStopped);
        const wchar_t *other = name == kWfp ? kNdis : kWfp;
        EXPECT_TRUE(Call("Start" + suffix + "Driver(true)"));
        EXPECT_EQ(State(name), static_cast<DWORD>(SERVICE_RUNNING));
        EXPECT_EQ(State(other), static_cast<DWORD>(SERVICE_STOPPED));
        Put(other, kRunning);
        EXPECT_TRUE(Call("Stop" + suffix + "Driver(true)"));
        EXPECT_EQ(State(name), static_cast<DWORD>(SERVICE_STOPPED));
        EXPECT_TRUE(Call("Restart" + suffix + "Driver(true)"));
        EXPECT_EQ(State(name), static_cast<DWORD>(SERVICE_RUNNING));
        EXPECT_EQ(State(other), static_cast<DWORD>(SERVICE_RUNNING));
    }
    EXPECT_EQ(Errors(), Texts{});
}

TEST_F(ServiceControl, ARunningServiceIsNotStartedAndAStoppedOneNotStopped) {
    EXPECT_TRUE(Call("StartNDISDriver(true)"));
    EXPECT_EQ(Calls(), After(kNdis, {}));
    EXPECT_TRUE(Call("StopWFPDriver(true)"));
    EXPECT_EQ(Calls(), After(kWfp, {}));
    EXPECT_EQ(Errors(), Texts{});
}

TEST_F(ServiceControl, AServiceThatDoesNotExistIsNeitherStartedNorStopped) {
    services().Remove(kWfp);
    EXPECT_TRUE(Call("StopWFPDriver(true)"));
    EXPECT_EQ(Calls().size(), 3U) << "only the check whether it runs";
    EXPECT_EQ(Errors(), Texts{});
    EXPECT_TRUE(Call("StartWFPDriver(true)"));
    EXPECT_EQ(Errors(), Texts{"OpenService: error=1060"});
}

TEST_F(ServiceControl, ARaceWithAnotherStartOrStopIsLoggedAndCountsAsSuccess) {
    services().Put(kWfp, {.startError = ERROR_SERVICE_ALREADY_RUNNING});
    EXPECT_TRUE(Call("StartWFPDriver(true)"));
    EXPECT_EQ(Errors(), Texts{"StartService: error=1056"});
    services().Put(kNdis, {.status = kRunning, .controlError = ERROR_SERVICE_NOT_ACTIVE});
    EXPECT_TRUE(Call("StopNDISDriver(true)"));
    EXPECT_EQ(Errors(), Texts{"ControlService: error=1062"});
}

TEST_F(ServiceControl, AnErrorThatIsHarmlessOnlyForTheOtherActionIsAFailure) {
    services().Put(kWfp, {.startError = ERROR_SERVICE_NOT_ACTIVE});
    EXPECT_FALSE(Call("StartWFPDriver(true)"));
    EXPECT_EQ(Errors(), Texts{"StartService: error=1062"});
    services().Put(kNdis, {.status = kRunning, .controlError = ERROR_SERVICE_ALREADY_RUNNING});
    EXPECT_FALSE(Call("StopNDISDriver(true)"));
    EXPECT_EQ(Errors(), Texts{"ControlService: error=1056"});
}

struct ServiceFault {
    const char *function;
    unsigned nth;
    bool result;
    DWORD state;  ///< Afterwards.
    Texts log;
};

TEST_F(ServiceControl, AStartReportsTheFailureOfEachOfItsCalls) {
    for (const ServiceFault &fault : std::vector<ServiceFault>{
             {"OpenSCManagerW", 1, true, SERVICE_RUNNING, {}},
             {"OpenServiceW", 1, true, SERVICE_RUNNING, {}},
             {"QueryServiceStatus", 1, true, SERVICE_RUNNING, {}},
             {"OpenSCManagerW", 2, false, SERVICE_STOPPED, {"OpenSCManager: error=5"}},
             {"OpenServiceW", 2, true, SERVICE_STOPPED, {"OpenService: error=5"}},
             {"StartServiceW", 1, false, SERVICE_STOPPED, {"StartService: error=5"}},
             {"QueryServiceStatus", 2, false, SERVICE_START_PENDING, {"WaitForServiceState: error=5"}},
             {"QueryServiceStatus", 3, false, SERVICE_START_PENDING, {"WaitForServiceState: error=5"}}}) {
        SCOPED_TRACE(std::string(fault.function) + " " + std::to_string(fault.nth));
        PutStarting({kStarting, kRunning});
        const auto plan = faults().FailNth(fault.function, fault.nth, ERROR_ACCESS_DENIED);
        EXPECT_EQ(Call("StartWFPDriver(true)"), fault.result);
        EXPECT_TRUE(plan->Hit());
        EXPECT_EQ(State(kWfp), fault.state);
        EXPECT_EQ(Errors(), fault.log);
        faults().Clear();
    }
}

TEST_F(ServiceControl, AStopReportsTheFailureOfEachOfItsCalls) {
    for (const ServiceFault &fault : std::vector<ServiceFault>{
             {"OpenSCManagerW", 1, true, SERVICE_RUNNING, {}},
             {"OpenServiceW", 1, true, SERVICE_RUNNING, {}},
             {"QueryServiceStatus", 1, true, SERVICE_RUNNING, {}},
             {"OpenSCManagerW", 2, false, SERVICE_RUNNING, {"OpenSCManager: error=5"}},
             {"OpenServiceW", 2, true, SERVICE_RUNNING, {"OpenService: error=5"}},
             {"ControlService", 1, false, SERVICE_RUNNING, {"ControlService: error=5"}},
             {"QueryServiceStatus", 2, false, SERVICE_STOP_PENDING, {"WaitForServiceState: error=5"}}}) {
        SCOPED_TRACE(std::string(fault.function) + " " + std::to_string(fault.nth));
        Put(kNdis, kRunning);
        const auto plan = faults().FailNth(fault.function, fault.nth, ERROR_ACCESS_DENIED);
        EXPECT_EQ(Call("StopNDISDriver(true)"), fault.result);
        EXPECT_TRUE(plan->Hit());
        EXPECT_EQ(State(kNdis), fault.state);
        EXPECT_EQ(Errors(), fault.log);
        faults().Clear();
    }
}

TEST_F(ServiceControl, ARestartStopsAndThenStarts) {
    EXPECT_TRUE(Call("RestartNDISDriver(true)"));
    EXPECT_EQ(State(kNdis), static_cast<DWORD>(SERVICE_RUNNING));
    EXPECT_EQ(simulation().GetJournal().Count("ControlService"), 1U);
    EXPECT_EQ(simulation().GetJournal().Count("StartServiceW"), 1U);
    EXPECT_TRUE(Call("RestartWFPDriver(true)"));
    EXPECT_EQ(State(kWfp), static_cast<DWORD>(SERVICE_RUNNING)) << "it was stopped before";
    EXPECT_EQ(simulation().GetJournal().Count("ControlService"), 0U);
    EXPECT_EQ(Errors(), Texts{});
}

TEST_F(ServiceControl, ARestartWhoseStopFailsDoesNotStart) {
    services().Put(kNdis, {.status = kRunning, .controlError = ERROR_ACCESS_DENIED});
    EXPECT_FALSE(Call("RestartNDISDriver(true)"));
    EXPECT_EQ(simulation().GetJournal().Count("StartServiceW"), 0U);
    EXPECT_EQ(Errors(), Texts{"ControlService: error=5"});
}

TEST_F(ServiceControl, ARestartReturnsTheResultOfItsStart) {
    services().Put(kNdis, {.status = kRunning, .startError = ERROR_FILE_NOT_FOUND});
    EXPECT_FALSE(Call("RestartNDISDriver(true)"));
    EXPECT_EQ(Errors(), Texts{"StartService: error=2"});
}

TEST_F(ServiceControl, ARestartWithoutWaitWaitsForNeither) {
    EXPECT_TRUE(Call("RestartNDISDriver(false)"));
    EXPECT_EQ(simulation().GetJournal().Count("GetTickCount"), 0U);
    EXPECT_EQ(simulation().GetJournal().Count("QueryServiceStatus"), 2U) << "one check before each action";
    EXPECT_EQ(State(kNdis), static_cast<DWORD>(SERVICE_START_PENDING));
}

TEST_F(ServiceControl, SleepsATenthOfTheWaitHintWithinItsBounds) {
    for (const auto &[hint, slept] : std::map<DWORD, std::uint64_t>{{0, 1'000},
                                                                    {9'999, 1'000},
                                                                    {10'010, 1'001},
                                                                    {50'000, 5'000},
                                                                    {100'009, 10'000},
                                                                    {200'000, 10'000},
                                                                    {0xFFFF'FFFF, 10'000}}) {
        PutStarting({{SERVICE_START_PENDING, 0, hint}, kRunning});
        EXPECT_TRUE(Call("StartWFPDriver(true)"));
        EXPECT_EQ(ElapsedMs(), slept) << hint;
        EXPECT_EQ(Sleeps(), Texts{std::to_string(slept)});
    }
}

TEST_F(ServiceControl, GivesUpAfterHalfAMinute) {
    PutStarting({kStarting});
    EXPECT_FALSE(Call("StartWFPDriver(true)"));
    EXPECT_EQ(Errors(), Texts{"WaitForServiceState: error=1460"});
    EXPECT_EQ(ElapsedMs(), 31'000U) << "at 30,000 the deadline is reached, but not passed";
    EXPECT_EQ(State(kWfp), static_cast<DWORD>(SERVICE_START_PENDING));
}

TEST_F(ServiceControl, TheStateAtTheLastPollCountsEvenAfterTheDeadline) {
    std::vector<ServiceStatus> script(31, kStarting);
    script.push_back(kRunning);
    PutStarting(script);
    EXPECT_TRUE(Call("StartWFPDriver(true)"));
    EXPECT_EQ(ElapsedMs(), 31'000U);
}

TEST_F(ServiceControl, ACheckpointThatDecreasesEndsTheWaitAtOnce) {
    PutStarting({{SERVICE_START_PENDING, 1}, {SERVICE_START_PENDING, 3}, {SERVICE_START_PENDING, 2}, kRunning});
    EXPECT_FALSE(Call("StartWFPDriver(true)"));
    EXPECT_EQ(ElapsedMs(), 2'000U);
    const Texts errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].rfind("WaitForServiceState: error=", 0), 0U) << errors[0];
    EXPECT_EQ(services().Get(kWfp).status, (ServiceStatus{SERVICE_START_PENDING, 2}));
}

TEST_F(ServiceControl, ACheckpointMayStayOrDecreaseWithAnotherState) {
    PutStarting({{SERVICE_START_PENDING, 5},
                 {SERVICE_START_PENDING, 5},
                 {SERVICE_CONTINUE_PENDING, 1},
                 {SERVICE_START_PENDING, 0},
                 kRunning});
    EXPECT_TRUE(Call("StartWFPDriver(true)"));
    EXPECT_EQ(ElapsedMs(), 4'000U);
}

TEST_F(ServiceControl, TicksThatWrapBeforeTheDeadlineEndTheWaitEarly) {
    simulation().GetClock().SetTick(0x1'0000'0000 - 10'000);
    PutStarting({kStarting, kRunning});
    EXPECT_FALSE(Call("StartWFPDriver(true)"));
    EXPECT_EQ(Errors(), Texts{"WaitForServiceState: error=1460"});
    EXPECT_EQ(ElapsedMs(), 0U);
}

TEST_F(ServiceControl, TicksThatWrapAfterTheDeadlineEndTheWaitLate) {
    simulation().GetClock().SetTick(0x1'0000'0000 - 30'500);
    std::vector<ServiceStatus> script(60, kStarting);
    script.push_back(kRunning);
    PutStarting(script);
    EXPECT_TRUE(Call("StartWFPDriver(true)"));
    EXPECT_EQ(ElapsedMs(), 60'000U);
}

TEST_F(ServiceControl, ReportsWhatIsInstalledAndRuns) {
    EXPECT_TRUE(IsWfpServiceInstalled());
    EXPECT_FALSE(IsWfpServiceRunning());
    EXPECT_TRUE(IsNdisServiceRunning());
    Put(kWfp, kRunning);
    EXPECT_TRUE(IsWfpServiceRunning());
    Put(kNdis, kStarting);
    EXPECT_FALSE(IsNdisServiceRunning());
    services().Remove(kWfp);
    EXPECT_FALSE(IsWfpServiceInstalled());
    EXPECT_FALSE(IsWfpServiceRunning());
    EXPECT_EQ(Errors(), Texts{});
    EXPECT_EQ(OpenHandles(), 0U);
}

TEST_F(ServiceControl, NothingIsInstalledOrRunsWhenTheManagerCannotBeOpened) {
    Put(kWfp, kRunning);
    (void)faults().FailEvery("OpenSCManagerW", ERROR_ACCESS_DENIED);
    EXPECT_FALSE(IsWfpServiceInstalled());
    EXPECT_FALSE(IsWfpServiceRunning());
    EXPECT_FALSE(IsNdisServiceRunning());
}

}  // namespace
