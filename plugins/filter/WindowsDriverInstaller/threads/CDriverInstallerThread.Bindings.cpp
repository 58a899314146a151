// Binds the filter driver to adapters and unbinds it. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverInstallerThread.h"

#include <optional>

#include "NetCfgSession.h"
#include "WindowsDriverInstaller/adapters/AdaptersByNode.h"
#include "WindowsDriverInstaller/adapters/NetworkComponents.h"

namespace {

bool CDriverInstallerThread::SetFilterBindings(bool enable, const TcpAdapterList *adapters, bool useIpState) {
    // not reached: whoever binds has a list
    if (enable && adapters == nullptr)
        return false;
    const NetCfgSession netCfg(*this, NetCfgSession::Access::Write);
    if (FAILED(netCfg.Result()))
        return false;
    const std::optional<AdaptersByNode> byNode =
        adapters != nullptr ? std::make_optional<AdaptersByNode>(*adapters) : std::nullopt;
    ForEachNetworkComponent(netCfg.Get(), [&](INetCfgComponent *component) {
        SetBindingsOf(netCfg.Get(), component, byNode ? &*byNode : nullptr, useIpState);
    });
    return true;
}

bool CDriverInstallerThread::UnbindAll() {
    return SetFilterBindings(false, nullptr, false);
}

bool CDriverInstallerThread::RestoreBindings(const TcpAdapterList &adapters) {
    return SetFilterBindings(false, &adapters, false);
}

bool CDriverInstallerThread::BindWhereIpWas(const TcpAdapterList &adapters) {
    return SetFilterBindings(true, &adapters, true);
}

/// If something of the component can't be read, its bindings stay.
void CDriverInstallerThread::SetBindingsOf(INetCfg *netCfg, INetCfgComponent *component, const AdaptersByNode *adapters,
                                           bool useIpState) {
    DWORD characteristics = 0;  // compat 155: only whether they can be read counts
    TcpAdapter adapter;
    if (FAILED(component->GetCharacteristics(&characteristics)) ||
        !ReadNetworkComponentText(component, &INetCfgComponent::GetPnpDevNodeId, adapter.pnpDevNodeId))
        return;
    if (!ReadNetworkComponentText(component, &INetCfgComponent::GetDisplayName, adapter.displayName))
        adapter.displayName = adapter.pnpDevNodeId;
    ComPtr<INetCfgComponentBindings> bindings;
    ComPtr<IEnumNetCfgBindingPath> paths;
    if (FAILED(component->QueryInterface(IID_INetCfgComponentBindings, &bindings)) || !bindings ||
        FAILED(bindings->EnumBindingPaths(EBP_ABOVE, &paths)) || !paths)
        return;
    ForEachNetworkObject<INetCfgBindingPath>(
        paths.Get(), [&](INetCfgBindingPath *path) { SetBindingsOfPath(netCfg, path, adapter, adapters, useIpState); });
}

/// Whether the upper end of a binding is the filter driver.
bool BindingLeadsToFilter(INetCfgBindingInterface *binding) {
    ComPtr<INetCfgComponent> upper;
    wxString id;
    return SUCCEEDED(binding->GetUpperComponent(&upper)) && upper &&
           ReadNetworkComponentText(upper.Get(), &INetCfgComponent::GetId, id) && id == kFilterComponent;
}

void CDriverInstallerThread::SetBindingsOfPath(INetCfg *netCfg, INetCfgBindingPath *path, const TcpAdapter &adapter,
                                               const AdaptersByNode *adapters, bool useIpState) {
    const bool enabled = path->IsEnabled() == S_OK;
    ComPtr<IEnumNetCfgBindingInterface> interfaces;
    if (FAILED(path->EnumBindingInterfaces(&interfaces)) || !interfaces)
        return;
    ForEachNetworkObject<INetCfgBindingInterface>(interfaces.Get(), [&](INetCfgBindingInterface *binding) {
        if (!BindingLeadsToFilter(binding))
            return;
        if (NeedsBindingChange(adapter, enabled, adapters, useIpState))
            ToggleBinding(netCfg, path, adapter.displayName, enabled);
        else
            DbgPrint(L"No need to change the bindings of adapter '%s'", Wide(adapter.displayName));
    });
}

bool CDriverInstallerThread::NeedsBindingChange(const TcpAdapter &adapter, bool enabled, const AdaptersByNode *adapters,
                                                bool useIpState) {
    DbgPrint(L"Adapter '%s' is%s bound to %ls", Wide(adapter.displayName), enabled ? L"" : L" not", kFilterComponent);
    if (adapters == nullptr)
        return enabled;
    const TcpAdapter *const record = adapters->Find(adapter.pnpDevNodeId);
    if (record == nullptr)
        return false;
    DbgPrint(L"Original bindings of adapter '%s' are %ls=%d %ls=%d", Wide(adapter.displayName), L"ms_tcpip",
             record->boundToIp ? 1 : 0, kFilterComponent, record->boundToFilter ? 1 : 0);
    return (useIpState ? record->boundToIp : record->boundToFilter) != enabled;
}

/// compat 98: applied at once, for this one change; a failure is reported and not retried
void CDriverInstallerThread::ToggleBinding(INetCfg *netCfg, INetCfgBindingPath *path, const wxString &displayName,
                                           bool enabled) {
    HRESULT hr = path->Enable(enabled ? FALSE : TRUE);
    if (FAILED(hr)) {
        ReportFailure(hr, L"INetCfgBindingInterface::Enable()");  // compat 97: another name
        return;
    }
    DbgPrint(L"%s binding from '%s' -> %ls", enabled ? L"Disabling" : L"Enabling", Wide(displayName), kFilterComponent);
    hr = netCfg->Apply();
    if (FAILED(hr))
        ReportFailure(hr, L"INetCfg::Apply()");
}

}  // namespace
