// The thread that decides what an installation has to do, and watches it. Belongs to
// WindowsDriverInstaller.cpp.
#pragma once

#include <memory>
#include <optional>

#include <wx/filename.h>

#include "CDriverInstallerThread.h"
#include "InstallStatus.h"
#include "WindowsDriverInstaller/adapters/TcpAdapter.h"
#include "WindowsDriverInstaller/drivers/DriverVersions.h"
#include "common/Trace.h"

namespace {

/// Deletes itself when its thread ends.
class CDriverInstallerWatchdog : public VtaCore::CRunnable {
public:
    /// @param toDom          must outlive the thread.
    /// @param ndisDriverDir  folder of the filter driver's files.
    /// @param wfpDriverDir   folder of the callout driver's files.
    CDriverInstallerWatchdog(VtaCore::CDom *toDom, std::shared_ptr<InstallStatus> status, const wxString &ndisDriverDir,
                             const wxString &wfpDriverDir);
    ~CDriverInstallerWatchdog() override;

    const char *Name() const override;

protected:
    void Run() override;

private:
    void Heartbeat();

    /// compat 66: true also when the installation failed; false only when the work could not be started
    bool InstallOrUpdateDriver();
    /// Sets installNeeded and upgradeNeeded from the versions.
    void DecideByVersions(const TraceSite &site);
    bool GetBundledDriverVersion();
    bool GetInstalledDriverVersion();
    bool GetVersionOfSystemFile(const TraceSite &site);
    /// @return whether the user was notified of a reboot request; nothing when the worker could not be made.
    std::optional<bool> InstallWithWorker();
    bool CreateInstallationWorker(wxLog *logTarget);
    /// @param failedStep  receives the step when the attempt fails.
    bool AttemptInstallation(unsigned *failedStep);
    bool WatchInstallation(unsigned *failedStep);
    void RebindAfterInstallation();
    void ReportInstallationOutcome(bool succeeded, unsigned failedStep);
    /// @return whether the network is as good as before, as far as that can be checked.
    bool IsNetworkAsBefore(const TraceSite &site);

    /// Tries to recover the network if an adapter got worse. @return whether the network is considered healthy.
    bool CheckNetworkHealth(bool upgraded);
    /// @return whether all adapters are healthy within three polls.
    bool AwaitNetworkHealth(TcpAdapterList &stillUnhealthy, TcpAdapterList &currentAdapters, const TraceSite &site);
    void RecoverNetworkByRebinding(const TcpAdapterList &stillUnhealthy, bool upgraded);
    void RestartAdapters(const TcpAdapterList &adapters);
    void ClearArpCache();
    void GenerateOutgoingTraffic();
    /// Which adapters are restarted.
    enum class BoundTo { Filter, Ip };
    // @return whether a device was changed.
    bool EnableAdapters(const TcpAdapterList &adapters, BoundTo boundTo);
    bool DisableAdapters(const TcpAdapterList &adapters, BoundTo boundTo);
    /// @param useIpState  acts on adapters that are bound to IP, otherwise on those that are bound to the filter.
    /// @return whether a device was changed.
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
