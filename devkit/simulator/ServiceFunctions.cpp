#include "ServiceFunctions.h"

#include "FunctionSet.h"
#include "ServiceManager.h"

namespace Simulator {

void InstallServices(FunctionSet &functions, ServiceManager &services) {
    functions.Put<System::OpenSCManagerW>([&services](const auto &, LPCWSTR machine, LPCWSTR database, DWORD access) {
        return services.Open(machine, database, access);
    });
    functions.Put<System::OpenServiceW>([&services](const auto &, SC_HANDLE manager, LPCWSTR name, DWORD access) {
        return services.OpenOne(manager, name, access);
    });
    functions.Put<System::CloseServiceHandle>(
        [&services](const auto &, SC_HANDLE handle) { return services.Close(handle); });
    functions.Put<System::StartServiceW>(
        [&services](const auto &, SC_HANDLE handle, DWORD, LPCWSTR *) { return services.Start(handle); });
    functions.Put<System::ControlService>(
        [&services](const auto &, SC_HANDLE handle, DWORD control, SERVICE_STATUS *status) {
            return services.Control(handle, control, status);
        });
    functions.Put<System::ChangeServiceConfigW>(
        [&services](const auto &, SC_HANDLE handle, DWORD, DWORD startType, auto...) {
            return services.ChangeStartType(handle, startType);
        });
    functions.Put<System::DeleteService>(
        [&services](const auto &, SC_HANDLE handle) { return services.Delete(handle); });
    functions.Put<System::QueryServiceStatus>(
        [&services](const auto &, SC_HANDLE handle, SERVICE_STATUS *status) { return services.Query(handle, status); });
}

}  // namespace Simulator
