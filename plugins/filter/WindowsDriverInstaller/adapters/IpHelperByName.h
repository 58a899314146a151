// IP Helper's records by the names of their adapters.
#pragma once

#include <map>

#include <windows.h>
#include <iphlpapi.h>
#include <wx/string.h>

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
    struct LessWithoutCase {
        bool operator()(const wxString &a, const wxString &b) const { return a.CmpNoCase(b) < 0; }
    };
    std::map<wxString, const IP_ADAPTER_INFO *, LessWithoutCase> m_records;
};
