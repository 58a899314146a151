// The removal of the drivers. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverUninstallerThread.h"

#include "NetCfgSession.h"
#include "WindowsDriverInstaller/cleanup/HealthCheckFiles.h"
#include "WindowsDriverInstaller/cleanup/SetupLibrary.h"
#include "WindowsDriverInstaller/drivers/ServiceControl.h"
#include "common/RequireObject.h"

namespace {

constexpr wchar_t kLegacyComponent[] = L"rxwim";

void CDriverUninstallerThread::Run() {
    succeeded = UninstallDriver();
}

bool CDriverUninstallerThread::UninstallDriver() {
    DbgPrint(L"UninstallDriver running.");
    const SetupLibrary setup;
    UninstallOemInf uninstallOemInf = nullptr;
    setup.FindFunction("SetupUninstallOEMInfW", uninstallOemInf);
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

HRESULT CDriverUninstallerThread::UninstallComponent(const wchar_t *componentId, bool *notInstalled) {
    *notInstalled = false;
    DbgPrint(L"Trying to uninstall '%ls'...", componentId);
    const NetCfgSession netCfg(*this, NetCfgSession::Access::Write);
    if (FAILED(netCfg.Result()))
        return netCfg.Result();
    HRESULT hr = RemoveComponent(netCfg.Get(), componentId);
    if (hr == S_OK) {
        hr = CallInStep(ApplyingInetCfgChanges, L"INetCfg::Apply", [&netCfg] { return netCfg.Get()->Apply(); });
    } else if (hr == S_FALSE) {
        DbgPrint(L"'%ls' is not installed", componentId);
        *notInstalled = true;
        hr = S_OK;
    } else if (hr != NETCFG_S_REBOOT) {  // a reboot request leaves the rest to the boot: nothing is applied
        NoteFailedStep();
    }
    return hr;
}

HRESULT CDriverUninstallerThread::RemoveComponent(INetCfg *netCfg, const wchar_t *componentId) {
    OBO_TOKEN token = {};
    token.Type = OBO_USER;

    ComPtr<INetCfgComponent> component;
    StartStep(FindingComponent);
    HRESULT hr = netCfg->FindComponent(componentId, &component);  // the only failure that the caller notes
    if (hr == S_OK)
        hr = RequireObject(hr, component);
    if (FAILED(hr))
        ReportFailure(hr, L"INetCfg::FindComponent");
    EndStep(FindingComponent);
    if (hr != S_OK)
        return hr;

    GUID classGuid = {};
    hr = CallInStep(GettingClassGUID, L"INetCfgComponent::GetClassGuid",
                    [&] { return component->GetClassGuid(&classGuid); });
    if (FAILED(hr))
        return hr;
    ComPtr<INetCfgClass> netClass;
    hr = CallInStep(GettingINetCfgClass, L"INetCfg::QueryNetCfgClass", [&] {
        const HRESULT queried = netCfg->QueryNetCfgClass(&classGuid, IID_INetCfgClass, &netClass);
        return RequireObject(queried, netClass);
    });
    if (FAILED(hr))
        return hr;
    ComPtr<INetCfgClassSetup> classSetup;
    hr = CallInStep(GettingINetCfgClassSetup, L"INetCfgClass::QueryInterface(IID_INetCfgClassSetup)", [&] {
        const HRESULT queried = netClass->QueryInterface(IID_INetCfgClassSetup, &classSetup);
        return RequireObject(queried, classSetup);
    });
    if (FAILED(hr))
        return hr;
    return CallInStep(UninstallingDriver, L"INetCfgClassSetup::DeInstall",
                      [&] { return classSetup->DeInstall(component.Get(), &token, nullptr); });
}

HRESULT CDriverUninstallerThread::IsFilterComponentPresent() {
    StartStep(CheckingIfStillInstalled);
    HRESULT hr = S_OK;
    {
        const NetCfgSession netCfg(*this, NetCfgSession::Access::Read);
        hr = netCfg.Result();
        if (hr == S_OK) {
            ComPtr<INetCfgComponent> component;
            hr = netCfg.Get()->FindComponent(kFilterComponent, &component);
            if (FAILED(hr))
                ReportFailure(hr, L"INetCfg::FindComponent");
        }
    }
    EndStep(CheckingIfStillInstalled);
    return hr;
}

}  // namespace
