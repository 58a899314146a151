// Bindings as an engine sees and changes them.
#include <algorithm>
#include <utility>

#include "NetworkEngine.h"

namespace Simulator {

namespace {

constexpr wchar_t kPathSeparator = L'>';

/// The binding in the machine's list; null if there is none, or one of its ends was removed.
const NetworkBinding *BindingBetween(NetworkState &state, const BindingEnds &ends) {
    const NetworkComponent *adapter = ComponentWithKey(state, ends.adapter);
    const NetworkComponent *component = ComponentWithKey(state, ends.component);
    if (adapter == nullptr || !adapter->adapter || component == nullptr)
        return nullptr;
    return state.bindings.Find(adapter->adapter->pnpDevNodeId, ends.path.empty() ? component->id : ends.path);
}

/// The ids of a path's components, the uppermost first.
std::vector<std::wstring> ComponentsOf(const std::wstring &path) {
    std::vector<std::wstring> components;
    for (std::size_t begin = 0, end = 0; end != path.npos; begin = end + 1) {
        end = path.find(kPathSeparator, begin);
        components.push_back(path.substr(begin, end - begin));
    }
    return components;
}

bool HasOthersAbove(const std::wstring &path) {
    return path.find(kPathSeparator) != path.npos;
}

/// In the order of the components above it.
void AppendThoseAbove(const NetworkState &state, const NetworkComponent &adapter, std::vector<BindingEnds> &bindings) {
    if (!adapter.adapter)
        return;
    struct Bound {
        std::wstring lowest;  ///< The component next to the adapter.
        std::wstring path;    ///< Empty if that is the only one.
    };
    std::vector<Bound> bound;
    for (const NetworkBinding *each : state.bindings.OfAdapter(adapter.adapter->pnpDevNodeId))
        bound.push_back(
            {ComponentsOf(each->component).back(), HasOthersAbove(each->component) ? each->component : L""});
    for (const NetworkComponent &other : state.components)
        for (const Bound &each : bound)
            if (SameInAnyCase(each.lowest, other.id))
                bindings.push_back({adapter.key, other.key, each.path});
}

void AppendThoseBelow(const NetworkState &state, const NetworkComponent &component,
                      std::vector<BindingEnds> &bindings) {
    for (const NetworkComponent &other : state.components)
        if (other.adapter && state.bindings.Find(other.adapter->pnpDevNodeId, component.id) != nullptr)
            bindings.push_back({other.key, component.key});
}

}  // namespace

HRESULT NetworkEngine::IsEnabled(const BindingEnds &ends) {
    return WhenInitialized([&](NetworkState &state) -> HRESULT {
        const NetworkBinding *binding = BindingBetween(state, ends);
        if (binding == nullptr)
            return NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT;
        const NetworkBinding *changed = m_changed.Find(binding->adapter, binding->component);
        return (changed == nullptr ? *binding : *changed).enabled ? S_OK : S_FALSE;
    });
}

HRESULT NetworkEngine::Enable(const BindingEnds &ends, bool enable) {
    return WhenLocked([&](NetworkState &state) -> HRESULT {
        const NetworkBinding *binding = BindingBetween(state, ends);
        if (binding == nullptr)
            return NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT;
        m_changed.Set({binding->adapter, binding->component, enable});
        return S_OK;
    });
}

HRESULT NetworkEngine::BindingsOf(unsigned key, bool above, std::vector<BindingEnds> &bindings) {
    return WhenInitialized([&](NetworkState &state) -> HRESULT {
        const NetworkComponent *const component = ComponentWithKey(state, key);
        if (component == nullptr)
            return NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT;
        if (above)
            AppendThoseAbove(state, *component, bindings);
        else
            AppendThoseBelow(state, *component, bindings);
        return S_OK;
    });
}

HRESULT NetworkEngine::InterfacesOf(const BindingEnds &ends, std::vector<BindingEnds> &interfaces) {
    return WhenInitialized([&](NetworkState &state) -> HRESULT {
        const NetworkBinding *const binding = BindingBetween(state, ends);
        if (binding == nullptr)
            return NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT;
        std::vector<std::wstring> above = ComponentsOf(binding->component);
        above.pop_back();
        interfaces = {ends};
        for (; !above.empty(); above.pop_back())
            if (const NetworkComponent *const upper = ComponentWithId(state, above.back()))
                interfaces.insert(interfaces.begin(), {interfaces.front().component, upper->key});
        return S_OK;
    });
}

std::vector<NetworkBinding> NetworkEngine::Commit(NetworkState &state) {
    std::vector<NetworkBinding> applied;
    const NetworkBindingList changes = std::exchange(m_changed, {});
    for (const NetworkBinding &change : changes) {
        const NetworkBinding *const binding = state.bindings.Find(change.adapter, change.component);
        if (binding == nullptr || binding->enabled == change.enabled)
            continue;
        state.bindings.Set(change);
        applied.push_back(*binding);
    }
    return applied;
}

}  // namespace Simulator
