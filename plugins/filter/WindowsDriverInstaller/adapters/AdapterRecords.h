// What the system tells about a network adapter.
#pragma once

#include <map>
#include <optional>

#include <windows.h>
#include <iphlpapi.h>
#include <netcfgx.h>
#include <wrl/client.h>
#include <wx/string.h>

#include "TcpAdapter.h"

/// A text that a component hands out, such as its display name. @return false where it has none.
bool ReadComponentText(INetCfgComponent *component, HRESULT (STDMETHODCALLTYPE INetCfgComponent::*read)(LPWSTR *),
                       wxString &text);

/// What binds to adapters, as far as it is there.
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

/// The records of IP Helper by the names of their adapters, which know no case; of several the first counts.
class IpHelperByName {
public:
    /// @param record  the first of a chain, which has to stay; may be null.
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

/// @return the record without its bindings; nothing for a component that is no adapter.
std::optional<TcpAdapter> ReadAdapter(INetCfgComponent *component, const IpHelperByName &ipHelper);
