#include "ServiceControl.h"

#include <algorithm>
#include <memory>
#include <type_traits>

#include <wx/log.h>

namespace {

constexpr wchar_t kNdisService[] = L"qbimvta";
constexpr wchar_t kWfpService[] = L"qbimwfp";
constexpr DWORD kWaitMs = 30'000;

struct CloseService {
    void operator()(SC_HANDLE handle) const { (void)CloseServiceHandle(handle); }
};
using Service = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, CloseService>;

Service OpenManager() {
    return Service(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
}

Service OpenDriver(const Service &manager, const wchar_t *name) {
    return Service(OpenServiceW(manager.get(), name, SERVICE_ALL_ACCESS));
}

bool IsRunning(const wchar_t *name) {
    const Service manager = OpenManager();
    if (!manager)
        return false;
    const Service service = OpenDriver(manager, name);
    SERVICE_STATUS status = {};
    return service && QueryServiceStatus(service.get(), &status) != 0 && status.dwCurrentState == SERVICE_RUNNING;
}

/// What a start and a stop do differently.
struct Action {
    bool (*act)(SC_HANDLE service);
    const char *failure;  ///< The log's text.
    DWORD harmlessError;  ///< The service is in that state already.
    DWORD awaitedState;
};

constexpr Action kStart = {[](SC_HANDLE service) { return StartServiceW(service, 0, nullptr) != 0; },
                           "StartService: error=%d", ERROR_SERVICE_ALREADY_RUNNING, SERVICE_RUNNING};
constexpr Action kStop = {[](SC_HANDLE service) {
                              SERVICE_STATUS status = {};
                              return ControlService(service, SERVICE_CONTROL_STOP, &status) != 0;
                          },
                          "ControlService: error=%d", ERROR_SERVICE_NOT_ACTIVE, SERVICE_STOPPED};

/// Logs the last error. @return it.
DWORD LogLastError(const char *format) {
    const DWORD error = GetLastError();
    wxLogError(format, static_cast<int>(error));
    return error;
}

bool Perform(const Action &action, const wchar_t *name, bool wait) {
    if (IsRunning(name) == (action.awaitedState == SERVICE_RUNNING))
        return true;
    const Service manager = OpenManager();
    if (!manager) {
        (void)LogLastError("OpenSCManager: error=%d");
        return false;
    }
    const Service service = OpenDriver(manager, name);
    if (!service) {
        (void)LogLastError("OpenService: error=%d");
        return true;
    }
    if (!action.act(service.get()))
        return LogLastError(action.failure) == action.harmlessError;
    if (!wait || WaitForServiceState(service.get(), action.awaitedState))
        return true;
    (void)LogLastError("WaitForServiceState: error=%d");
    return false;
}

bool Restart(const wchar_t *name, bool wait) {
    return Perform(kStop, name, wait) && Perform(kStart, name, wait);
}

/// How long to wait before the next look, in milliseconds: a tenth of what the service hints at.
DWORD PauseFor(const SERVICE_STATUS &status) {
    constexpr DWORD shortest = 1'000;
    constexpr DWORD longest = 10'000;
    return std::clamp(status.dwWaitHint / 10, shortest, longest);
}

}  // namespace

bool StartWFPCallout(bool wait) {
    return Perform(kStart, kWfpService, wait);
}

bool StopWFPCallout(bool wait) {
    return Perform(kStop, kWfpService, wait);
}

bool RestartWFPCallout(bool wait) {
    return Restart(kWfpService, wait);
}

bool StartNDISDriver(bool wait) {
    return Perform(kStart, kNdisService, wait);
}

bool StopNDISDriver(bool wait) {
    return Perform(kStop, kNdisService, wait);
}

bool RestartNDISDriver(bool wait) {
    return Restart(kNdisService, wait);
}

bool IsWfpServiceInstalled() {
    const Service manager = OpenManager();
    return manager && OpenDriver(manager, kWfpService);
}

bool DeleteWfpService() {
    const Service manager = OpenManager();
    if (!manager) {
        (void)LogLastError("OpenSCManager: error=%d");
        return false;
    }
    const Service service = OpenDriver(manager, kWfpService);
    if (!service) {
        (void)LogLastError("OpenService: error=%d");
        return false;
    }
    if (DeleteService(service.get()) == 0) {
        (void)LogLastError("DeleteService: error=%d");
        return false;
    }
    return true;
}

bool IsNdisServiceRunning() {
    return IsRunning(kNdisService);
}

bool IsWfpServiceRunning() {
    return IsRunning(kWfpService);
}

bool WaitForServiceState(SC_HANDLE service, DWORD state) {
    // compat 128: compared directly, so ticks that wrap end the wait early or late
    const DWORD deadline = GetTickCount() + kWaitMs;
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
        Sleep(PauseFor(status));
        if (QueryServiceStatus(service, &status) == 0)
            return false;
    }
    return true;
}
