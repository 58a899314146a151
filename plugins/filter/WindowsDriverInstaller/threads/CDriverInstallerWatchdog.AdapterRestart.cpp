// Network adapters, disabled and enabled again. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverInstallerWatchdog.h"

#include <array>

#include <windows.h>
#include <setupapi.h>

#include "WindowsDriverInstaller/adapters/AdaptersByDevice.h"
#include "WindowsDriverInstaller/adapters/DeviceChange.h"
#include "WindowsDriverInstaller/adapters/DeviceList.h"
#include "WindowsDriverInstaller/reports/AgentEventLog.h"

namespace {

/// How long the adapters stay disabled.
constexpr unsigned long kDisabledMs = 2'000;

void CDriverInstallerWatchdog::RestartAdapters(const TcpAdapterList &adapters) {
    installerThread->DbgPrint(L"Network still doesn't appear healthy - enabling & disabling adapters bound to %ls",
                              kFilterComponent);
    BoundTo boundTo = BoundTo::Filter;
    if (!DisableAdapters(adapters, boundTo)) {
        boundTo = BoundTo::Ip;
        installerThread->DbgPrint(L"No adapters are bound to %ls - enabling and disabling adapters bound to IP",
                                  kFilterComponent);
        (void)DisableAdapters(adapters, boundTo);
    }
    wxThread::Sleep(kDisabledMs);
    (void)EnableAdapters(adapters, boundTo);
}

bool CDriverInstallerWatchdog::EnableAdapters(const TcpAdapterList &adapters, BoundTo boundTo) {
    return EnableOrDisableAdapters(adapters, true, boundTo == BoundTo::Ip);
}

bool CDriverInstallerWatchdog::DisableAdapters(const TcpAdapterList &adapters, BoundTo boundTo) {
    return EnableOrDisableAdapters(adapters, false, boundTo == BoundTo::Ip);
}

bool CDriverInstallerWatchdog::EnableOrDisableAdapters(const TcpAdapterList &adapters, bool enable, bool useIpState) {
    const DeviceList devices(UniqueHandleOrNull(
        SetupDiGetClassDevsW(nullptr, nullptr, nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES | DIGCF_PROFILE)));
    if (!devices) {
        const DWORD error = GetLastError();
        AgentEventLog_(*dom, error, kSystemFailureEvent, L"SetupDiGetClassDevs");
        return false;
    }
    const AdaptersByDevice byDevice(adapters, useIpState);
    bool acted = false;
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    for (DWORD index = 0; SetupDiEnumDeviceInfo(devices.get(), index, &device) != 0; ++index) {
        std::array<wchar_t, 260> instanceId{};
        if (SetupDiGetDeviceInstanceIdW(devices.get(), &device, instanceId.data(), instanceId.size(), nullptr) == 0)
            continue;
        for (const auto &[place, adapter] :
             byDevice.OfDevice(instanceId.data())) {  // compat 106: a device of two records is acted on twice
            installerThread->DbgPrint(L"%s adapter '%.64ls'", enable ? L"Enabling" : L"Disabling",
                                      Wide(adapter->displayName));
            acted = ChangeDevice(devices.get(), device, enable) || acted;
        }
    }
    return acted;
}

}  // namespace
