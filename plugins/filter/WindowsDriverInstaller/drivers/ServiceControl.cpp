#include "ServiceControl.h"

#include <algorithm>

#include <wx/log.h>

#include "common/Unique.h"

namespace {

constexpr wchar_t kNdisService[] = L"qbimvta";
constexpr wchar_t kWfpService[] = L"qbimwfp";
constexpr DWORD kStateWaitMs = 30'000;

UniqueService OpenServiceManager() {
    return UniqueService(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
}

UniqueService OpenDriverService(const UniqueService &manager, const wchar_t *name) {
    return UniqueService(OpenServiceW(manager.get(), name, SERVICE_ALL_ACCESS));
}

/// Logs the last error. @return it.
DWORD LogServiceError(const char *format) {
    const DWORD error = GetLastError();
    wxLogError(format, static_cast<int>(error));
    return error;
}

/// Logs a failure. @return null if it can't be opened.
UniqueService OpenServiceManagerOrLog() {
    UniqueService manager = OpenServiceManager();
    if (!manager)
        (void)LogServiceError("OpenSCManager: error=%d");
    return manager;
}

/// The same for a driver's service.
UniqueService OpenDriverServiceOrLog(const UniqueService &manager, const wchar_t *name) {
    UniqueService service = OpenDriverService(manager, name);
    if (!service)
        (void)LogServiceError("OpenService: error=%d");
    return service;
}

bool IsServiceRunning(const wchar_t *name) {
    const UniqueService manager = OpenServiceManager();
    if (!manager)
        return false;
    const UniqueService service = OpenDriverService(manager, name);
    SERVICE_STATUS status = {};
    return service && QueryServiceStatus(service.get(), &status) != 0 && status.dwCurrentState == SERVICE_RUNNING;
}

/// How starting and stopping differ.
struct ServiceChange {
    bool (*act)(SC_HANDLE service);
    const char *failure;  ///< The line in the log.
    DWORD harmlessError;  ///< The service is in that state already.
    DWORD awaitedState;
};

constexpr ServiceChange kStartService = {[](SC_HANDLE service) { return StartServiceW(service, 0, nullptr) != 0; },
                                         "StartService: error=%d", ERROR_SERVICE_ALREADY_RUNNING, SERVICE_RUNNING};
constexpr ServiceChange kStopService = {[](SC_HANDLE service) {
                                            SERVICE_STATUS status = {};
                                            return ControlService(service, SERVICE_CONTROL_STOP, &status) != 0;
                                        },
                                        "ControlService: error=%d", ERROR_SERVICE_NOT_ACTIVE, SERVICE_STOPPED};

bool ChangeServiceState(const ServiceChange &change, const wchar_t *name, bool wait) {
    if (IsServiceRunning(name) == (change.awaitedState == SERVICE_RUNNING))
        return true;
    const UniqueService manager = OpenServiceManagerOrLog();
    if (!manager)
        return false;
    const UniqueService service = OpenDriverServiceOrLog(manager, name);
    if (!service)
        return true;
    if (!change.act(service.get()))
        return LogServiceError(change.failure) == change.harmlessError;
    if (!wait || WaitForServiceState(service.get(), change.awaitedState))
        return true;
    (void)LogServiceError("WaitForServiceState: error=%d");
    return false;
}

bool RestartDriverService(const wchar_t *name, bool wait) {
    return ChangeServiceState(kStopService, name, wait) && ChangeServiceState(kStartService, name, wait);
}

/// How long to wait before the next query, in milliseconds: a tenth of what the service hints at.
DWORD PauseUntilNextServiceQuery(const SERVICE_STATUS &status) {
    constexpr DWORD shortest = 1'000;
    constexpr DWORD longest = 10'000;
    return std::clamp(status.dwWaitHint / 10, shortest, longest);
}

}  // namespace

bool StartWFPCallout(bool wait) {
    return ChangeServiceState(kStartService, kWfpService, wait);
}

bool StopWFPCallout(bool wait) {
    return ChangeServiceState(kStopService, kWfpService, wait);
}

bool RestartWFPCallout(bool wait) {
    return RestartDriverService(kWfpService, wait);
}

bool StartNDISDriver(bool wait) {
    return ChangeServiceState(kStartService, kNdisService, wait);
}

bool StopNDISDriver(bool wait) {
    return ChangeServiceState(kStopService, kNdisService, wait);
}

bool RestartNDISDriver(bool wait) {
    return RestartDriverService(kNdisService, wait);
}

bool IsWfpServiceInstalled() {
    const UniqueService manager = OpenServiceManager();
    return manager && OpenDriverService(manager, kWfpService);
}

bool DeleteWfpService() {
    const UniqueService manager = OpenServiceManagerOrLog();
    if (!manager)
        return false;
    const UniqueService service = OpenDriverServiceOrLog(manager, kWfpService);
    if (!service)
        return false;
    if (DeleteService(service.get()) == 0) {
        (void)LogServiceError("DeleteService: error=%d");
        return false;
    }
    return true;
}

// not reached: nothing in the module calls it
bool IsNdisServiceRunning() {
    return IsServiceRunning(kNdisService);
}

// not reached: the same
bool IsWfpServiceRunning() {
    return IsServiceRunning(kWfpService);
}

bool WaitForServiceState(SC_HANDLE service, DWORD state) {
    // compat 128: compared directly, so ticks that wrap end the wait early or late
    const DWORD deadline = GetTickCount() + kStateWaitMs;
    SERVICE_STATUS status = {};
    if (QueryServiceStatus(service, &status) == 0)
        return false;
    SERVICE_STATUS noted = status;
    while (status.dwCurrentState != state) {
        if (deadline < GetTickCount()) {
            SetLastError(ERROR_TIMEOUT);
            return false;
        }
        if (status.dwCurrentState == noted.dwCurrentState && status.dwCheckPoint < noted.dwCheckPoint)
            return false;  // compat 129: a lower checkpoint; the last error is arbitrary
        noted = status;
        Sleep(PauseUntilNextServiceQuery(status));
        if (QueryServiceStatus(service, &status) == 0)
            return false;
    }
    return true;
}
