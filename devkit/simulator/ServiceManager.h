// The services of the simulated machine, and their handles.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <windows.h>

#include "AnyCase.h"
#include "Lock.h"

namespace Simulator {

class FunctionSet;

/// The result of a query of a service.
struct ServiceStatus {
    DWORD state = SERVICE_STOPPED;
    DWORD checkPoint = 0;
    DWORD waitHint = 0;  ///< Milliseconds.
    DWORD exitCode = 0;
    DWORD specificExitCode = 0;  ///< Valid if the exit code is ERROR_SERVICE_SPECIFIC_ERROR.

    bool operator==(const ServiceStatus &) const = default;
};

/// A service as a test defines it. Each query first takes the next status of the script that began last, if there is
/// one left; so with a script of one status the service has that status at the first query.
struct Service {
    ServiceStatus status{};
    std::vector<ServiceStatus> starting{{SERVICE_RUNNING}};  ///< The script that a start begins.
    std::vector<ServiceStatus> stopping{{SERVICE_STOPPED}};  ///< The script that a stop begins.
    DWORD startError = ERROR_SUCCESS;                        ///< The error of each start.
    DWORD controlError = ERROR_SUCCESS;                      ///< The error of each stop.
    DWORD deleteError = ERROR_SUCCESS;                       ///< The error of each deletion.
    bool markedForDelete = false;                            ///< It is removed when the last handle to it is closed.
    std::vector<ServiceStatus> coming{};                     ///< The rest of the script.
    DWORD startType = SERVICE_DEMAND_START;                  ///< A disabled service can't be started.
    DWORD configError = ERROR_SUCCESS;                       ///< The error of each change of its configuration.
};

/// Services by name, case-insensitive. Handles are never reused, not even in a later simulation. The functions behave
/// like those of advapi32.dll, with the last error, and do not change output parameters when they fail. Any thread.
class ServiceManager {
public:
    /// Adds the service, or replaces it.
    void Put(const std::wstring &name, Service service);
    /// From now on calls with open handles fail with ERROR_SERVICE_MARKED_FOR_DELETE.
    void Remove(const std::wstring &name);
    /// @throws std::out_of_range  if there is no such service.
    [[nodiscard]] Service Get(const std::wstring &name) const;
    /// Including those marked for deletion.
    [[nodiscard]] bool Has(const std::wstring &name) const;

    /// What a boot does: those that are marked for deletion are gone, nobody has a handle, and those that start with
    /// the system run; others don't.
    void Boot();

    SC_HANDLE Open(const wchar_t *machine, const wchar_t *database, DWORD access);
    SC_HANDLE OpenOne(SC_HANDLE manager, const wchar_t *name, DWORD access);
    BOOL Close(SC_HANDLE handle);
    BOOL Start(SC_HANDLE handle);
    /// @param startType  or SERVICE_NO_CHANGE.
    BOOL ChangeStartType(SC_HANDLE handle, DWORD startType);
    /// SERVICE_CONTROL_STOP is the only supported control; running and paused services accept it.
    BOOL Control(SC_HANDLE handle, DWORD control, SERVICE_STATUS *status);
    /// Marks the service for deletion: it is removed when the last handle to it is closed. Until then it can be opened,
    /// stopped and queried, but not started.
    BOOL Delete(SC_HANDLE handle);
    BOOL Query(SC_HANDLE handle, SERVICE_STATUS *status);

private:
    struct Opened {
        std::wstring service;  ///< Empty for the manager itself.
        DWORD access;
    };

    [[nodiscard]] DWORD FindLocked(SC_HANDLE handle, DWORD access, Service *&service);
    void RemoveIfMarkedLocked(const std::wstring &name);

    mutable Lock m_lock;
    std::map<std::wstring, Service, LessInAnyCase> m_services;
    std::map<SC_HANDLE, Opened> m_handles;
};

/// Simulates OpenSCManagerW, OpenServiceW, CloseServiceHandle, StartServiceW, ControlService, DeleteService,
/// QueryServiceStatus and ChangeServiceConfigW, which changes only the start type.
/// @param services  outlives the set.
void InstallServices(FunctionSet &functions, ServiceManager &services);

}  // namespace Simulator
