// Whether the network works after an installation, and its recovery. Compiled as a part of
// WindowsDriverInstaller.cpp.
#include "CDriverInstallerWatchdog.h"

#include <algorithm>
#include <functional>
#include <set>

#include <wx/log.h>

#include "WindowsDriverInstaller/NdisTrace.h"
#include "WindowsDriverInstaller/adapters/AdaptorHealthChecker.h"
#include "common/Trace.h"

namespace {

bool CDriverInstallerWatchdog::IsNetworkAsBefore(const TraceSite &site) {
    const bool someOnline = std::any_of(adaptersBefore.begin(), adaptersBefore.end(), [](const TcpAdapter &adapter) {
        return adapter.mediaConnectStatus == kMediaConnected;
    });
    if (!someOnline) {
        Trace(site,
              "All of the adapters were offline before we started the install/upgrade. There's no point in checking "
              "the network status.");
        return true;
    }
    wxThread::Sleep(2'000);
    return CheckNetworkHealth(upgradeNeeded);
}

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
    return false;  // what came of the second cure is not looked at
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
        // An adapter that was healthy once is not judged again.
        std::set<wxString> unhealthyNames;
        for (const TcpAdapter &now : currentAdapters)
            unhealthyNames.insert(now.bindName);
        stillUnhealthy.remove_if(
            [&unhealthyNames](const TcpAdapter &before) { return unhealthyNames.count(before.bindName) == 0; });
    }
    return false;
}

/// The first call puts back what the record says of the filter, which for an adapter that had it changes nothing.
/// After an upgrade the recorded binding is put back, after a fresh installation the filter goes where IP was.
void CDriverInstallerWatchdog::RebindFilter(const TcpAdapterList &stillUnhealthy, bool upgraded) {
    installerThread->DbgPrint(L"Network doesn't appear healthy - unbinding & rebinding %ls", kFilterComponent);
    if (!installerThread->SetFilterBindings(false, &stillUnhealthy, false))
        return;
    wxThread::Sleep(1'000);
    (void)installerThread->SetFilterBindings(true, &stillUnhealthy, !upgraded);
}

}  // namespace
