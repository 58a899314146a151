// Records of adapters by their nodes.
#pragma once

#include <map>

#include "TcpAdapter.h"

/// Finds the first record of each node.
class AdaptersByNode {
public:
    /// @param adapters  must outlive the object.
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
