// The thread that decides what an installation has to do, and watches it. Only WindowsDriverInstaller.cpp includes
// this.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include <wx/filename.h>

#include "DriverInstallerThread.h"
#include "DriverVersions.h"
#include "TcpAdapter.h"

// NOLINTBEGIN(misc-definitions-in-headers): the definitions are that one file's
namespace {

class CDriverInstallerWatchdog;

/// How the thread that called from Lua follows an installation. Both threads hold it: the caller may go first.
struct InstallStatus {
    std::atomic<bool> done{false};  ///< Set after the result.
    std::atomic<bool> result{false};
    std::atomic<std::uint32_t> lastProgress{0};  ///< Milliseconds of VtaCore::SystemTickCount at the last heartbeat.

    /// The watchdog while it lives, for its stack. Nothing else needs the lock.
    wxCriticalSection watchdogLock;
    CDriverInstallerWatchdog *watchdog = nullptr;
};

/// Frees itself when its thread ends.
class CDriverInstallerWatchdog : public VtaCore::CRunnable {
public:
    /// @param toDom          must outlive the thread.
    /// @param ndisDriverDir  folder of the filter driver's files.
    /// @param wfpDriverDir   folder of the callout driver's files.
    CDriverInstallerWatchdog(VtaCore::CDom *toDom, std::shared_ptr<InstallStatus> status, const wxString &ndisDriverDir,
                             const wxString &wfpDriverDir);
    ~CDriverInstallerWatchdog() override;

    const char *Name() const override { return "CDriverInstallerWatchdog"; }

protected:
    void Run() override;

private:
    void Heartbeat() { installerStatus->lastProgress = VtaCore::SystemTickCount(); }

    /// compat 66: true also when the installation failed; false only when the work could not be started
    bool InstallOrUpdateDriver();
    /// Sets the two flags by the versions.
    void DecideByVersions(const TraceSite &site);
    bool GetBundledDriverVersion();
    bool GetInstalledDriverVersion();
    bool GetVersionOfSystemFile(const TraceSite &site);
    /// @return false when the worker could not be made.
    bool InstallWithWorker(const TraceSite &site);
    bool CreateWorker(wxLog *logTarget);
    /// @param failedStep  receives the step when the attempt fails.
    bool AttemptInstallation(unsigned *failedStep);
    bool WatchWorker(unsigned *failedStep);
    void RebindIfStale();
    void ReportOutcome(bool succeeded, unsigned failedStep);
    /// @return whether the network is as good as it was, as far as that can be told.
    bool IsNetworkAsBefore(const TraceSite &site);

    /// Repairs the network if an adapter got worse. @return true when it is taken to be healthy.
    bool CheckNetworkHealth(bool upgraded);
    /// @return whether all adapters are healthy within three looks.
    bool AwaitHealth(TcpAdapterList &stillUnhealthy, TcpAdapterList &currentAdapters, const TraceSite &site);
    void RebindFilter(const TcpAdapterList &stillUnhealthy, bool upgraded);
    void RestartAdapters(const TcpAdapterList &adapters);
    void ClearArpCache();
    void GenerateOutgoingTraffic();
    /// @param useIpState  acts on adapters that are bound to IP, otherwise on those that are bound to the filter.
    /// @return whether there was one.
    bool EnableOrDisableAdapters(const TcpAdapterList &adapters, bool enable, bool useIpState);

    std::shared_ptr<InstallStatus> installerStatus;
    bool driverRunning = false;
    bool installNeeded = false;
    bool upgradeNeeded = false;
    TcpAdapterList adaptersBefore;
    wxFileName ndisDriverFile;
    wxFileName wfpDriverFile;
    VtaCore::CDom *dom;
    wxString extraLog;  ///< compat 74: appended to the log, though nothing writes to it
    wxString installLog;
    DriverVersion installedVersion;
    DriverVersion ourVersion;
    std::unique_ptr<CDriverInstallerThread> installerThread;
};

}  // namespace
// NOLINTEND(misc-definitions-in-headers)
