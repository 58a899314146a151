// The watchdog's look at the network after an installation, and its cures. Only WindowsDriverInstaller.cpp includes
// this.
#pragma once

#include <cwchar>
#include <functional>
#include <map>
#include <set>

#include <windows.h>
#include <iphlpapi.h>
#include <setupapi.h>
#include <wx/log.h>

#include "AdaptorHealthChecker.h"
#include "DeviceList.h"
#include "DriverWatch.h"

// NOLINTBEGIN(misc-definitions-in-headers): the definitions are that one file's
namespace {

bool CDriverInstallerWatchdog::CheckNetworkHealth(bool upgraded) {
    Heartbeat();
    ClearArpCache();
    Heartbeat();
    TcpAdapterList stillUnhealthy = adaptersBefore;
    TcpAdapterList currentAdapters;
    Heartbeat();
    if (AwaitHealth(stillUnhealthy, currentAdapters, kNdisTrace))
        return true;
    RebindFilter(stillUnhealthy, upgraded);
    Heartbeat();
    if (AwaitHealth(stillUnhealthy, currentAdapters, kNdisTrace))
        return true;
    RestartAdapters(currentAdapters);
    return false;  // compat 101: does not check whether the second recovery helped
}

bool CDriverInstallerWatchdog::AwaitHealth(TcpAdapterList &stillUnhealthy, TcpAdapterList &currentAdapters,
                                           const TraceSite &site) {
    for (int look = 0; look < 3; ++look) {
        wxThread::Sleep(2'000);
        GenerateOutgoingTraffic();
        currentAdapters.clear();
        {
            const wxLogNull noLog;
            installerThread->GetTcpAdapters(currentAdapters);
        }
        {
            const AdaptorHealthChecker isHealthy(stillUnhealthy);
            currentAdapters.remove_if(std::cref(isHealthy));
        }
        if (currentAdapters.empty()) {
            Trace(site, "Adapters all seem to be healthy and have IP info - presumably IP is working.");
            return true;
        }
        // compat 102: an adapter that was healthy once is not judged again
        std::set<wxString> unhealthyNames;
        for (const TcpAdapter &now : currentAdapters)
            unhealthyNames.insert(now.bindName);
        stillUnhealthy.remove_if(
            [&unhealthyNames](const TcpAdapter &before) { return unhealthyNames.count(before.bindName) == 0; });
    }
    return false;
}

/// compat 103: the first call restores the recorded binding, so an adapter that had the filter keeps it.
/// After an upgrade the recorded binding is put back, after a fresh installation the filter goes where IP was.
void CDriverInstallerWatchdog::RebindFilter(const TcpAdapterList &stillUnhealthy, bool upgraded) {
    installerThread->DbgPrint(L"Network doesn't appear healthy - unbinding & rebinding %ls", kFilterComponent);
    if (!installerThread->SetFilterBindings(false, &stillUnhealthy, false))
        return;
    wxThread::Sleep(1'000);
    (void)installerThread->SetFilterBindings(true, &stillUnhealthy, !upgraded);
}

void CDriverInstallerWatchdog::RestartAdapters(const TcpAdapterList &adapters) {
    installerThread->DbgPrint(L"Network still doesn't appear healthy - enabling & disabling adapters bound to %ls",
                              kFilterComponent);
    bool useIp = false;
    if (!EnableOrDisableAdapters(adapters, false, false)) {
        useIp = true;
        installerThread->DbgPrint(L"No adapters are bound to %ls - enabling and disabling adapters bound to IP",
                                  kFilterComponent);
        (void)EnableOrDisableAdapters(adapters, false, true);
    }
    wxThread::Sleep(2'000);
    (void)EnableOrDisableAdapters(adapters, true, useIp);
}

wxString AddressText(std::uint32_t address) {
    in_addr value = {};
    value.s_addr = address;
    return inet_ntoa(value);
}

void CDriverInstallerWatchdog::ClearArpCache() {
    ULONG size = 412;
    Block<MIB_IPNETTABLE> table;
    if (!Resize(table, size)) {
        wxLogError("CDriverInstallerWatchdog::ClearArpCache() - out of memory.");
        return;
    }
    ULONG error = GetIpNetTable(table.get(), &size, FALSE);
    if (error == ERROR_INSUFFICIENT_BUFFER) {
        if (!Resize(table, size)) {
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
            wxLogSysError(static_cast<long>(deleted), "DeleteIpNetEntry(%s) failed:", AddressText(row->dwAddr));
    }
}

/// compat 105: what counts is that something is sent; the reply is not used
void CDriverInstallerWatchdog::GenerateOutgoingTraffic() {
    for (const TcpAdapter &adapter : adaptersBefore) {
        if (!adapter.boundToIp || adapter.gatewayAddress == kNoAddress)
            continue;
        Trace(kNdisTrace, "Sending ARP request for MAC of %s - the default gateway of adapter %s",
              AddressText(adapter.gatewayAddress), adapter.displayName);
        std::array<ULONG, 2> mac{};
        ULONG length = sizeof(mac);
        const DWORD error = SendARP(adapter.gatewayAddress, 0, mac.data(), &length);
        if (error != NO_ERROR)
            wxLogSysError(static_cast<long>(error), "SendARP");
    }
}

/// Compares as the C runtime does, which folds case otherwise than wxString beyond ASCII.
struct LessAsDeviceId {
    bool operator()(const wxString &left, const wxString &right) const {
        return _wcsicmp(left.wc_str(), right.wc_str()) < 0;
    }
};

/// Finds the adapters of a device. A device is an adapter's if its instance id begins with the adapter's component id:
/// so all devices of a model are meant. An adapter whose id couldn't be read has no device, lest every device of the
/// machine be its.
/// compat 107: restarts every device of the same model
class AdaptersByDevice {
public:
    /// @param adapters    have to stay.
    /// @param useIpState  takes those that IP is bound to instead of those that the filter is bound to.
    AdaptersByDevice(const TcpAdapterList &adapters, bool useIpState) {
        std::size_t place = 0;
        for (const TcpAdapter &adapter : adapters) {
            ++place;
            if (adapter.componentId.empty() || !(useIpState ? adapter.boundToIp : adapter.boundToFilter))
                continue;
            m_adapters[adapter.componentId].emplace(place, &adapter);
            m_lengths.insert(adapter.componentId.length());
        }
    }

    /// By their places in the list.
    [[nodiscard]] std::map<std::size_t, const TcpAdapter *> Of(const wxString &instanceId) const {
        std::map<std::size_t, const TcpAdapter *> found;
        for (const std::size_t length : m_lengths) {
            if (length > instanceId.length())
                break;
            const auto those = m_adapters.find(instanceId.substr(0, length));
            if (those != m_adapters.end())
                found.insert(those->second.begin(), those->second.end());
        }
        return found;
    }

private:
    std::map<wxString, std::map<std::size_t, const TcpAdapter *>, LessAsDeviceId> m_adapters;  ///< By component id.
    std::set<std::size_t> m_lengths;                                                           ///< Of the ids.
};

/// One change of a device's state.
class DeviceChange {
public:
    DeviceChange(HDEVINFO devices, SP_DEVINFO_DATA &device, bool enable) : m_devices(devices), m_device(device) {
        m_change.ClassInstallHeader.cbSize = sizeof(m_change.ClassInstallHeader);
        m_change.ClassInstallHeader.InstallFunction = DIF_PROPERTYCHANGE;
        m_change.StateChange = enable ? DICS_ENABLE : DICS_DISABLE;
        m_change.Scope = enable ? DICS_FLAG_GLOBAL : DICS_FLAG_CONFIGSPECIFIC;
        static_assert(sizeof(m_change) == 20 && sizeof(m_change.ClassInstallHeader) == 8);
    }

    void SetScope(DWORD scope) { m_change.Scope = scope; }
    bool Prepare() {
        return SetupDiSetClassInstallParamsW(m_devices, &m_device, &m_change.ClassInstallHeader, sizeof(m_change)) != 0;
    }
    bool Carry() { return SetupDiCallClassInstaller(DIF_PROPERTYCHANGE, m_devices, &m_device) != 0; }

private:
    HDEVINFO m_devices;
    SP_DEVINFO_DATA &m_device;
    SP_PROPCHANGE_PARAMS m_change{};
};

/// @return false if the change could not even be prepared.
bool ChangeDevice(HDEVINFO devices, SP_DEVINFO_DATA &device, bool enable) {
    DeviceChange change(devices, device, enable);
    if (!change.Prepare())
        return false;
    if (!enable) {
        if (!change.Carry())
            wxLogSysError("not critical - SetupDiCallClassInstaller()");
        return true;
    }
    (void)change.Carry();  // for all hardware profiles; compat 108: a failure is not logged
    change.SetScope(DICS_FLAG_CONFIGSPECIFIC);
    if (change.Prepare() && !change.Carry())
        wxLogSysError("not critical - SetupDiCallClassInstaller(DICS_FLAG_CONFIGSPECIFIC)");
    return true;
}

bool CDriverInstallerWatchdog::EnableOrDisableAdapters(const TcpAdapterList &adapters, bool enable, bool useIpState) {
    const HDEVINFO list =
        SetupDiGetClassDevsW(nullptr, nullptr, nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES | DIGCF_PROFILE);
    if (list == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        AgentEventLog_(*dom, error, kSystemFailureEvent, L"SetupDiGetClassDevs");
        return false;
    }
    const DeviceList devices(list);
    const AdaptersByDevice byDevice(adapters, useIpState);
    bool acted = false;
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    for (DWORD index = 0; SetupDiEnumDeviceInfo(list, index, &device) != 0; ++index) {
        std::array<wchar_t, 260> instanceId{};
        if (SetupDiGetDeviceInstanceIdW(list, &device, instanceId.data(), instanceId.size(), nullptr) == 0)
            continue;
        for (const auto &[place, adapter] :
             byDevice.Of(instanceId.data())) {  // compat 106: a device of two records is acted on twice
            installerThread->DbgPrint(L"%s adapter '%.64ls'", enable ? L"Enabling" : L"Disabling",
                                      Wide(adapter->displayName));
            acted = ChangeDevice(list, device, enable) || acted;
        }
    }
    return acted;
}

}  // namespace
// NOLINTEND(misc-definitions-in-headers)
