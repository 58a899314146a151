// Bindings as an engine sees and changes them.
#include <utility>

#include "NetworkEngine.h"

namespace Simulator {

namespace {

/// The binding in the machine's list; null if there is none, or an end of it has gone.
const NetworkBinding *BindingBetween(NetworkState &state, const BindingEnds &ends) {
    const NetworkComponent *adapter = ComponentWithKey(state, ends.adapter);
    const NetworkComponent *component = ComponentWithKey(state, ends.component);
    if (adapter == nullptr || !adapter->adapter || component == nullptr)
        return nullptr;
    return FindBinding(state.bindings, adapter->adapter->pnpDevNodeId, component->id);
}

}  // namespace

HRESULT NetworkEngine::IsEnabled(const BindingEnds &ends) {
    return WhenInitialized([&](NetworkState &state) -> HRESULT {
        const NetworkBinding *binding = BindingBetween(state, ends);
        if (binding == nullptr)
            return NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT;
        const NetworkBinding *changed = FindBinding(m_changed, binding->adapter, binding->component);
        return (changed == nullptr ? *binding : *changed).enabled ? S_OK : S_FALSE;
    });
}

HRESULT NetworkEngine::Enable(const BindingEnds &ends, bool enable) {
    return WhenLocked([&](NetworkState &state) -> HRESULT {
        const NetworkBinding *binding = BindingBetween(state, ends);
        if (binding == nullptr)
            return NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT;
        SetBinding(m_changed, {binding->adapter, binding->component, enable});
        return S_OK;
    });
}

HRESULT NetworkEngine::BindingsOf(unsigned key, bool above, std::vector<BindingEnds> &bindings) {
    return WhenInitialized([&](NetworkState &state) -> HRESULT {
        if (ComponentWithKey(state, key) == nullptr)
            return NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT;
        for (const NetworkComponent &other : state.components) {
            const BindingEnds ends = above ? BindingEnds{key, other.key} : BindingEnds{other.key, key};
            if (BindingBetween(state, ends) != nullptr)
                bindings.push_back(ends);
        }
        return S_OK;
    });
}

std::vector<NetworkBinding> NetworkEngine::Commit(NetworkState &state) {
    std::vector<NetworkBinding> applied;
    for (const NetworkBinding &change : std::exchange(m_changed, {})) {
        NetworkBinding *binding = FindBinding(state.bindings, change.adapter, change.component);
        if (binding == nullptr || binding->enabled == change.enabled)
            continue;
        binding->enabled = change.enabled;
        applied.push_back(*binding);
    }
    return applied;
}

}  // namespace Simulator
