// The thread that installs the drivers, in steps as the removal has them. Belongs to WindowsDriverInstaller.cpp.
#pragma once

#include <memory>
#include <utility>

#include <windows.h>
#include <iphlpapi.h>

#include "CDriverUninstallerThread.h"
#include "WindowsDriverInstaller/adapters/AdaptersByNode.h"
#include "WindowsDriverInstaller/adapters/TcpAdapter.h"
#include "WindowsDriverInstaller/drivers/DriverVersions.h"
#include "WindowsDriverInstaller/reports/GrabbedLog.h"
#include "common/Block.h"

namespace {

/// Between two changes of the bindings.
constexpr unsigned long kRebindPauseMs = 1'000;

/// A chain of adapters as IP Helper tells them.
using IpHelperRecords = Block<IP_ADAPTER_INFO>;

/// The watchdog uses the object, too, before the thread starts and after it has ended: for its log and the bindings.
class CDriverInstallerThread : public CDriverUninstallerThread {
public:
    /// @param toInstallNeeded  install the drivers.
    /// @param toUpgradeNeeded  a driver of another version is there and goes first.
    /// @param toLogTarget      receives the log of the thread; outlives it.
    CDriverInstallerThread(VtaCore::CDom *toDom, const wxString &toNdisDriverDir, const wxString &toWfpDriverDir,
                           bool toInstallNeeded, bool toUpgradeNeeded, wxLog *toLogTarget)
        : CDriverUninstallerThread(toDom, toNdisDriverDir, toWfpDriverDir),
          installNeeded(toInstallNeeded),
          upgradeNeeded(toUpgradeNeeded),
          logTarget(toLogTarget) {}
    /// Unlike the base on its own, closes `stepFinished`.
    ~CDriverInstallerThread() override;

    const char *Name() const override { return "CDriverInstallerThread"; }

    /// Appends a record for each adapter. What can't be read stays out of the record, or the record out of the list.
    void GetTcpAdapters(TcpAdapterList &adapters);
    /// Brings each adapter of the list to the state that its record tells, or, without a list, unbinds all of them.
    /// Each change is applied at once.
    /// @param enable      false without a list; of no effect with one.
    /// @param adapters    null for all; adapters that are not in the list stay as they are.
    /// @param useIpState  the record's `boundToIp` counts, otherwise its `boundToFilter`.
    /// @return false for `enable` without a list, and when the network configuration can't be opened.
    bool SetFilterBindings(bool enable, const TcpAdapterList *adapters, bool useIpState);
    // The three ways in which it is called; the results are the same.
    bool UnbindAll() { return SetFilterBindings(false, nullptr, false); }
    /// Binds the filter to each adapter whose record says so, and unbinds it from the others of the list.
    bool RestoreBindings(const TcpAdapterList &adapters) { return SetFilterBindings(false, &adapters, false); }
    /// Binds the filter to each adapter whose record says that IP is bound, and unbinds it from the others of the list.
    bool BindWhereIpWas(const TcpAdapterList &adapters) { return SetFilterBindings(true, &adapters, true); }
    /// Unbinds adapters without TCP/IP and, on older servers, physical ones that share their MAC with another.
    void UnbindUnsuitableAdapters();

    /// Keeps the log for as long as the object lives.
    void KeepLog(std::unique_ptr<GrabbedLog> log) { keptLog = std::move(log); }

protected:
    void Run() override;

private:
    bool InstallDriver();
    void WaitForDriverToUnload();
    void WriteServiceValues();
    bool InstallWFPCallout();
    bool InstallWFPCalloutWithInstallHinfSection();
    HRESULT InstallFromInf(const wchar_t *directory);
    HRESULT CopyInfFiles(const wchar_t *directory);
    HRESULT ReportCopyFailure(const wchar_t *inf, unsigned long error);
    HRESULT InstallOnThisSystem(INetCfg *netCfg, const wchar_t *directory);
    HRESULT InstallOnEmbeddedSystem(INetCfg *netCfg, const wchar_t *directory);
    HRESULT InstallFilterComponent(INetCfg *netCfg);
    HRESULT AttemptInstall(INetCfgClassSetup *classSetup, int attempt);

    bool ReadIpHelper(IpHelperRecords &records);
    void ReadAdapters(INetCfg *netCfg, const IP_ADAPTER_INFO *ipHelper, TcpAdapterList &adapters);
    void SetBindingsOf(INetCfg *netCfg, INetCfgComponent *component, const AdaptersByNode *adapters, bool useIpState);
    void SetBindingsOfPath(INetCfg *netCfg, INetCfgBindingPath *path, const TcpAdapter &adapter,
                           const AdaptersByNode *adapters, bool useIpState);
    bool NeedsChange(const TcpAdapter &adapter, bool enabled, const AdaptersByNode *adapters, bool useIpState);
    void ToggleBinding(INetCfg *netCfg, INetCfgBindingPath *path, const wxString &displayName, bool enabled);
    TcpAdapterList UnsuitableAmong(const TcpAdapterList &adapters, bool unbindDuplicates);

    bool installNeeded;
    bool upgradeNeeded;
    wxLog *logTarget;
    std::unique_ptr<GrabbedLog> keptLog;
};

}  // namespace
