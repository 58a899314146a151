// Unbinds the filter driver from adapters that it must not be bound to. Compiled as a part of
// WindowsDriverInstaller.cpp.
#include "CDriverInstallerThread.h"

#include <set>
#include <string>
#include <utility>

#include <windows.h>
#include <netcfgx.h>

#include "WindowsDriverInstaller/adapters/AdapterMacs.h"

namespace {

void CDriverInstallerThread::UnbindUnsuitableAdapters() {
    const bool unbindDuplicates = MustUnbindDuplicateMacs();
    TcpAdapterList adapters;
    GetTcpAdapters(adapters);
    const TcpAdapterList toUnbind = UnsuitableAmong(adapters, unbindDuplicates);
    if (!toUnbind.empty())
        (void)RestoreBindings(toUnbind);
}

/// Copies of adapters whose records say unbound.
struct AdaptersToUnbind {
    TcpAdapterList adapters;
    std::set<wxString> nodes;

    void Add(const TcpAdapter &adapter) {
        adapters.push_back(adapter);
        adapters.back().boundToFilter = false;
        nodes.insert(adapter.pnpDevNodeId);
    }
};

/// Logs an adapter that shares its MAC. @return whether there is such an adapter.
bool LogMacTwin(CDriverInstallerThread &thread, const AdaptersByMac &groups, const TcpAdapter &adapter) {
    const TcpAdapter *const twin = FindMacTwin(groups, adapter);
    if (twin == nullptr)
        return false;
    thread.DbgPrint(L"Adapter '%s' has the same MAC (%s) as adapter '%s'", Wide(adapter.displayName),
                    Wide(MacText(adapter.macAddress)), Wide(twin->displayName));
    return true;
}

/// Adds the physical adapters of a group with the same MAC.
void AddPhysicalTwins(CDriverInstallerThread &thread, const AdaptersByMac::mapped_type &group, const wxString &mac,
                      AdaptersToUnbind &toUnbind) {
    for (const TcpAdapter *adapter : group) {
        // compat 99: of a physical and a virtual adapter that share a MAC, the physical one loses the filter
        if ((adapter->characteristics & NCF_PHYSICAL) == 0 || toUnbind.nodes.count(adapter->pnpDevNodeId) != 0)
            continue;
        thread.DbgPrint(L"Marking physical adapter '%s' with duplicate MAC %s to be unbound from QBIMVTA",
                        Wide(adapter->displayName), Wide(mac));
        toUnbind.Add(*adapter);
    }
}

TcpAdapterList CDriverInstallerThread::UnsuitableAmong(const TcpAdapterList &adapters, bool unbindDuplicates) {
    AdaptersToUnbind toUnbind;
    const AdaptersByMac groups = GroupAdaptersByMac(adapters);
    std::set<std::string> sharedMacs;
    for (const TcpAdapter &adapter : adapters) {
        if (!HasValidMac(adapter)) {
            DbgPrint(L"Adapter '%s' has an invalid MAC - ignoring it", Wide(adapter.displayName));
        } else if (IsRemoteAccessMac(adapter)) {
            continue;
        } else if (adapter.boundToFilter && !adapter.boundToIp) {
            DbgPrint(L"Adapter '%s' is not bound to TCPIP - marking it to be unbound from QBIMVTA",
                     Wide(adapter.displayName));
            toUnbind.Add(adapter);
        } else if (unbindDuplicates && LogMacTwin(*this, groups, adapter)) {
            sharedMacs.insert(adapter.macAddress);
        }
    }
    for (const std::string &mac : sharedMacs)
        AddPhysicalTwins(*this, groups.at(mac), MacText(mac), toUnbind);
    return std::move(toUnbind.adapters);
}

}  // namespace
