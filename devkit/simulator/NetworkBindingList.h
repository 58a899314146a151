// The bindings of network components to adapters, found by their ends.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "AnyCase.h"

namespace Simulator {

/// A component (a protocol, a filter) above an adapter. It counts while both exist.
struct NetworkBinding {
    std::wstring adapter;    ///< Its pnpDevNodeId.
    std::wstring component;  ///< Its id, after the ids of those above it in the path, if any: L"upper>filter".
    bool enabled = true;
};

/// One for each pair of ends, in creation order. Names are case-insensitive.
class NetworkBindingList {
public:
    /// Creates a binding, or changes it.
    void Set(const NetworkBinding &binding);
    /// @return null if there is none.
    [[nodiscard]] const NetworkBinding *Find(const std::wstring &pnpDevNodeId, const std::wstring &componentId) const;
    [[nodiscard]] std::vector<const NetworkBinding *> OfAdapter(const std::wstring &pnpDevNodeId) const;
    void RemoveOf(const std::wstring &componentId);

    [[nodiscard]] auto begin() const { return m_bindings.begin(); }
    [[nodiscard]] auto end() const { return m_bindings.end(); }
    void clear() { *this = {}; }

private:
    using PlacesOfAdapter = std::map<std::wstring, std::size_t, LessInAnyCase>;

    std::vector<NetworkBinding> m_bindings;
    std::map<std::wstring, PlacesOfAdapter, LessInAnyCase> m_places;  ///< In m_bindings, by adapter and component.
};

}  // namespace Simulator
