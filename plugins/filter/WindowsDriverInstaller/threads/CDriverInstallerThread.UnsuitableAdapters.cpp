// Unbinds the filter driver from adapters that it must not be bound to. Compiled as a part of
// WindowsDriverInstaller.cpp.
#include "CDriverInstallerThread.h"

#include <set>
#include <string>

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

/// @return copies whose records say unbound.
TcpAdapterList CDriverInstallerThread::UnsuitableAmong(const TcpAdapterList &adapters, bool unbindDuplicates) {
    TcpAdapterList toUnbind;
    std::set<wxString> nodesToUnbind;
    const auto mark = [&](const TcpAdapter &adapter) {
        toUnbind.push_back(adapter);
        toUnbind.back().boundToFilter = false;
        nodesToUnbind.insert(adapter.pnpDevNodeId);
    };
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
            mark(adapter);
        } else if (unbindDuplicates) {
            const TcpAdapter *const twin = FindMacTwin(groups, adapter);
            if (twin == nullptr)
                continue;
            sharedMacs.insert(adapter.macAddress);
            DbgPrint(L"Adapter '%s' has the same MAC (%s) as adapter '%s'", Wide(adapter.displayName),
                     Wide(MacText(adapter.macAddress)), Wide(twin->displayName));
        }
    }
    for (const std::string &mac : sharedMacs)
        for (const TcpAdapter *adapter : groups.at(mac)) {
            // compat 99: of a physical and a virtual adapter that share a MAC, the physical one loses the filter
            if ((adapter->characteristics & NCF_PHYSICAL) == 0 || nodesToUnbind.count(adapter->pnpDevNodeId) != 0)
                continue;
            DbgPrint(L"Marking physical adapter '%s' with duplicate MAC %s to be unbound from QBIMVTA",
                     Wide(adapter->displayName), Wide(MacText(mac)));
            mark(*adapter);
        }
    return toUnbind;
}

}  // namespace
