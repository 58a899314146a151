// The removal of the filter driver's network component. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverUninstallerThread.h"

#include "NetCfgSession.h"
#include "common/RequireObject.h"

namespace {

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
