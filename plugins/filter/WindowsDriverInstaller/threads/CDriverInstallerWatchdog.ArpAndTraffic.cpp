// The ARP cache, which has to be filled anew, and requests that do so. Compiled as a part of
// WindowsDriverInstaller.cpp.
#include "CDriverInstallerWatchdog.h"

#include <array>
#include <cstdint>

#include <windows.h>
#include <iphlpapi.h>
#include <wx/log.h>

#include "WindowsDriverInstaller/NdisTrace.h"
#include "WindowsDriverInstaller/adapters/ResizeBlock.h"
#include "WindowsDriverInstaller/reports/AgentEventLog.h"
#include "common/Trace.h"

namespace {

wxString ArpAddressText(std::uint32_t address) {
    in_addr value = {};
    value.s_addr = address;
    return inet_ntoa(value);
}

void CDriverInstallerWatchdog::ClearArpCache() {
    ULONG size = 412;
    Block<MIB_IPNETTABLE> table;
    if (!ResizeBlock(table, size)) {
        wxLogError("CDriverInstallerWatchdog::ClearArpCache() - out of memory.");
        return;
    }
    ULONG error = GetIpNetTable(table.get(), &size, FALSE);
    if (error == ERROR_INSUFFICIENT_BUFFER) {
        if (!ResizeBlock(table, size)) {
            AgentEventLog_(*dom, error, kSystemFailureEvent, L"GetIpNetTable");
            return;
        }
        error = GetIpNetTable(table.get(), &size, FALSE);
    }
    if (error == ERROR_NO_DATA)
        return;
    if (error != NO_ERROR) {
        AgentEventLog_(*dom, error, kSystemFailureEvent, L"GetIpNetTable");
        return;
    }
    for (MIB_IPNETROW *row = table->table; row != table->table + table->dwNumEntries; ++row) {
        if (row->dwType != MIB_IPNET_TYPE_INVALID && row->dwType != MIB_IPNET_TYPE_DYNAMIC)
            continue;
        const DWORD deleted = DeleteIpNetEntry(row);
        if (deleted > 1)  // compat 104: 1 is no failure
            wxLogSysError(static_cast<long>(deleted), "DeleteIpNetEntry(%s) failed:", ArpAddressText(row->dwAddr));
    }
}

/// compat 105: what counts is that something is sent; the reply is not used
void CDriverInstallerWatchdog::GenerateOutgoingTraffic() {
    for (const TcpAdapter &adapter : adaptersBefore) {
        if (!adapter.boundToIp || adapter.gatewayAddress == kNoAddress)
            continue;
        Trace(kNdisTrace, "Sending ARP request for MAC of %s - the default gateway of adapter %s",
              ArpAddressText(adapter.gatewayAddress), adapter.displayName);
        std::array<ULONG, 2> mac{};
        ULONG length = sizeof(mac);
        const DWORD error = SendARP(adapter.gatewayAddress, 0, mac.data(), &length);
        if (error != NO_ERROR)
            wxLogSysError(static_cast<long>(error), "SendARP");
    }
}

}  // namespace
