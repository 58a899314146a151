// The firewall's service on old systems, as the two switches check it, start it and stop it.

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "FirewallFixture.h"
#include "LogCollector.h"
#include "ServiceFunctions.h"

namespace {

using Simulator::ServiceStatus;

constexpr ServiceStatus kStopped{SERVICE_STOPPED};
constexpr ServiceStatus kRunning{SERVICE_RUNNING};
constexpr ServiceStatus kStartPending{SERVICE_START_PENDING};
constexpr ServiceStatus kStopPending{SERVICE_STOP_PENDING};
const Lines kServiceOn{"EnableFirewall()", kOldStart, kStarting};
const Lines kRestored{"Turning Windows Firewall back on, previous Setting was 1", "put_FirewallEnabled true"};
const Lines kNotStarted{"StartFirewallService returned false when enabling windows firewall"};

/// EnableNativeFirewall starts the service and, if it did not run, stops it again; DisableNativeFirewall only checks
/// it.
class FirewallService : public OldFirewallFixture {
protected:
    FirewallService() { PutFlag(MaskFlag(1)); }

    /// The log of a restore whose start of the service fails.
    static Lines Failing(const Lines &log) { return kServiceOn + log + kNotStarted; }
    Lines Arguments(const std::string &function) {
        Lines arguments;
        for (const Simulator::JournalEntry &entry : simulation().GetJournal().Entries()) {
            if (entry.function == function)
                arguments.push_back(entry.arguments.substr(entry.arguments.find(',') + 2));
        }
        return arguments;
    }
    [[nodiscard]] DWORD State() { return OldService().status.state; }
    void ExpectHandlesClosed() {
        EXPECT_EQ(Left().count(Simulator::Kind::kService), 0U) << Left().at(Simulator::Kind::kService);
    }
};

TEST_F(FirewallService, IsOpenedWithMinimalAccess) {
    PutService({.status = kStopped});
    (void)TurnOn();
    EXPECT_EQ(Arguments("OpenSCManagerW"), (Lines{"null, 131072", "null, 131072"}));
    EXPECT_EQ(Arguments("OpenServiceW"), (Lines{"\"SharedAccess\", 22", "\"SharedAccess\", 36"}));
    EXPECT_EQ(Arguments("StartServiceW"), Lines{"0, null"});
}

TEST_F(FirewallService, CannotBeStartedWithoutTheServiceManager) {
    (void)faults().FailNth("OpenSCManagerW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(TurnOn(), Failing({"Error opening service control manager: 0x000005"}));
    ExpectHandlesClosed();
}

TEST_F(FirewallService, CannotBeStartedWhenItCannotBeOpened) {
    (void)faults().FailNth("OpenServiceW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(TurnOn(), Failing({"Error opening 'SharedAccess' service: 0x000005"}));
    ExpectHandlesClosed();
}

TEST_F(FirewallService, CannotBeStartedWhenItCannotBeQueried) {
    PutService({.status = kStopped});
    for (unsigned nth = 1; nth <= 2; ++nth) {
        PutService({.status = kStopped});
        (void)faults().FailNth("QueryServiceStatus", nth, ERROR_INVALID_HANDLE);
        EXPECT_EQ(TurnOn(), Failing({"Error querying 'SharedAccess' service: 0x000006"}));
        ExpectHandlesClosed();
        faults().Clear();
    }
}

TEST_F(FirewallService, CountsAsRunningWhenItIsMissing) {
    simulation().GetServices().Remove(kOldService);
    EXPECT_EQ(
        TurnOn(),
        kServiceOn + Lines{"Service 'SharedAccess' doesn't exist. Continuing without trying to start it."} + kRestored);
    ExpectHandlesClosed();
}

TEST_F(FirewallService, IsWaitedForWhileItStartsEvenWhenItIsOnlyChecked) {
    PutService({.status = kStartPending, .coming = {kStartPending, kStartPending, kStartPending, kRunning}});
    (void)TurnOff();
    EXPECT_EQ(TookMs(), 3000U);
    EXPECT_EQ(Calls("Sleep").size(), 3U);
    EXPECT_EQ(CurrentProfile(), VARIANT_FALSE) << "it was running in the end";
    ExpectHandlesClosed();
}

TEST_F(FirewallService, StartsWithoutAPauseBeforeTheNextQuery) {
    PutService({.status = kStopped});
    (void)TurnOn();
    EXPECT_EQ(Calls("Sleep").size(), 0U) << "it stops at once, too";
    EXPECT_EQ(TookMs(), 0U);
}

TEST_F(FirewallService, IsGivenUpAfterTenMinutesOfStarting) {
    PutService({.status = kStartPending, .coming = {}});
    EXPECT_EQ(TurnOff(), (Lines{"DisableFirewall()", kOldStart, kStarting,
                                "Timed out waiting for service 'SharedAccess' to enter the 'running' state",
                                "StartFirewallService returned false when disabling windows firewall"}));
    EXPECT_EQ(Calls("QueryServiceStatus").size(), 600U);
    EXPECT_EQ(TookMs(), 600'000U);
    ExpectHandlesClosed();
}

TEST_F(FirewallService, IsPolledWithoutAPauseWhileItStops) {
    PutService({.status = kStopPending});
    EXPECT_EQ(TurnOn(), Failing({"Timed out waiting for service 'SharedAccess' to enter the 'running' state"}));
    EXPECT_EQ(Calls("QueryServiceStatus").size(), 600U);
    EXPECT_EQ(TookMs(), 0U);
    ExpectHandlesClosed();
}

TEST_F(FirewallService, IsStartedOnceItHasStopped) {
    PutService({.status = kStopPending, .coming = {kStopPending, kStopPending, kStopped}});
    EXPECT_EQ(TurnOn(), kServiceOn + kRestored + Lines{kStopping});
    EXPECT_EQ(Calls("StartServiceW").size(), 1U);
}

TEST_F(FirewallService, IsPolledWithoutAPauseWhileItIsPaused) {
    PutService({.status = {SERVICE_PAUSED}});
    EXPECT_EQ(TurnOn(), Failing({"Timed out waiting for service 'SharedAccess' to enter the 'running' state"}));
    EXPECT_EQ(TookMs(), 0U);
}

TEST_F(FirewallService, ReportsItsExitCodesWhenItStopsRightAfterItsStart) {
    const ServiceStatus died{
        .state = SERVICE_STOPPED, .exitCode = ERROR_SERVICE_SPECIFIC_ERROR, .specificExitCode = 42};
    PutService({.starting = {kStartPending, kStartPending, died}});
    EXPECT_EQ(TurnOn(), Failing({"Service 'SharedAccess' stopped with Windows error code 0x00042a, service-specific "
                                 "code 0x00002a"}));
    EXPECT_EQ(TookMs(), 2000U);
    EXPECT_EQ(Calls("StartServiceW").size(), 1U);
    EXPECT_EQ(Flag(), MaskFlag(1));
    ExpectHandlesClosed();
}

TEST_F(FirewallService, PrintsExitCodesOfZeroInFull) {
    PutService({.starting = {kStopped}});
    EXPECT_EQ(TurnOn(), Failing({"Service 'SharedAccess' stopped with Windows error code 00000000, service-specific "
                                 "code 00000000"}));
}

TEST_F(FirewallService, IsNotStoppedAgainIfItHasStoppedByItself) {
    PutService({.status = kStopped, .starting = {kRunning, kStopped}});
    EXPECT_EQ(TurnOn(), kServiceOn + kRestored + Lines{kStopping});
    EXPECT_EQ(Calls("ControlService"), Lines());
    EXPECT_EQ(Left(), (LeftThings{{"service handle", 2}})) << "a service that is found stopped leaves its handles";
}

TEST_F(FirewallService, LogsWhyItCannotBeStarted) {
    PutService({.startError = ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(TurnOn(), Failing({"Error starting 'SharedAccess' service: 0x000003"}));
    ExpectHandlesClosed();
}

TEST_F(FirewallService, IsEnabledOnlyForItsStartWhenItIsDisabled) {
    PutService({.status = kStopped, .startType = SERVICE_DISABLED});
    EXPECT_EQ(TurnOn(), kServiceOn + Lines{"Service 'SharedAccess' is disabled - attempting to enable it."} +
                            kRestored + Lines{kStopping});
    const std::string rest = ", 4294967295, null, null, null, null, null, null, null";
    EXPECT_EQ(Arguments("ChangeServiceConfigW"), (Lines{"4294967295, 3" + rest, "4294967295, 4" + rest}));
    EXPECT_EQ(Calls("StartServiceW").size(), 2U);
    EXPECT_EQ(OldService().startType, static_cast<DWORD>(SERVICE_DISABLED));
    ExpectHandlesClosed();
}

TEST_F(FirewallService, KeepsRunningDisabledWhenItIsNotStoppedAgain) {
    PutService({.status = kStopped, .controlError = ERROR_ACCESS_DENIED, .startType = SERVICE_DISABLED});
    (void)TurnOn();
    EXPECT_EQ(State(), static_cast<DWORD>(SERVICE_RUNNING));
    EXPECT_EQ(OldService().startType, static_cast<DWORD>(SERVICE_DISABLED));
}

TEST_F(FirewallService, StaysDisabledWhenItCannotBeEnabled) {
    PutService({.startType = SERVICE_DISABLED, .configError = ERROR_ACCESS_DENIED});
    EXPECT_EQ(TurnOn(), Failing({"Service 'SharedAccess' is disabled - attempting to enable it.",
                                 "Error enabling 'SharedAccess' service: 0x000005"}));
    EXPECT_EQ(Calls("StartServiceW").size(), 1U);
    ExpectHandlesClosed();
}

TEST_F(FirewallService, IsDisabledAgainWhenItsStartFails) {
    PutService({.startType = SERVICE_DISABLED});
    (void)faults().FailNth("StartServiceW", 2, ERROR_SERVICE_LOGON_FAILED);
    EXPECT_EQ(TurnOn(), Failing({"Service 'SharedAccess' is disabled - attempting to enable it.",
                                 "Error starting 'SharedAccess' service after enabling it: 0x00042d"}));
    EXPECT_EQ(OldService().startType, static_cast<DWORD>(SERVICE_DISABLED));
    ExpectHandlesClosed();
}

TEST_F(FirewallService, ReportsTheErrorOfItsStartEvenWhenItCannotBeDisabledAgain) {
    PutService({.startType = SERVICE_DISABLED});
    (void)faults().FailNth("StartServiceW", 2, ERROR_SERVICE_LOGON_FAILED);
    (void)faults().FailNth("ChangeServiceConfigW", 2, ERROR_ACCESS_DENIED);
    EXPECT_EQ(TurnOn(), Failing({"Service 'SharedAccess' is disabled - attempting to enable it.",
                                 "Error starting 'SharedAccess' service after enabling it: 0x00042d"}));
}

TEST_F(FirewallService, ContinuesWhenItCannotBeDisabledAgain) {
    PutService({.status = kStopped, .startType = SERVICE_DISABLED});
    (void)faults().FailNth("ChangeServiceConfigW", 2, ERROR_ACCESS_DENIED);
    EXPECT_EQ(TurnOn(), kServiceOn + Lines{"Service 'SharedAccess' is disabled - attempting to enable it."} +
                            kRestored + Lines{kStopping});
    EXPECT_EQ(CurrentProfile(), VARIANT_TRUE);
}

TEST_F(FirewallService, IsNotEnabledWhenItIsOnlyChecked) {
    PutService({.status = kStopped, .startType = SERVICE_DISABLED});
    EXPECT_EQ(TurnOff().back(), "Windows firewall(SharedService) is not enabled");
    EXPECT_EQ(Calls("StartServiceW"), Lines());
    EXPECT_EQ(Calls("ChangeServiceConfigW"), Lines());
}

TEST_F(FirewallService, IsWaitedForAtMostAMinuteWhileItStops) {
    PutService({.status = kStopped, .stopping = {kStopPending}});
    EXPECT_EQ(TurnOn(), (kServiceOn + kRestored + Lines{kStopping, "Unable to stop 'SharedAccess' service"}));
    EXPECT_EQ(TookMs(), 60'000U);
    EXPECT_EQ(Calls("QueryServiceStatus").size(), 2U + 1U + 60U) << "to start it, to check it, to wait for it";
    ExpectHandlesClosed();
}

TEST_F(FirewallService, IsPolledOnceASecondWhileItStops) {
    PutService({.status = kStopped, .stopping = {kStopPending, kStopPending, kStopped}});
    EXPECT_EQ(TurnOn(), kServiceOn + kRestored + Lines{kStopping});
    EXPECT_EQ(TookMs(), 2000U);
    EXPECT_EQ(State(), static_cast<DWORD>(SERVICE_STOPPED));
    ExpectHandlesClosed();
}

TEST_F(FirewallService, IsOnlyWaitedForWhenAnotherProgramStopsIt) {
    // The restore finds it running; at the check before the stop it is already stopping.
    PutService({.status = kStopped, .starting = {kRunning, kStopPending, kStopPending, kStopped}});
    EXPECT_EQ(TurnOn(), kServiceOn + kRestored + Lines{kStopping});
    EXPECT_EQ(Calls("ControlService"), Lines());
    EXPECT_EQ(TookMs(), 1000U);
    ExpectHandlesClosed();
}

TEST_F(FirewallService, IsStoppedEvenWhileItIsPaused) {
    PutService({.status = kStopped, .starting = {kRunning, {SERVICE_PAUSED}}});
    EXPECT_EQ(TurnOn(), kServiceOn + kRestored + Lines{kStopping});
    EXPECT_EQ(Arguments("ControlService").size(), 1U);
    EXPECT_EQ(State(), static_cast<DWORD>(SERVICE_STOPPED));
}

TEST_F(FirewallService, NeedsNoStopIfItWasRemovedMeanwhile) {
    PutService({.status = kStopped});
    (void)faults().FailNth("OpenServiceW", 2, ERROR_SERVICE_DOES_NOT_EXIST);
    EXPECT_EQ(TurnOn(), (kServiceOn + kRestored +
                         Lines{kStopping, "Service 'SharedAccess' does not exist - no need to stop it."}));
    ExpectHandlesClosed();
}

TEST_F(FirewallService, IsClosedBeforeItsFailureToStopIsLogged) {
    PutService({.status = kStopped, .stopping = {kStopPending}});
    Lines saidBefore;
    simulation().Functions().Put<Simulator::System::CloseServiceHandle>(
        [&saidBefore](const auto &next, SC_HANDLE handle) {
            saidBefore = saidBefore + TakeTracedMessages("FC-WFW");
            return next(handle);
        });
    EXPECT_EQ(TurnOn(), Lines{"Unable to stop 'SharedAccess' service"});
    EXPECT_EQ(saidBefore, kServiceOn + kRestored + Lines{kStopping});
}

TEST_F(FirewallService, IsClosedBeforeAnyFailedCallOfItsStopIsLogged) {
    const struct {
        const char *function;
        unsigned nth;
        const char *line;
    } failures[] = {
        {"OpenServiceW", 2, "Error opening 'SharedAccess' service: 0x000005"},
        {"QueryServiceStatus", 3, "Error querying 'SharedAccess' service: 0x000005"},
        {"ControlService", 1, "Error stopping 'SharedAccess' service: 0x000005"},
        {"QueryServiceStatus", 4, "Error querying 'SharedAccess' service: 0x000005"},
    };
    simulation().Functions().Put<Simulator::System::CloseServiceHandle>([](const auto &next, SC_HANDLE handle) {
        (void)TakeTracedLines();
        return next(handle);
    });
    for (const auto &failure : failures) {
        PutFlag(MaskFlag(1));
        PutService({.status = kStopped});
        (void)faults().FailNth(failure.function, failure.nth, ERROR_ACCESS_DENIED);
        EXPECT_EQ(TurnOn(), Lines{failure.line}) << failure.function << " " << failure.nth;
        faults().Clear();
    }
}

TEST_F(FirewallService, IsClosedAfterItsFailureToBeQueriedIsLogged) {
    PutService({.status = kStopped});
    Lines saidBefore;
    simulation().Functions().Put<Simulator::System::CloseServiceHandle>(
        [&saidBefore](const auto &next, SC_HANDLE handle) {
            saidBefore = saidBefore + TakeTracedMessages("FC-WFW");
            return next(handle);
        });
    (void)faults().FailNth("QueryServiceStatus", 1, ERROR_INVALID_HANDLE);
    (void)TurnOn();
    EXPECT_EQ(std::count(saidBefore.begin(), saidBefore.end(), "Error querying 'SharedAccess' service: 0x000006"), 1);
}

TEST_F(FirewallService, LogsWhyItCannotBeStopped) {
    const struct {
        const char *function;
        unsigned nth;
        const char *line;
    } failures[] = {
        {"OpenSCManagerW", 2, "Error opening service control manager: 0x000005"},
        {"OpenServiceW", 2, "Error opening 'SharedAccess' service: 0x000005"},
        {"QueryServiceStatus", 3, "Error querying 'SharedAccess' service: 0x000005"},
        {"ControlService", 1, "Error stopping 'SharedAccess' service: 0x000005"},
        {"QueryServiceStatus", 4, "Error querying 'SharedAccess' service: 0x000005"},
    };
    for (const auto &failure : failures) {
        PutFlag(MaskFlag(1));
        PutService({.status = kStopped});
        (void)faults().FailNth(failure.function, failure.nth, ERROR_ACCESS_DENIED);
        EXPECT_EQ(TurnOn(), (kServiceOn + kRestored + Lines{kStopping, failure.line}));
        ExpectHandlesClosed();
        EXPECT_EQ(Flag(), std::nullopt);
        faults().Clear();
    }
}

}  // namespace
