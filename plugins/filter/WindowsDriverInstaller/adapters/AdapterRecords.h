// Reads the records of network adapters.
#pragma once

#include <map>
#include <optional>

#include <windows.h>
#include <iphlpapi.h>
#include <netcfgx.h>
#include <wrl/client.h>
#include <wx/string.h>

#include "TcpAdapter.h"

/// Reads a text of a component, such as its display name. @return false if it has none.
bool ReadComponentText(INetCfgComponent *component, HRESULT (STDMETHODCALLTYPE INetCfgComponent::*read)(LPWSTR *),
                       wxString &text);

/// The bindings of a component, which may be missing.
class ComponentBindings {
public:
    ComponentBindings(INetCfg *netCfg, const wchar_t *componentId) {
        if (netCfg->FindComponent(componentId, &m_component) != S_OK || !m_component)
            return;
        (void)m_component->QueryInterface(IID_INetCfgComponentBindings, &m_bindings);
    }

    [[nodiscard]] bool IsBoundTo(INetCfgComponent *adapter) const {
        return m_bindings && m_bindings->IsBoundTo(adapter) == S_OK;
    }

private:
    Microsoft::WRL::ComPtr<INetCfgComponent> m_component;
    Microsoft::WRL::ComPtr<INetCfgComponentBindings> m_bindings;
};

struct LessWithoutCase {
    bool operator()(const wxString &a, const wxString &b) const { return a.CmpNoCase(b) < 0; }
};

/// IP Helper's records by adapter name, ignoring case. The first of several counts.
class IpHelperByName {
public:
    /// @param record  the first of a chain, which must outlive the object; may be null.
    explicit IpHelperByName(const IP_ADAPTER_INFO *record) {
        for (; record != nullptr; record = record->Next)
            (void)m_records.emplace(record->AdapterName, record);
    }

    /// @return null if there is none.
    [[nodiscard]] const IP_ADAPTER_INFO *Find(const wxString &bindName) const {
        const auto found = m_records.find(bindName);
        return found == m_records.end() ? nullptr : found->second;
    }

private:
    std::map<wxString, const IP_ADAPTER_INFO *, LessWithoutCase> m_records;
};

/// Reads everything but the bindings. @return nothing for a component that is not an adapter.
std::optional<TcpAdapter> ReadAdapter(INetCfgComponent *component, const IpHelperByName &ipHelper);
