// The functions that report devices.
#include <windows.h>
#include <setupapi.h>

#include "Balance.h"
#include "DeviceManager.h"
#include "FunctionSet.h"

namespace Simulator {

namespace System {

SIMULATOR_FUNCTION(SetupDiGetClassDevsW, "SETUPAPI.dll", ReturnsMinusOne);
SIMULATOR_FUNCTION(SetupDiEnumDeviceInfo, "SETUPAPI.dll", ReturnsZero);
SIMULATOR_FUNCTION(SetupDiGetDeviceInstanceIdW, "SETUPAPI.dll", ReturnsZero);
SIMULATOR_FUNCTION(SetupDiGetDeviceRegistryPropertyW, "SETUPAPI.dll", ReturnsZero);
SIMULATOR_FUNCTION(SetupDiSetClassInstallParamsW, "SETUPAPI.dll", ReturnsZero);
SIMULATOR_FUNCTION(SetupDiCallClassInstaller, "SETUPAPI.dll", ReturnsZero);
SIMULATOR_FUNCTION(SetupDiDestroyDeviceInfoList, "SETUPAPI.dll", ReturnsZero);

}  // namespace System

void InstallDevices(FunctionSet &functions, const std::shared_ptr<DeviceManager> &devices) {
    functions.Put<System::SetupDiGetClassDevsW>(
        [devices](const auto &, const GUID *classGuid, PCWSTR enumerator, HWND, DWORD flags) {
            const HDEVINFO list = devices->List(classGuid, enumerator, flags);
            if (list != INVALID_HANDLE_VALUE)
                Balance::Instance().Opened(Kind::kDeviceList, reinterpret_cast<std::uintptr_t>(list),
                                           System::SetupDiGetClassDevsW::name);
            return list;
        });
    functions.Put<System::SetupDiEnumDeviceInfo>(
        [devices](const auto &, HDEVINFO list, DWORD index, SP_DEVINFO_DATA *data) {
            return devices->Enumerate(list, index, data);
        });
    functions.Put<System::SetupDiGetDeviceInstanceIdW>(
        [devices](const auto &, HDEVINFO list, SP_DEVINFO_DATA *data, PWSTR buffer, DWORD size, DWORD *needed) {
            return devices->InstanceId(list, data, buffer, size, needed);
        });
    functions.Put<System::SetupDiGetDeviceRegistryPropertyW>(
        [devices](const auto &, HDEVINFO list, SP_DEVINFO_DATA *data, DWORD property, DWORD *type, BYTE *buffer,
                  DWORD size,
                  DWORD *needed) { return devices->Property(list, data, property, type, buffer, size, needed); });
    functions.Put<System::SetupDiSetClassInstallParamsW>(
        [devices](const auto &, HDEVINFO list, SP_DEVINFO_DATA *data, SP_CLASSINSTALL_HEADER *header, DWORD size) {
            return devices->SetParameters(list, data, header, size);
        });
    functions.Put<System::SetupDiCallClassInstaller>(
        [devices](const auto &, DI_FUNCTION function, HDEVINFO list, SP_DEVINFO_DATA *data) {
            return devices->CallInstaller(function, list, data);
        });
    functions.Put<System::SetupDiDestroyDeviceInfoList>([devices](const auto &, HDEVINFO list) {
        Balance::Instance().Closed(Kind::kDeviceList, reinterpret_cast<std::uintptr_t>(list));
        return devices->Destroy(list);
    });
}

}  // namespace Simulator
