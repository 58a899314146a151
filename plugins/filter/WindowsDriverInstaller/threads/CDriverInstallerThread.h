// The thread that installs the drivers, in the same kind of steps as the removal. Belongs to
// WindowsDriverInstaller.cpp.
#pragma once

#include <memory>

#include <windows.h>
#include <iphlpapi.h>

#include "CDriverUninstallerThread.h"
#include "WindowsDriverInstaller/adapters/AdaptersByNode.h"
#include "WindowsDriverInstaller/adapters/TcpAdapter.h"
#include "WindowsDriverInstaller/drivers/DriverVersions.h"
#include "WindowsDriverInstaller/reports/GrabbedLog.h"
#include "common/Block.h"

namespace {

/// Pause between two changes of the bindings.
constexpr unsigned long kRebindPauseMs = 1'000;

/// IP Helper's chain of adapters.
using IpHelperRecords = Block<IP_ADAPTER_INFO>;

/// The watchdog also uses the object for its log and the bindings, before the thread starts and after it has ended.
class CDriverInstallerThread : public CDriverUninstallerThread {
public:
    /// @param toInstallNeeded  install the drivers.
    /// @param toUpgradeNeeded  remove a driver of another version first.
    /// @param toLogTarget      receives the thread's log; must outlive the thread.
    CDriverInstallerThread(VtaCore::CDom *toDom, const wxString &toNdisDriverDir, const wxString &toWfpDriverDir,
                           bool toInstallNeeded, bool toUpgradeNeeded, wxLog *toLogTarget);
    /// Closes `stepFinished`, unlike the base class.
    ~CDriverInstallerThread() override;

    const char *Name() const override;

    /// Appends a record for each adapter. Leaves out fields that can't be read, or the whole record.
    void GetTcpAdapters(TcpAdapterList &adapters);
    /// Binds or unbinds each adapter of the list according to its record. Without a list, unbinds all adapters. Applies
    /// each change at once.
    /// @param enable      must be false without a list; has no effect with one.
    /// @param adapters    null for all; adapters that are not in the list stay as they are.
    /// @param useIpState  the record's `boundToIp` counts, otherwise its `boundToFilter`.
    /// @return false if `enable` is set without a list, or if the network configuration can't be opened.
    bool SetFilterBindings(bool enable, const TcpAdapterList *adapters, bool useIpState);
    // The three uses of SetFilterBindings, with its result.
    bool UnbindAll();
    /// Binds the filter to the adapters of the list that it was bound to, and unbinds it from the others.
    bool RestoreBindings(const TcpAdapterList &adapters);
    /// Binds the filter to the adapters of the list that IP was bound to, and unbinds it from the others.
    bool BindWhereIpWas(const TcpAdapterList &adapters);
    /// Unbinds adapters without TCP/IP and, on older servers, physical ones that share their MAC with another.
    void UnbindUnsuitableAdapters();

    /// Keeps the log for as long as the object lives.
    void KeepLog(std::unique_ptr<GrabbedLog> log);

protected:
    void Run() override;

private:
    bool InstallDriver();
    void WaitForDriverToUnload();
    void WriteDriverServiceValues();
    bool InstallWFPCallout();
    bool InstallWFPCalloutWithInstallHinfSection();
    HRESULT InstallFromInf(const wchar_t *directory);
    HRESULT CopyInfFiles(const wchar_t *directory);
    HRESULT ReportInfCopyFailure(const wchar_t *inf, unsigned long error);
    HRESULT InstallComponentOnThisSystem(INetCfg *netCfg, const wchar_t *directory);
    HRESULT InstallComponentOnEmbeddedSystem(INetCfg *netCfg, const wchar_t *directory);
    HRESULT InstallFilterComponent(INetCfg *netCfg);
    HRESULT AttemptInstall(INetCfgClassSetup *classSetup, int attempt);

    bool ReadAdaptersOfIpHelper(IpHelperRecords &records);
    void ReadAdapters(INetCfg *netCfg, const IP_ADAPTER_INFO *ipHelper, TcpAdapterList &adapters);
    void SetBindingsOf(INetCfg *netCfg, INetCfgComponent *component, const AdaptersByNode *adapters, bool useIpState);
    void SetBindingsOfPath(INetCfg *netCfg, INetCfgBindingPath *path, const TcpAdapter &adapter,
                           const AdaptersByNode *adapters, bool useIpState);
    bool NeedsBindingChange(const TcpAdapter &adapter, bool enabled, const AdaptersByNode *adapters, bool useIpState);
    void ToggleBinding(INetCfg *netCfg, INetCfgBindingPath *path, const wxString &displayName, bool enabled);
    TcpAdapterList UnsuitableAmong(const TcpAdapterList &adapters, bool unbindDuplicates);

    bool installNeeded;
    bool upgradeNeeded;
    wxLog *logTarget;
    std::unique_ptr<GrabbedLog> keptLog;
};

}  // namespace
