// The services of the simulated machine, and the handles through which they are reached.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <windows.h>

#include "AnyCase.h"
#include "Lock.h"

namespace Simulator {

class FunctionSet;

/// What a query tells of a service.
struct ServiceStatus {
    DWORD state = SERVICE_STOPPED;
    DWORD checkPoint = 0;
    DWORD waitHint = 0;  ///< Milliseconds.
    DWORD exitCode = 0;
    DWORD specificExitCode = 0;  ///< Counts where the exit code is ERROR_SERVICE_SPECIFIC_ERROR.

    bool operator==(const ServiceStatus &) const = default;
};

/// A service as a test makes it. Each query first takes the next status of the script that was begun last, as long as
/// there is one; so a script of one status has the service there at the first query.
struct Service {
    ServiceStatus status{};
    std::vector<ServiceStatus> starting{{SERVICE_RUNNING}};  ///< The script that a start begins.
    std::vector<ServiceStatus> stopping{{SERVICE_STOPPED}};  ///< The script that a stop begins.
    DWORD startError = ERROR_SUCCESS;                        ///< What each start fails with.
    DWORD controlError = ERROR_SUCCESS;                      ///< What each stop fails with.
    DWORD deleteError = ERROR_SUCCESS;                       ///< What each deletion fails with.
    bool markedForDelete = false;                            ///< Goes when the last handle to it is closed.
    std::vector<ServiceStatus> coming{};                     ///< What is left of the script.
    DWORD startType = SERVICE_DEMAND_START;                  ///< A start of a disabled one fails.
    DWORD configError = ERROR_SUCCESS;                       ///< What each change of its configuration fails with.
};

/// Services by name, in any case. Handles are never used again, not even in a later simulation. The functions answer as
/// those of advapi32.dll do, with the last error, and leave output parameters alone when they fail. Any thread.
class ServiceManager {
public:
    /// Adds the service, or replaces it.
    void Put(const std::wstring &name, Service service);
    /// From now on calls by handles that are open fail with ERROR_SERVICE_MARKED_FOR_DELETE.
    void Remove(const std::wstring &name);
    /// @throws std::out_of_range  if there is no such service.
    [[nodiscard]] Service Get(const std::wstring &name) const;
    /// Also those that are marked for deletion.
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
    /// SERVICE_CONTROL_STOP is the one control that there is; running and paused services take it.
    BOOL Control(SC_HANDLE handle, DWORD control, SERVICE_STATUS *status);
    /// Marks the service for deletion: it goes when the last handle to it is closed. Until then it can be opened,
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

/// Puts the services under OpenSCManagerW, OpenServiceW, CloseServiceHandle, StartServiceW, ControlService,
/// DeleteService, QueryServiceStatus and ChangeServiceConfigW, which changes the start type alone.
/// @param services  outlives the set.
void InstallServices(FunctionSet &functions, ServiceManager &services);

}  // namespace Simulator
