// Binds the filter driver to adapters and unbinds it. Only WindowsDriverInstaller.cpp includes this.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "AdapterRecords.h"

// NOLINTBEGIN(misc-definitions-in-headers): the definitions are that one file's
namespace {

/// The first record of each node.
class AdaptersByNode {
public:
    /// @param adapters  have to stay.
    explicit AdaptersByNode(const TcpAdapterList &adapters) {
        for (const TcpAdapter &adapter : adapters)
            (void)m_adapters.emplace(adapter.pnpDevNodeId, &adapter);
    }

    /// @return null if there is none.
    [[nodiscard]] const TcpAdapter *Find(const wxString &pnpDevNodeId) const {
        const auto found = m_adapters.find(pnpDevNodeId);
        return found == m_adapters.end() ? nullptr : found->second;
    }

private:
    std::map<wxString, const TcpAdapter *> m_adapters;
};

bool CDriverInstallerThread::SetFilterBindings(bool enable, const TcpAdapterList *adapters, bool useIpState) {
    if (enable && adapters == nullptr)
        return false;
    INetCfg *netCfg = nullptr;
    if (FAILED(AcquireINetCfg(true, &netCfg)))
        return false;
    {
        const std::optional<AdaptersByNode> byNode =
            adapters ? std::make_optional<AdaptersByNode>(*adapters) : std::nullopt;
        ComPtr<IEnumNetCfgComponent> components;
        if (SUCCEEDED(netCfg->EnumComponents(&GUID_DEVCLASS_NET, &components)) && components) {
            ComPtr<INetCfgComponent> component;
            for (; components->Next(1, &component, nullptr) == S_OK && component; component.Reset())
                SetBindingsOf(netCfg, component.Get(), byNode ? &*byNode : nullptr, useIpState);
        }
    }
    (void)ReleaseINetCfg(true, netCfg);
    return true;
}

/// What can't be read of the component leaves it as it is.
void CDriverInstallerThread::SetBindingsOf(INetCfg *netCfg, INetCfgComponent *component, const AdaptersByNode *adapters,
                                           bool useIpState) {
    DWORD characteristics = 0;  // compat 155: only whether they can be read counts
    TcpAdapter adapter;
    if (FAILED(component->GetCharacteristics(&characteristics)) ||
        !ReadText(component, &INetCfgComponent::GetPnpDevNodeId, adapter.pnpDevNodeId))
        return;
    if (!ReadText(component, &INetCfgComponent::GetDisplayName, adapter.displayName))
        adapter.displayName = adapter.pnpDevNodeId;
    ComPtr<INetCfgComponentBindings> bindings;
    ComPtr<IEnumNetCfgBindingPath> paths;
    if (FAILED(component->QueryInterface(IID_INetCfgComponentBindings, &bindings)) || !bindings ||
        FAILED(bindings->EnumBindingPaths(EBP_ABOVE, &paths)) || !paths)
        return;
    ComPtr<INetCfgBindingPath> path;
    for (; paths->Next(1, &path, nullptr) == S_OK && path; path.Reset())
        SetBindingsOfPath(netCfg, path.Get(), adapter, adapters, useIpState);
}

/// Whether the upper end of a binding is the filter driver.
bool LeadsToFilter(INetCfgBindingInterface *binding) {
    ComPtr<INetCfgComponent> upper;
    wxString id;
    return SUCCEEDED(binding->GetUpperComponent(&upper)) && upper &&
           ReadText(upper.Get(), &INetCfgComponent::GetId, id) && id == kFilterComponent;
}

void CDriverInstallerThread::SetBindingsOfPath(INetCfg *netCfg, INetCfgBindingPath *path, const TcpAdapter &adapter,
                                               const AdaptersByNode *adapters, bool useIpState) {
    const bool enabled = path->IsEnabled() == S_OK;
    ComPtr<IEnumNetCfgBindingInterface> interfaces;
    if (FAILED(path->EnumBindingInterfaces(&interfaces)) || !interfaces)
        return;
    ComPtr<INetCfgBindingInterface> binding;
    for (; interfaces->Next(1, &binding, nullptr) == S_OK && binding; binding.Reset()) {
        if (!LeadsToFilter(binding.Get()))
            continue;
        if (NeedsChange(adapter, enabled, adapters, useIpState))
            ToggleBinding(netCfg, path, adapter.displayName, enabled);
        else
            DbgPrint(L"No need to change the bindings of adapter '%s'", Wide(adapter.displayName));
    }
}

bool CDriverInstallerThread::NeedsChange(const TcpAdapter &adapter, bool enabled, const AdaptersByNode *adapters,
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
        ReportFailure(static_cast<unsigned long>(hr), L"INetCfgBindingInterface::Enable()");  // compat 97: another name
        return;
    }
    DbgPrint(L"%s binding from '%s' -> %ls", enabled ? L"Disabling" : L"Enabling", Wide(displayName), kFilterComponent);
    hr = netCfg->Apply();
    if (FAILED(hr))
        ReportFailure(static_cast<unsigned long>(hr), L"INetCfg::Apply()");
}

/// compat 100: only servers before version 6.2 are searched for adapters that share a MAC
bool LooksForDuplicates() {
    OSVERSIONINFOEXW wanted = {};
    wanted.dwOSVersionInfoSize = sizeof(wanted);
    wanted.wProductType = VER_NT_WORKSTATION;
    if (VerifyVersionInfoW(&wanted, VER_PRODUCT_TYPE, VerSetConditionMask(0, VER_PRODUCT_TYPE, VER_EQUAL)) != 0)
        return false;
    wanted.dwMajorVersion = 6;
    wanted.dwMinorVersion = 2;
    DWORDLONG conditions = VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL);
    conditions = VerSetConditionMask(conditions, VER_MINORVERSION, VER_GREATER_EQUAL);
    conditions = VerSetConditionMask(conditions, VER_SERVICEPACKMAJOR, VER_GREATER_EQUAL);
    return VerifyVersionInfoW(&wanted, VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR, conditions) == 0;
}

bool HasValidMac(const TcpAdapter &adapter) {
    constexpr std::size_t shortest = 6;
    return adapter.macAddress.size() >= shortest &&
           adapter.macAddress.find_first_not_of('\0') != adapter.macAddress.npos;
}

/// The virtual adapters of remote access share a MAC that names them.
bool IsRemoteAccess(const TcpAdapter &adapter) {
    return (adapter.characteristics & NCF_VIRTUAL) != 0 && adapter.macAddress.compare(2, 4, " RAS") == 0;
}

/// Adapters by their MACs, in the order of the list.
using AdaptersByMac = std::map<std::string, std::vector<const TcpAdapter *>>;

AdaptersByMac GroupByMac(const TcpAdapterList &adapters) {
    AdaptersByMac groups;
    for (const TcpAdapter &adapter : adapters)
        groups[adapter.macAddress].push_back(&adapter);
    return groups;
}

/// The first other adapter with the same MAC; null if there is none.
const TcpAdapter *FindTwin(const AdaptersByMac &groups, const TcpAdapter &adapter) {
    const std::vector<const TcpAdapter *> &group = groups.at(adapter.macAddress);
    const auto twin = std::find_if(group.begin(), group.end(), [&adapter](const TcpAdapter *other) {
        return other->pnpDevNodeId != adapter.pnpDevNodeId;
    });
    return twin == group.end() ? nullptr : *twin;
}

wxString MacText(const std::string &mac) {
    return VtaCore::toHexString(mac.data(), mac.size());
}

void CDriverInstallerThread::UnbindUnsuitableAdapters() {
    const bool lookForDuplicates = LooksForDuplicates();
    TcpAdapterList adapters;
    GetTcpAdapters(adapters);
    const TcpAdapterList toUnbind = UnsuitableAmong(adapters, lookForDuplicates);
    if (!toUnbind.empty())
        (void)SetFilterBindings(false, &toUnbind, false);
}

/// @return copies that say unbound.
TcpAdapterList CDriverInstallerThread::UnsuitableAmong(const TcpAdapterList &adapters, bool lookForDuplicates) {
    TcpAdapterList toUnbind;
    std::set<wxString> nodesToUnbind;
    const auto mark = [&](const TcpAdapter &adapter) {
        toUnbind.push_back(adapter);
        toUnbind.back().boundToFilter = false;
        nodesToUnbind.insert(adapter.pnpDevNodeId);
    };
    const AdaptersByMac groups = GroupByMac(adapters);
    std::set<std::string> sharedMacs;
    for (const TcpAdapter &adapter : adapters) {
        if (!HasValidMac(adapter)) {
            DbgPrint(L"Adapter '%s' has an invalid MAC - ignoring it", Wide(adapter.displayName));
        } else if (IsRemoteAccess(adapter)) {
            continue;
        } else if (adapter.boundToFilter && !adapter.boundToIp) {
            DbgPrint(L"Adapter '%s' is not bound to TCPIP - marking it to be unbound from QBIMVTA",
                     Wide(adapter.displayName));
            mark(adapter);
        } else if (lookForDuplicates) {
            const TcpAdapter *const twin = FindTwin(groups, adapter);
            if (twin == nullptr)
                continue;
            sharedMacs.insert(adapter.macAddress);
            DbgPrint(L"Adapter '%s' has the same MAC (%s) as adapter '%s'", Wide(adapter.displayName),
                     Wide(MacText(adapter.macAddress)), Wide(twin->displayName));
        }
    }
    for (const std::string &mac : sharedMacs)
        for (const TcpAdapter *adapter : groups.at(mac)) {
            // compat 99: of a physical and a virtual adapter that share a MAC, the physical one loses the filter
            if ((adapter->characteristics & NCF_PHYSICAL) == 0 || nodesToUnbind.count(adapter->pnpDevNodeId) != 0)
                continue;
            DbgPrint(L"Marking physical adapter '%s' with duplicate MAC %s to be unbound from QBIMVTA",
                     Wide(adapter->displayName), Wide(MacText(mac)));
            mark(*adapter);
        }
    return toUnbind;
}

}  // namespace
// NOLINTEND(misc-definitions-in-headers)
