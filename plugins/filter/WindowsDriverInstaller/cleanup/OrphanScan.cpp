#include "OrphanScan.h"

#include <array>
#include <cwchar>

#include <windows.h>
#include <setupapi.h>

#include "WindowsDriverInstaller/adapters/DeviceClasses.h"
#include "WindowsDriverInstaller/adapters/DeviceList.h"
#include "WindowsDriverInstaller/reports/AgentEventLog.h"

namespace {

/// @return false when the id or the description can't be read, or when it is another device's.
bool IsOrphanScanHit(VtaCore::CDom &dom, const DeviceList &devices, SP_DEVINFO_DATA &device) {
    std::array<wchar_t, 4096> instanceId{};
    if (SetupDiGetDeviceInstanceIdW(devices.get(), &device, instanceId.data(), static_cast<DWORD>(instanceId.size()),
                                    nullptr) == 0) {
        AgentEventLogFailure(dom, GetLastError(), L"SetupDiGetDeviceInstanceId");
        return false;
    }
    // The description must be there; what it says doesn't matter.
    std::array<BYTE, 8192> description{};
    if (SetupDiGetDeviceRegistryPropertyW(devices.get(), &device, SPDRP_DEVICEDESC, nullptr, description.data(),
                                          static_cast<DWORD>(description.size()), nullptr) == 0) {
        AgentEventLogFailure(dom, GetLastError(), L"SetupDiGetDeviceRegistryProperty");
        return false;
    }
    // compat 126: compares case, and takes no device without a description
    return std::wcsstr(instanceId.data(), kMiniport) != nullptr;
}

}  // namespace

bool OrphanScanIsClean(VtaCore::CDom &dom) {
    const DeviceList devices(
        UniqueHandleOrNull(SetupDiGetClassDevsW(&GUID_DEVCLASS_NET, nullptr, nullptr, DIGCF_PRESENT)));
    if (!devices) {
        AgentEventLogFailure(dom, GetLastError(), L"SetupDiGetClassDevs");
        return true;
    }
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    for (DWORD index = 0; SetupDiEnumDeviceInfo(devices.get(), index, &device) != 0; ++index) {
        if (IsOrphanScanHit(dom, devices, device))
            return false;
    }
    const DWORD error = GetLastError();
    if (error != ERROR_NO_MORE_ITEMS)
        AgentEventLogFailure(dom, error, L"SetupDiEnumDeviceInfo");
    return true;
}
