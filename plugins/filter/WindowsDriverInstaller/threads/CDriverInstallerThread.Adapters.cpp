// The records of the network adapters. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverInstallerThread.h"

#include <optional>
#include <utility>

#include <windows.h>
#include <iphlpapi.h>
#include <wx/log.h>

#include "NetCfgSession.h"
#include "WindowsDriverInstaller/adapters/AdapterRecords.h"
#include "WindowsDriverInstaller/adapters/ComponentBindings.h"
#include "WindowsDriverInstaller/adapters/NetworkComponents.h"
#include "WindowsDriverInstaller/adapters/ResizeBlock.h"

namespace {

void CDriverInstallerThread::GetTcpAdapters(TcpAdapterList &adapters) {
    StartStep(GettingAdapterInfo);
    {
        IpHelperRecords ipHelper;
        NetCfgSession netCfg(*this, NetCfgSession::Access::Read);
        if (FAILED(netCfg.Result())) {
            NoteFailedStep();
        } else if (ReadAdaptersOfIpHelper(ipHelper)) {
            ReadAdapters(netCfg.Get(), ipHelper.get(), adapters);
        } else {
            NoteFailedStep();
            netCfg.LeaveOpen();  // compat 96: leaves an open configuration unreleased
        }
    }
    EndStep(GettingAdapterInfo);
}

/// Reads IP Helper's records, from which the adapters' addresses come.
/// @param records  null if the system returns none.
/// @return false if memory runs out.
bool CDriverInstallerThread::ReadAdaptersOfIpHelper(IpHelperRecords &records) {
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
    const ComponentBindings ip(netCfg, L"ms_tcpip");
    const ComponentBindings ip6(netCfg, L"ms_tcpip6");
    const ComponentBindings filter(netCfg, kFilterComponent);
    const IpHelperByName recordsByName(ipHelper);
    ForEachNetworkComponent(netCfg, [&](INetCfgComponent *component) {
        std::optional<TcpAdapter> adapter = ReadAdapterRecord(component, recordsByName);
        if (!adapter)
            return;
        adapter->boundToIp = ip.IsBoundTo(component) || ip6.IsBoundTo(component);
        adapter->boundToFilter = filter.IsBoundTo(component);
        adapters.push_back(*std::move(adapter));
    });
}

}  // namespace
