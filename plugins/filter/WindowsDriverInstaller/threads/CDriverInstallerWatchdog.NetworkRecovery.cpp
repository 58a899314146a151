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

/// Lets a network settle that has just been changed.
constexpr unsigned long kSettlingMs = 2'000;
constexpr int kHealthPolls = 3;
constexpr unsigned long kHealthPollMs = 2'000;

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
    wxThread::Sleep(kSettlingMs);
    return CheckNetworkHealth(upgradeNeeded);
}

bool CDriverInstallerWatchdog::CheckNetworkHealth(bool upgraded) {
    const TraceSite site(kNdisTrace);
    Heartbeat();
    ClearArpCache();
    Heartbeat();
    TcpAdapterList stillUnhealthy = adaptersBefore;
    TcpAdapterList currentAdapters;
    Heartbeat();
    if (AwaitNetworkHealth(stillUnhealthy, currentAdapters, site))
        return true;
    RecoverNetworkByRebinding(stillUnhealthy, upgraded);
    Heartbeat();
    if (AwaitNetworkHealth(stillUnhealthy, currentAdapters, site))
        return true;
    RestartAdapters(currentAdapters);
    return false;  // compat 101: does not check whether the second recovery helped
}

bool CDriverInstallerWatchdog::AwaitNetworkHealth(TcpAdapterList &stillUnhealthy, TcpAdapterList &currentAdapters,
                                                  const TraceSite &site) {
    for (int poll = 0; poll < kHealthPolls; ++poll) {
        wxThread::Sleep(kHealthPollMs);
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
        // compat 102: an adapter that was healthy once is not checked again
        std::set<wxString> unhealthyNames;
        for (const TcpAdapter &now : currentAdapters)
            unhealthyNames.insert(now.bindName);
        stillUnhealthy.remove_if(
            [&unhealthyNames](const TcpAdapter &before) { return unhealthyNames.count(before.bindName) == 0; });
    }
    return false;
}

/// compat 103: the first call restores the recorded binding, so an adapter that had the filter keeps it.
/// After an upgrade the recorded bindings are restored; after a new installation the filter is bound where IP was.
void CDriverInstallerWatchdog::RecoverNetworkByRebinding(const TcpAdapterList &stillUnhealthy, bool upgraded) {
    installerThread->DbgPrint(L"Network doesn't appear healthy - unbinding & rebinding %ls", kFilterComponent);
    if (!installerThread->RestoreBindings(stillUnhealthy))
        return;
    wxThread::Sleep(kRebindPauseMs);
    if (upgraded)
        (void)installerThread->RestoreBindings(stillUnhealthy);
    else
        (void)installerThread->BindWhereIpWas(stillUnhealthy);
}

}  // namespace
