#include "FirewallService.h"

#include <memory>
#include <type_traits>

#include "FirewallLog.h"

namespace WindowsFirewall {

OSVERSIONINFOEXW osVersionRecord;

namespace {

constexpr wchar_t kService[] = L"SharedAccess";
constexpr int kStartPolls = 600;
constexpr int kStopPolls = 60;
constexpr DWORD kPauseMs = 1'000;

struct CloseService {
    void operator()(SC_HANDLE handle) const { (void)CloseServiceHandle(handle); }
};
using Handle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, CloseService>;

/// The firewall's service, with the service manager that it was opened by.
struct Service {
    Handle manager;
    Handle service;  ///< Closed first.

    void Close() {
        service.reset();
        manager.reset();
    }
    /// Leaves both open.
    void Abandon() {
        (void)service.release();
        (void)manager.release();
    }
};

constexpr char kQueryFailed[] = "Error querying '%.64s' service: %#08x";

/// Traces a failure. @return false.
bool Failed(const TraceLine &line, const char *format, DWORD error) {
    Trace(line, format, kService, static_cast<unsigned>(error));
    return false;
}

/// Closes the service, then traces the failure of the last call. @return false.
bool FailedAndClosed(Service &opened, const TraceLine &line, const char *format) {
    const DWORD error = GetLastError();
    opened.Close();
    return Failed(line, format, error);
}

/// @param access         to the service.
/// @param withoutService  what is traced where there is no such service.
/// @param result          when it could not be opened: true where there is none, false after a failure.
bool Open(Service &opened, DWORD access, const char *withoutService, bool *result, const TraceSite &site) {
    *result = false;
    opened.manager.reset(OpenSCManagerW(nullptr, nullptr, STANDARD_RIGHTS_READ));
    if (!opened.manager) {
        const DWORD error = GetLastError();
        Trace(site, "Error opening service control manager: %#08x", static_cast<unsigned>(error));
        return false;
    }
    opened.service.reset(OpenServiceW(opened.manager.get(), kService, access));
    if (opened.service)
        return true;
    const DWORD error = GetLastError();
    opened.Close();
    if (error != ERROR_SERVICE_DOES_NOT_EXIST)
        return Failed(site, "Error opening '%.64s' service: %#08x", error);
    // compat 149: a missing service is a success; where it was to be started, it counts as running
    Trace(site, withoutService, kService);
    *result = true;
    return false;
}

bool SetStartType(const Handle &service, DWORD startType) {
    return ChangeServiceConfigW(service.get(), SERVICE_NO_CHANGE, startType, SERVICE_NO_CHANGE, nullptr, nullptr,
                                nullptr, nullptr, nullptr, nullptr, nullptr) != 0;
}

/// compat 147: never leaves the service enabled; it runs on with its start type as found
bool StartDisabled(const Handle &service, const TraceSite &site) {
    Trace(site, "Service '%.64s' is disabled - attempting to enable it.", kService);
    if (!SetStartType(service, SERVICE_DEMAND_START))
        return Failed(site, "Error enabling '%.64s' service: %#08x", GetLastError());
    const bool started = ::StartServiceW(service.get(), 0, nullptr) != 0;
    const DWORD error = GetLastError();
    (void)SetStartType(service, SERVICE_DISABLED);
    return started || Failed(site, "Error starting '%.64s' service after enabling it: %#08x", error);
}

bool StartStopped(const Handle &service, const TraceSite &site) {
    if (::StartServiceW(service.get(), 0, nullptr) != 0)
        return true;
    const DWORD error = GetLastError();
    return error == ERROR_SERVICE_DISABLED ? StartDisabled(service, site)
                                           : Failed(site, "Error starting '%.64s' service: %#08x", error);
}

}  // namespace

void FillOsVersionRecord() {
    // compat 144: the size marks the record as filled, even if the version can't be read
    constexpr DWORD filled = sizeof(OSVERSIONINFOW);
    static_assert(filled == 276);
    if (osVersionRecord.dwOSVersionInfoSize == filled)
        return;
    osVersionRecord.dwOSVersionInfoSize = filled;
    (void)GetVersionExW(reinterpret_cast<OSVERSIONINFOW *>(&osVersionRecord));
}

bool IsVistaOrLater() {
    return osVersionRecord.dwMajorVersion >= 6;
}

bool StartFirewallService(bool *running, bool start) {
    *running = true;
    if (!IsVistaOrLater()) {
        Trace(kFirewallTrace, "Windows version is %d, which is less than Vista, attempting to start service",
              static_cast<int>(osVersionRecord.dwMajorVersion));
        return StartServiceW(running, start);
    }
    Trace(kFirewallTrace, "OS is Vista or greater - no need to start the SharedAccess service.");
    return true;
}

void StopFirewallService(bool *wasRunning) {
    if (!IsVistaOrLater())
        (void)StopService(wasRunning);
    else
        Trace(kFirewallTrace, "OS is Vista or greater - no need to stop the SharedAccess service.");
}

bool StartServiceW(bool *running, bool start) {
    const TraceSite site(kFirewallTrace);
    Trace(site, "Starting '%.64s' service...", kService);
    Service opened;
    bool result = false;
    if (!Open(opened, SERVICE_CHANGE_CONFIG | SERVICE_QUERY_STATUS | SERVICE_START,
              "Service '%.64s' doesn't exist. Continuing without trying to start it.", &result, site))
        return result;
    *running = true;
    bool attempted = false;
    for (int poll = 0; poll < kStartPolls; ++poll) {
        SERVICE_STATUS status = {};
        if (QueryServiceStatus(opened.service.get(), &status) == 0)
            return Failed(site, kQueryFailed, GetLastError());  // the failures of a start are told before it is closed
        if (status.dwCurrentState == SERVICE_RUNNING)
            return true;  // compat 148: `running` stays false if it was seen stopped before
        // compat 153: waits for a starting service even if it is only to be checked
        if (status.dwCurrentState == SERVICE_START_PENDING)
            Sleep(kPauseMs);
        if (status.dwCurrentState != SERVICE_STOPPED)
            continue;  // compat 145: any other state is polled without a pause
        *running = false;
        if (!start) {
            opened.Abandon();  // compat 146: leaves both handles open
            return true;
        }
        if (attempted) {
            Trace(site, "Service '%.64s' stopped with Windows error code %#08x, service-specific code %#08x", kService,
                  static_cast<unsigned>(status.dwWin32ExitCode),
                  static_cast<unsigned>(status.dwServiceSpecificExitCode));
            return false;
        }
        attempted = true;
        if (!StartStopped(opened.service, site))
            return false;
    }
    opened.Close();
    Trace(site, "Timed out waiting for service '%.64s' to enter the 'running' state", kService);
    return false;
}

bool StopService(bool *wasRunning) {
    const TraceSite site(kFirewallTrace);
    Trace(site, "Stopping '%.64s' service...", kService);
    *wasRunning = false;
    Service opened;
    bool result = false;
    if (!Open(opened, SERVICE_QUERY_STATUS | SERVICE_STOP, "Service '%.64s' does not exist - no need to stop it.",
              &result, site))
        return result;
    SERVICE_STATUS status = {};
    if (QueryServiceStatus(opened.service.get(), &status) == 0)
        return FailedAndClosed(opened, site, kQueryFailed);
    if (status.dwCurrentState == SERVICE_STOPPED) {
        opened.Abandon();  // compat 146: leaves both handles open
        return true;
    }
    *wasRunning = status.dwCurrentState == SERVICE_RUNNING;
    if (status.dwCurrentState != SERVICE_STOP_PENDING &&
        ControlService(opened.service.get(), SERVICE_CONTROL_STOP, &status) == 0)
        return FailedAndClosed(opened, site, "Error stopping '%.64s' service: %#08x");
    for (int poll = 0; poll < kStopPolls; ++poll) {
        if (QueryServiceStatus(opened.service.get(), &status) == 0)
            return FailedAndClosed(opened, site, kQueryFailed);
        if (status.dwCurrentState == SERVICE_STOPPED)
            return true;
        Sleep(kPauseMs);
    }
    opened.Close();
    Trace(site, "Unable to stop '%.64s' service", kService);
    return false;
}

}  // namespace WindowsFirewall
