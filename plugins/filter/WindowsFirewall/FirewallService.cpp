#include "FirewallService.h"

#include "FirewallTrace.h"
#include "FirewallVersionRecord.h"
#include "common/Unique.h"

namespace WindowsFirewall {

namespace {

constexpr wchar_t kService[] = L"SharedAccess";
constexpr int kStartPolls = 600;
constexpr int kStopPolls = 60;
constexpr DWORD kPauseMs = 1'000;

/// The firewall's service, with the service manager that it was opened by.
struct FirewallServiceHandles {
    TraceSite site;  ///< Of the function in whose name its start or stop is traced.
    UniqueService manager{};
    UniqueService service{};  ///< Closed first.

    void CloseBoth() {
        service.reset();
        manager.reset();
    }
    void LeaveBothOpen() {
        (void)service.release();
        (void)manager.release();
    }
};

constexpr char kQueryFailed[] = "Error querying '%.64s' service: %#08x";

void TraceServiceError(const TraceLine &line, const char *format, DWORD error) {
    Trace(line, format, kService, static_cast<unsigned>(error));
}

/// Closes the service, then traces the last error.
void CloseAndTraceLastError(FirewallServiceHandles &opened, const TraceLine &line, const char *format) {
    const DWORD error = GetLastError();
    opened.CloseBoth();
    TraceServiceError(line, format, error);
}

enum class Opening { Opened, NoSuchService, Failed };

/// @param access          to the service.
/// @param withoutService  what is traced where there is no such service.
Opening OpenFirewallService(FirewallServiceHandles &opened, DWORD access, const char *withoutService) {
    opened.manager.reset(OpenSCManagerW(nullptr, nullptr, STANDARD_RIGHTS_READ));
    if (!opened.manager) {
        const DWORD error = GetLastError();
        Trace(opened.site, "Error opening service control manager: %#08x", static_cast<unsigned>(error));
        return Opening::Failed;
    }
    opened.service.reset(OpenServiceW(opened.manager.get(), kService, access));
    if (opened.service)
        return Opening::Opened;
    const DWORD error = GetLastError();
    opened.CloseBoth();
    if (error != ERROR_SERVICE_DOES_NOT_EXIST) {
        TraceServiceError(opened.site, "Error opening '%.64s' service: %#08x", error);
        return Opening::Failed;
    }
    // compat 149: a missing service is a success; where it was to be started, it counts as running
    Trace(opened.site, withoutService, kService);
    return Opening::NoSuchService;
}

bool SetServiceStartType(const UniqueService &service, DWORD startType) {
    return ChangeServiceConfigW(service.get(), SERVICE_NO_CHANGE, startType, SERVICE_NO_CHANGE, nullptr, nullptr,
                                nullptr, nullptr, nullptr, nullptr, nullptr) != 0;
}

/// compat 147: never leaves the service enabled; it runs on with its start type as found
bool StartDisabledService(const FirewallServiceHandles &opened) {
    Trace(opened.site, "Service '%.64s' is disabled - attempting to enable it.", kService);
    if (!SetServiceStartType(opened.service, SERVICE_DEMAND_START)) {
        TraceServiceError(opened.site, "Error enabling '%.64s' service: %#08x", GetLastError());
        return false;
    }
    const bool started = ::StartServiceW(opened.service.get(), 0, nullptr) != 0;
    const DWORD error = GetLastError();
    (void)SetServiceStartType(opened.service, SERVICE_DISABLED);
    if (!started)
        TraceServiceError(opened.site, "Error starting '%.64s' service after enabling it: %#08x", error);
    return started;
}

bool StartStoppedService(const FirewallServiceHandles &opened) {
    if (::StartServiceW(opened.service.get(), 0, nullptr) != 0)
        return true;
    const DWORD error = GetLastError();
    if (error == ERROR_SERVICE_DISABLED)
        return StartDisabledService(opened);
    TraceServiceError(opened.site, "Error starting '%.64s' service: %#08x", error);
    return false;
}

/// Of a service that has stopped after it was started.
void TraceServiceExitCodes(const SERVICE_STATUS &status, const TraceLine &line) {
    Trace(line, "Service '%.64s' stopped with Windows error code %#08x, service-specific code %#08x", kService,
          static_cast<unsigned>(status.dwWin32ExitCode), static_cast<unsigned>(status.dwServiceSpecificExitCode));
}

struct AwaitedService {
    bool succeeded = false;
    bool wasRunning = true;  ///< False once it was seen stopped.
};

/// Polls the service until it runs, for ten minutes at most.
/// @param start  start it, once, when it is seen stopped; otherwise it is left as it is, and that is a success.
AwaitedService AwaitRunningService(FirewallServiceHandles &opened, bool start) {
    AwaitedService result;
    bool attempted = false;
    for (int poll = 0; poll < kStartPolls; ++poll) {
        SERVICE_STATUS status = {};
        if (QueryServiceStatus(opened.service.get(), &status) == 0) {
            // compat 159: traced before it is closed, unlike the failures of a stop
            TraceServiceError(opened.site, kQueryFailed, GetLastError());
            return result;
        }
        if (status.dwCurrentState == SERVICE_RUNNING) {
            result.succeeded = true;  // compat 148: `wasRunning` stays false if it was seen stopped before
            return result;
        }
        // compat 153: waits for a starting service even if it is only to be checked
        if (status.dwCurrentState == SERVICE_START_PENDING)
            Sleep(kPauseMs);
        if (status.dwCurrentState != SERVICE_STOPPED)
            continue;  // compat 145: any other state is polled without a pause
        result.wasRunning = false;
        if (!start) {
            opened.LeaveBothOpen();  // compat 146: leaves both handles open
            result.succeeded = true;
            return result;
        }
        if (attempted) {
            TraceServiceExitCodes(status, opened.site);
            return result;
        }
        attempted = true;
        if (!StartStoppedService(opened))
            return result;
    }
    opened.CloseBoth();
    Trace(opened.site, "Timed out waiting for service '%.64s' to enter the 'running' state", kService);
    return result;
}

/// Waits for a minute at most. @return false after a line in the trace.
bool AwaitStoppedService(FirewallServiceHandles &opened) {
    for (int poll = 0; poll < kStopPolls; ++poll) {
        SERVICE_STATUS status = {};
        if (QueryServiceStatus(opened.service.get(), &status) == 0) {
            CloseAndTraceLastError(opened, opened.site, kQueryFailed);
            return false;
        }
        if (status.dwCurrentState == SERVICE_STOPPED)
            return true;
        Sleep(kPauseMs);
    }
    opened.CloseBoth();
    Trace(opened.site, "Unable to stop '%.64s' service", kService);
    return false;
}

}  // namespace

bool StartFirewallService(bool *running, bool start) {
    *running = true;
    if (!IsRecordedVersionVistaOrLater()) {
        Trace(kFirewallTrace, "Windows version is %d, which is less than Vista, attempting to start service",
              static_cast<int>(osVersionRecord.dwMajorVersion));
        return StartServiceW(running, start);
    }
    Trace(kFirewallTrace, "OS is Vista or greater - no need to start the SharedAccess service.");
    return true;
}

bool IsFirewallServiceRunning(bool *running) {
    return StartFirewallService(running, false);
}

bool EnsureFirewallServiceRuns(bool *wasRunning) {
    return StartFirewallService(wasRunning, true);
}

void StopFirewallService(bool *wasRunning) {
    // not reached: from Vista on the service counts as running before, and nobody stops it
    if (!IsRecordedVersionVistaOrLater())
        (void)StopService(wasRunning);
    // not reached: the same
    else
        Trace(kFirewallTrace, "OS is Vista or greater - no need to stop the SharedAccess service.");
}

bool StartServiceW(bool *running, bool start) {
    FirewallServiceHandles opened{kFirewallTrace};
    Trace(opened.site, "Starting '%.64s' service...", kService);
    const Opening opening =
        OpenFirewallService(opened, SERVICE_CHANGE_CONFIG | SERVICE_QUERY_STATUS | SERVICE_START,
                            "Service '%.64s' doesn't exist. Continuing without trying to start it.");
    if (opening != Opening::Opened)
        return opening == Opening::NoSuchService;
    const AwaitedService awaited = AwaitRunningService(opened, start);
    *running = awaited.wasRunning;
    return awaited.succeeded;
}

bool StopService(bool *wasRunning) {
    FirewallServiceHandles opened{kFirewallTrace};
    Trace(opened.site, "Stopping '%.64s' service...", kService);
    *wasRunning = false;
    const Opening opening = OpenFirewallService(opened, SERVICE_QUERY_STATUS | SERVICE_STOP,
                                                "Service '%.64s' does not exist - no need to stop it.");
    if (opening != Opening::Opened)
        return opening == Opening::NoSuchService;
    SERVICE_STATUS status = {};
    if (QueryServiceStatus(opened.service.get(), &status) == 0) {
        CloseAndTraceLastError(opened, opened.site, kQueryFailed);
        return false;
    }
    if (status.dwCurrentState == SERVICE_STOPPED) {
        opened.LeaveBothOpen();  // compat 146: leaves both handles open
        return true;
    }
    *wasRunning = status.dwCurrentState == SERVICE_RUNNING;
    if (status.dwCurrentState != SERVICE_STOP_PENDING &&
        ControlService(opened.service.get(), SERVICE_CONTROL_STOP, &status) == 0) {
        CloseAndTraceLastError(opened, opened.site, "Error stopping '%.64s' service: %#08x");
        return false;
    }
    return AwaitStoppedService(opened);
}

}  // namespace WindowsFirewall
