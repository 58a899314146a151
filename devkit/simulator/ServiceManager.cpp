#include "ServiceManager.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <utility>

#include "CallScope.h"

namespace Simulator {

namespace {

/// Never reused, and different from the system's handles, whose low bits are clear.
SC_HANDLE NewServiceHandle() {
    static std::atomic<std::uintptr_t> last{0x53430001};
    return reinterpret_cast<SC_HANDLE>(last += 2);
}

/// @return whether it is success.
bool Tell(DWORD error) {
    if (error != ERROR_SUCCESS)
        SetLastError(error);
    return error == ERROR_SUCCESS;
}

bool CanStop(const ServiceStatus &status) {
    return status.state == SERVICE_RUNNING || status.state == SERVICE_PAUSED;
}

void Fill(const ServiceStatus &from, SERVICE_STATUS &status) {
    status = {};
    status.dwServiceType = SERVICE_KERNEL_DRIVER;
    status.dwCurrentState = from.state;
    status.dwControlsAccepted = CanStop(from) ? SERVICE_ACCEPT_STOP : 0;
    status.dwWin32ExitCode = from.exitCode;
    status.dwServiceSpecificExitCode = from.specificExitCode;
    status.dwCheckPoint = from.checkPoint;
    status.dwWaitHint = from.waitHint;
}

DWORD StartOf(Service &service) {
    if (service.startError != ERROR_SUCCESS)
        return service.startError;
    if (service.markedForDelete)
        return ERROR_SERVICE_MARKED_FOR_DELETE;
    if (service.status.state != SERVICE_STOPPED)
        return ERROR_SERVICE_ALREADY_RUNNING;
    if (service.startType == SERVICE_DISABLED)
        return ERROR_SERVICE_DISABLED;
    service.status = {SERVICE_START_PENDING};
    service.coming = service.starting;
    return ERROR_SUCCESS;
}

DWORD StopOf(Service &service) {
    if (service.controlError != ERROR_SUCCESS)
        return service.controlError;
    if (service.status.state == SERVICE_STOPPED)
        return ERROR_SERVICE_NOT_ACTIVE;
    if (!CanStop(service.status))
        return ERROR_SERVICE_CANNOT_ACCEPT_CTRL;
    service.status = {SERVICE_STOP_PENDING};
    service.coming = service.stopping;
    return ERROR_SUCCESS;
}

DWORD ChangeOf(Service &service, DWORD startType) {
    if (service.configError != ERROR_SUCCESS)
        return service.configError;
    if (service.markedForDelete)
        return ERROR_SERVICE_MARKED_FOR_DELETE;
    if (startType == SERVICE_NO_CHANGE)
        return ERROR_SUCCESS;
    if (startType > SERVICE_DISABLED)
        return ERROR_INVALID_PARAMETER;
    service.startType = startType;
    return ERROR_SUCCESS;
}

DWORD DeletionOf(Service &service) {
    if (service.deleteError != ERROR_SUCCESS)
        return service.deleteError;
    if (service.markedForDelete)
        return ERROR_SERVICE_MARKED_FOR_DELETE;
    service.markedForDelete = true;
    return ERROR_SUCCESS;
}

}  // namespace

void ServiceManager::Put(const std::wstring &name, Service service) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_services[name] = std::move(service);
}

void ServiceManager::Remove(const std::wstring &name) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_services.erase(name);
}

Service ServiceManager::Get(const std::wstring &name) const {
    const LockGuard guard(m_lock);
    return m_services.at(name);
}

bool ServiceManager::Has(const std::wstring &name) const {
    const LockGuard guard(m_lock);
    return m_services.count(name) != 0;
}

void ServiceManager::Boot() {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_handles.clear();
    std::erase_if(m_services, [](const auto &service) { return service.second.markedForDelete; });
    for (auto &[name, service] : m_services) {
        const bool starts = service.startType <= SERVICE_AUTO_START && service.startError == ERROR_SUCCESS;
        service.status = {starts ? DWORD{SERVICE_RUNNING} : DWORD{SERVICE_STOPPED}};
        service.coming.clear();
    }
}

SC_HANDLE ServiceManager::Open(const wchar_t *machine, const wchar_t *database, DWORD access) {
    if (machine != nullptr && *machine != L'\0')
        return Tell(RPC_S_SERVER_UNAVAILABLE), nullptr;
    if (database != nullptr && CompareStringOrdinal(database, -1, SERVICES_ACTIVE_DATABASEW, -1, TRUE) != CSTR_EQUAL)
        return Tell(ERROR_DATABASE_DOES_NOT_EXIST), nullptr;
    const LockGuard guard(m_lock);
    const SC_HANDLE handle = NewServiceHandle();
    m_handles[handle] = {{}, access};
    return handle;
}

SC_HANDLE ServiceManager::OpenOne(SC_HANDLE manager, const wchar_t *name, DWORD access) {
    const LockGuard guard(m_lock);
    const auto opened = m_handles.find(manager);
    if (opened == m_handles.end() || !opened->second.service.empty())
        return Tell(ERROR_INVALID_HANDLE), nullptr;
    if (name == nullptr || *name == L'\0')
        return Tell(ERROR_INVALID_NAME), nullptr;
    if (m_services.count(name) == 0)
        return Tell(ERROR_SERVICE_DOES_NOT_EXIST), nullptr;
    const SC_HANDLE handle = NewServiceHandle();
    m_handles[handle] = {name, access};
    return handle;
}

BOOL ServiceManager::Close(SC_HANDLE handle) {
    const LockGuard guard(m_lock);
    const auto opened = m_handles.find(handle);
    if (opened == m_handles.end())
        return Tell(ERROR_INVALID_HANDLE);
    const std::wstring name = opened->second.service;
    m_handles.erase(opened);
    RemoveIfMarkedLocked(name);
    return TRUE;
}

BOOL ServiceManager::Start(SC_HANDLE handle) {
    const LockGuard guard(m_lock);
    Service *service = nullptr;
    const DWORD error = FindLocked(handle, SERVICE_START, service);
    return Tell(error != ERROR_SUCCESS ? error : StartOf(*service));
}

BOOL ServiceManager::ChangeStartType(SC_HANDLE handle, DWORD startType) {
    const LockGuard guard(m_lock);
    Service *service = nullptr;
    const DWORD error = FindLocked(handle, SERVICE_CHANGE_CONFIG, service);
    return Tell(error != ERROR_SUCCESS ? error : ChangeOf(*service, startType));
}

BOOL ServiceManager::Control(SC_HANDLE handle, DWORD control, SERVICE_STATUS *status) {
    if (control != SERVICE_CONTROL_STOP)
        return Tell(ERROR_INVALID_SERVICE_CONTROL);
    const LockGuard guard(m_lock);
    Service *service = nullptr;
    DWORD error = FindLocked(handle, SERVICE_STOP, service);
    if (error == ERROR_SUCCESS)
        error = StopOf(*service);
    if (error == ERROR_SUCCESS)
        Fill(service->status, *status);
    return Tell(error);
}

BOOL ServiceManager::Delete(SC_HANDLE handle) {
    const LockGuard guard(m_lock);
    Service *service = nullptr;
    const DWORD error = FindLocked(handle, DELETE, service);
    return Tell(error != ERROR_SUCCESS ? error : DeletionOf(*service));
}

BOOL ServiceManager::Query(SC_HANDLE handle, SERVICE_STATUS *status) {
    const LockGuard guard(m_lock);
    Service *service = nullptr;
    const DWORD error = FindLocked(handle, SERVICE_QUERY_STATUS, service);
    if (error != ERROR_SUCCESS)
        return Tell(error);
    if (!service->coming.empty()) {
        service->status = service->coming.front();
        service->coming.erase(service->coming.begin());
    }
    Fill(service->status, *status);
    return TRUE;
}

DWORD ServiceManager::FindLocked(SC_HANDLE handle, DWORD access, Service *&service) {
    const auto opened = m_handles.find(handle);
    if (opened == m_handles.end() || opened->second.service.empty())
        return ERROR_INVALID_HANDLE;
    if ((opened->second.access & access) == 0)
        return ERROR_ACCESS_DENIED;
    const auto found = m_services.find(opened->second.service);
    if (found == m_services.end())
        return ERROR_SERVICE_MARKED_FOR_DELETE;
    service = &found->second;
    return ERROR_SUCCESS;
}

void ServiceManager::RemoveIfMarkedLocked(const std::wstring &name) {
    const auto found = m_services.find(name);
    if (found == m_services.end() || !found->second.markedForDelete)
        return;
    const bool isOpen = std::any_of(m_handles.begin(), m_handles.end(),
                                    [&name](const auto &handle) { return SameInAnyCase(handle.second.service, name); });
    if (!isOpen)
        m_services.erase(found);
}

}  // namespace Simulator
