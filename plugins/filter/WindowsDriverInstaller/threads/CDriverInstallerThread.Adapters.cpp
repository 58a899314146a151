// The records of the network adapters. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverInstallerThread.h"

#include <optional>
#include <utility>

#include <windows.h>
#include <iphlpapi.h>
#include <wx/log.h>

#include "WindowsDriverInstaller/adapters/AdapterRecords.h"
#include "WindowsDriverInstaller/adapters/DeviceClasses.h"
#include "WindowsDriverInstaller/adapters/ResizeBlock.h"

namespace {

void CDriverInstallerThread::GetTcpAdapters(TcpAdapterList &adapters) {
    StartStep(GettingAdapterInfo, 10);
    INetCfg *netCfg = nullptr;
    IpHelperRecords ipHelper;
    if (SUCCEEDED(AcquireINetCfg(false, &netCfg)) && ReadIpHelper(ipHelper)) {
        ReadAdapters(netCfg, ipHelper.get(), adapters);
        (void)ReleaseINetCfg(false, netCfg);
    } else {
        NoteFailedStep();  // a configuration that is open stays unreleased then; that is kept so
    }
    EndStep(GettingAdapterInfo);
}

/// Without the records the adapters have no addresses.
/// @param records  null when the system doesn't tell.
/// @return false without memory.
bool CDriverInstallerThread::ReadIpHelper(IpHelperRecords &records) {
    ULONG size = 11'264;
    if (!ResizeBlock(records, size)) {
        wxLogError("GetInterfaces() - error allocating memory.");
        return false;
    }
    ULONG error = GetAdaptersInfo(records.get(), &size);
    if (error == ERROR_BUFFER_OVERFLOW) {
        if (ResizeBlock(records, size))
            error = GetAdaptersInfo(records.get(), &size);
        else
            wxLogError("GetInterfaces() - error allocating memory.");
    }
    if (error != ERROR_SUCCESS) {
        ReportFailure(error, L"GetAdaptersInfo()");
        records.reset();
    }
    return true;
}

void CDriverInstallerThread::ReadAdapters(INetCfg *netCfg, const IP_ADAPTER_INFO *ipHelper, TcpAdapterList &adapters) {
    const Bindings ip(netCfg, L"ms_tcpip");
    const Bindings ip6(netCfg, L"ms_tcpip6");
    const Bindings filter(netCfg, kFilterComponent);
    ComPtr<IEnumNetCfgComponent> components;
    if (FAILED(netCfg->EnumComponents(&GUID_DEVCLASS_NET, &components)) || !components)
        return;
    const IpHelperByName recordsByName(ipHelper);
    ComPtr<INetCfgComponent> component;
    while (components->Next(1, &component, nullptr) == S_OK && component) {
        if (std::optional<TcpAdapter> adapter = ReadAdapter(component.Get(), recordsByName)) {
            adapter->boundToIp = ip.AreTo(component.Get()) || ip6.AreTo(component.Get());
            adapter->boundToFilter = filter.AreTo(component.Get());
            adapters.push_back(*std::move(adapter));
        }
        component.Reset();
    }
}

}  // namespace
