// The removal of the drivers, as a driver thread does it. Only WindowsDriverInstaller.cpp includes this.
#pragma once

#include "DriverThreadNetCfg.h"
#include "FailureReport.h"
#include "OrphanScan.h"
#include "ServiceControl.h"
#include "SetupLibrary.h"

// NOLINTBEGIN(misc-definitions-in-headers): the definitions are that one file's
namespace {

constexpr wchar_t kLegacyComponent[] = L"rxwim";

void CDriverUninstallerThread::Run() {
    succeeded = UninstallDriver();
}

bool CDriverUninstallerThread::UninstallDriver() {
    DbgPrint(L"UninstallDriver running.");
    const SetupLibrary setup;
    UninstallOemInf uninstallOemInf = nullptr;
    setup.Find("SetupUninstallOEMInfW", uninstallOemInf);
    DbgPrint(L"SetupUninstallOEMInfW() is at address 0x%p", reinterpret_cast<void *>(uninstallOemInf));
    RemoveHealthCheckFiles();
    if (IsWfpServiceInstalled())
        RemoveWfpCallout();

    bool notInstalled = false;
    HRESULT hr = UninstallComponent(kFilterComponent, &notInstalled);
    if (notInstalled)
        hr = UninstallComponent(kLegacyComponent, &notInstalled);
    // compat 111: loses a reboot request
    if (SUCCEEDED(hr))
        hr = RemoveOemInfFiles(uninstallOemInf);
    DbgPrint(L"Checking if %ls is still installed", kFilterComponent);
    if (IsFilterComponentPresent() == S_FALSE) {
        // compat 112: with the component gone only the orphans decide, whatever failed before
        DbgPrint(L"Checking for orphaned QBIMVTA_MP bindings");
        hr = CleanUpOrphans();
    }
    if (hr == NETCFG_S_REBOOT)
        rebootRequired = true;
    // compat 115: a script does not learn of the reboot request
    return hr == S_OK || hr == NETCFG_S_REBOOT;
}

/// compat 113: no failure in here stops the removal or shows in its result
void CDriverUninstallerThread::RemoveWfpCallout() {
    if (!StopWFPCallout(true))
        wxLogError("StopWFPCallout() failed.");
    else if (!UninstallWFPCallout())
        wxLogError("UninstallWFPCallout() failed.");
}

HRESULT CDriverUninstallerThread::UninstallComponent(const wchar_t *componentId, bool *notInstalled) {
    *notInstalled = false;
    DbgPrint(L"Trying to uninstall '%ls'...", componentId);
    INetCfg *netCfg = nullptr;
    HRESULT hr = AcquireINetCfg(true, &netCfg);
    if (FAILED(hr))
        return hr;
    hr = RemoveComponent(netCfg, componentId);
    if (hr == S_OK) {
        hr = CallInStep(ApplyingInetCfgChanges, 300, L"INetCfg::Apply", [netCfg] { return netCfg->Apply(); });
    } else if (hr == S_FALSE) {
        DbgPrint(L"'%ls' is not installed", componentId);
        *notInstalled = true;
        hr = S_OK;
    } else if (hr != NETCFG_S_REBOOT) {  // which leaves the rest to the boot: nothing is applied
        NoteFailedStep();
    }
    (void)ReleaseINetCfg(true, netCfg);
    return hr;
}

HRESULT CDriverUninstallerThread::RemoveComponent(INetCfg *netCfg, const wchar_t *componentId) {
    OBO_TOKEN token = {};
    token.Type = OBO_USER;

    ComPtr<INetCfgComponent> component;
    StartStep(FindingComponent, 15);
    HRESULT hr = netCfg->FindComponent(componentId, &component);  // the one failure that the caller notes
    if (hr == S_OK)
        hr = Obtained(hr, component);
    if (FAILED(hr))
        ReportFailure(static_cast<unsigned long>(hr), L"INetCfg::FindComponent");
    EndStep(FindingComponent);
    if (hr != S_OK)
        return hr;

    GUID classGuid = {};
    hr = CallInStep(GettingClassGUID, 10, L"INetCfgComponent::GetClassGuid",
                    [&] { return component->GetClassGuid(&classGuid); });
    if (FAILED(hr))
        return hr;
    ComPtr<INetCfgClass> netClass;
    hr = CallInStep(GettingINetCfgClass, 10, L"INetCfg::QueryNetCfgClass", [&] {
        const HRESULT queried = netCfg->QueryNetCfgClass(&classGuid, IID_INetCfgClass, &netClass);
        return Obtained(queried, netClass);
    });
    if (FAILED(hr))
        return hr;
    ComPtr<INetCfgClassSetup> classSetup;
    hr = CallInStep(GettingINetCfgClassSetup, 10, L"INetCfgClass::QueryInterface(IID_INetCfgClassSetup)", [&] {
        const HRESULT queried = netClass->QueryInterface(IID_INetCfgClassSetup, &classSetup);
        return Obtained(queried, classSetup);
    });
    if (FAILED(hr))
        return hr;
    return CallInStep(UninstallingDriver, 600, L"INetCfgClassSetup::DeInstall",
                      [&] { return classSetup->DeInstall(component.Get(), &token, nullptr); });
}

HRESULT CDriverUninstallerThread::IsFilterComponentPresent() {
    StartStep(CheckingIfStillInstalled, 60);
    INetCfg *netCfg = nullptr;
    HRESULT hr = AcquireINetCfg(false, &netCfg);
    if (hr == S_OK) {
        {
            ComPtr<INetCfgComponent> component;
            hr = netCfg->FindComponent(kFilterComponent, &component);
        }
        if (FAILED(hr))
            ReportFailure(static_cast<unsigned long>(hr), L"INetCfg::FindComponent");
        (void)ReleaseINetCfg(false, netCfg);
    }
    EndStep(CheckingIfStillInstalled);
    return hr;
}

HRESULT CDriverUninstallerThread::CleanUpOrphans() {
    constexpr int maxAttempts = 4;
    StartStep(CleaningUpOrphans, 180);
    int attempts = 0;
    HRESULT hr = S_OK;
    while (attempts < maxAttempts && !OrphanScanIsClean(*dom)) {
        DbgPrint(L"HrCleanupOrphans: Found an orphan");
        bool notInstalled = false;
        hr = UninstallComponent(kMiniport, &notInstalled);
        DbgPrint(L"HrCleanupOrphans: Uninstall orphan hr=0x%08lx", static_cast<unsigned long>(hr));
        if (hr == NETCFG_S_REBOOT) {
            rebootRequired = true;
        } else if (hr != S_OK) {
            NoteFailedStep();
            EndStep(CleaningUpOrphans);
            return hr;
        }
        ++attempts;
    }
    EndStep(CleaningUpOrphans);
    if (attempts < maxAttempts)
        return hr;

    // compat 114: under no limit of its own from here on, and a reboot request whatever comes of it
    if (!OrphanScanIsClean(*dom)) {
        DbgPrint(L"HrCleanupOrphans: registry cleanup");
        cleanup_registry();
    }
    DbgPrint(L"HrCleanupOrphans: orphan scan needs reboot (%d:%d)", maxAttempts, static_cast<int>(hr));
    rebootRequired = true;
    return NETCFG_S_REBOOT;
}

}  // namespace
// NOLINTEND(misc-definitions-in-headers)
