// What the stop of the firewall's service tells its caller, of which no script hears.
#include "WindowsFirewall/FirewallService.h"

#include <gtest/gtest.h>

#include "FirewallFixture.h"
#include "LogCollector.h"
#include "WindowsFirewall/FirewallVersionRecord.h"
#include "vta_core_control.h"

namespace {

using Simulator::ServiceStatus;

class StopOfTheService : public FirewallFixture {
protected:
    struct Told {
        bool stopped;
        bool wasRunning;
        bool operator==(const Told &) const = default;
    };
    /// What the stop of a service in this state tells, whatever the caller's variable was before.
    Told StopIn(DWORD state) {
        PutService({.status = {state}});
        bool wasRunning = state != SERVICE_RUNNING;
        const bool stopped = WindowsFirewall::StopService(&wasRunning);
        return {stopped, wasRunning};
    }
};

TEST_F(StopOfTheService, TellsThatItRanIfItWasRunningAndInNoOtherState) {
    EXPECT_EQ(StopIn(SERVICE_RUNNING), (Told{true, true}));
    EXPECT_EQ(StopIn(SERVICE_PAUSED), (Told{true, false}));
    EXPECT_EQ(StopIn(SERVICE_STOPPED), (Told{true, false}));
    EXPECT_EQ(StopIn(SERVICE_START_PENDING), (Told{false, false})) << "it can't be stopped yet";
}

TEST_F(StopOfTheService, TellsThatItRanAlsoWhereItCannotBeStopped) {
    (void)faults().FailNth("ControlService", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(StopIn(SERVICE_RUNNING), (Told{false, true}));
}

TEST_F(StopOfTheService, TellsThatItDidNotRunWhereItCannotBeAsked) {
    for (const char *function : {"OpenSCManagerW", "OpenServiceW", "QueryServiceStatus"}) {
        (void)faults().FailNth(function, 1, ERROR_ACCESS_DENIED);
        EXPECT_EQ(StopIn(SERVICE_PAUSED), (Told{false, false})) << function;
        faults().Clear();
    }
    (void)faults().FailNth("OpenServiceW", 1, ERROR_SERVICE_DOES_NOT_EXIST);
    EXPECT_EQ(StopIn(SERVICE_PAUSED), (Told{true, false})) << "there is none to stop";
}

/// The stop as it follows a restore, by the version of Windows that was recorded in this program.
class StopAfterARestore : public FirewallFixture {
protected:
    ~StopAfterARestore() override { WindowsFirewall::osVersionRecord = m_before; }

    /// What a stop traces.
    Lines StopOn(DWORD majorVersion) {
        PutService({.status = {SERVICE_RUNNING}});
        WindowsFirewall::osVersionRecord.dwMajorVersion = majorVersion;
        VtaCore::Control::EnableTrace("FC-WFW", true);
        (void)TakeTracedMessages();
        WindowsFirewall::StopFirewallService(&wasRunning);
        return TakeTracedMessages("FC-WFW");
    }

    bool wasRunning = false;

private:
    const OSVERSIONINFOEXW m_before = WindowsFirewall::osVersionRecord;
};

TEST_F(StopAfterARestore, IsNotNeededFromVistaOn) {
    for (const DWORD major : {6UL, 10UL}) {
        EXPECT_EQ(StopOn(major), Lines{"OS is Vista or greater - no need to stop the SharedAccess service."});
        EXPECT_EQ(faults().Calls("OpenSCManagerW"), 0U);
        EXPECT_FALSE(wasRunning) << "what it was before";
    }
}

TEST_F(StopAfterARestore, StopsTheServiceBeforeVista) {
    EXPECT_EQ(StopOn(5), Lines{kStopping});
    EXPECT_EQ(faults().Calls("OpenSCManagerW"), 1U);
    EXPECT_TRUE(wasRunning);
}

}  // namespace
