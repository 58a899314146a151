// What the stop of the firewall's service tells its caller, of which no script hears.
#include "WindowsFirewall/FirewallService.h"

#include <gtest/gtest.h>

#include "FirewallFixture.h"

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

}  // namespace
