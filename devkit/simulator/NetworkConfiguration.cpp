#include "NetworkConfiguration.h"

#include <algorithm>

#include "AnyCase.h"
#include "DeviceManager.h"

namespace Simulator {

namespace {

constexpr const char *kMethods[] = {
    "INetCfg::QueryInterface",
    "INetCfg::Initialize",
    "INetCfg::Uninitialize",
    "INetCfg::Apply",
    "INetCfg::Cancel",
    "INetCfg::EnumComponents",
    "INetCfg::FindComponent",
    "INetCfg::QueryNetCfgClass",
    "INetCfgLock::QueryInterface",
    "INetCfgLock::AcquireWriteLock",
    "INetCfgLock::ReleaseWriteLock",
    "INetCfgLock::IsWriteLocked",
    "INetCfgClass::QueryInterface",
    "INetCfgClass::FindComponent",
    "INetCfgClass::EnumComponents",
    "INetCfgClassSetup::QueryInterface",
    "INetCfgClassSetup::SelectAndInstall",
    "INetCfgClassSetup::Install",
    "INetCfgClassSetup::DeInstall",
    "INetCfgComponent::QueryInterface",
    "INetCfgComponent::GetId",
    "INetCfgComponent::GetClassGuid",
    "INetCfgComponent::GetDisplayName",
    "INetCfgComponent::SetDisplayName",
    "INetCfgComponent::GetHelpText",
    "INetCfgComponent::GetCharacteristics",
    "INetCfgComponent::GetInstanceGuid",
    "INetCfgComponent::GetPnpDevNodeId",
    "INetCfgComponent::GetBindName",
    "INetCfgComponent::GetDeviceStatus",
    "INetCfgComponent::OpenParamKey",
    "INetCfgComponent::RaisePropertyUi",
    "IEnumNetCfgBindingInterface::Clone",
    "IEnumNetCfgBindingInterface::Next",
    "IEnumNetCfgBindingInterface::QueryInterface",
    "IEnumNetCfgBindingInterface::Reset",
    "IEnumNetCfgBindingInterface::Skip",
    "IEnumNetCfgBindingPath::Clone",
    "IEnumNetCfgBindingPath::Next",
    "IEnumNetCfgBindingPath::QueryInterface",
    "IEnumNetCfgBindingPath::Reset",
    "IEnumNetCfgBindingPath::Skip",
    "IEnumNetCfgComponent::Clone",
    "IEnumNetCfgComponent::Next",
    "IEnumNetCfgComponent::QueryInterface",
    "IEnumNetCfgComponent::Reset",
    "IEnumNetCfgComponent::Skip",
    "INetCfgBindingInterface::GetLowerComponent",
    "INetCfgBindingInterface::GetName",
    "INetCfgBindingInterface::GetUpperComponent",
    "INetCfgBindingInterface::QueryInterface",
    "INetCfgBindingPath::Enable",
    "INetCfgBindingPath::EnumBindingInterfaces",
    "INetCfgBindingPath::GetDepth",
    "INetCfgBindingPath::GetOwner",
    "INetCfgBindingPath::GetPathToken",
    "INetCfgBindingPath::IsEnabled",
    "INetCfgBindingPath::IsSamePathAs",
    "INetCfgBindingPath::IsSubPathOf",
    "INetCfgBindingPath::QueryInterface",
    "INetCfgComponentBindings::BindTo",
    "INetCfgComponentBindings::EnumBindingPaths",
    "INetCfgComponentBindings::IsBindableTo",
    "INetCfgComponentBindings::IsBoundTo",
    "INetCfgComponentBindings::MoveAfter",
    "INetCfgComponentBindings::MoveBefore",
    "INetCfgComponentBindings::QueryInterface",
    "INetCfgComponentBindings::SupportsBindingInterface",
    "INetCfgComponentBindings::UnbindFrom",
};

template <class Wanted>
NetworkComponent *FindFirst(NetworkState &state, Wanted wanted) {
    const auto found = std::find_if(state.components.begin(), state.components.end(), wanted);
    return found == state.components.end() ? nullptr : &*found;
}

}  // namespace

std::span<const char *const> NetworkMethods() {
    return kMethods;
}

NetworkComponent *ComponentWithId(NetworkState &state, const std::wstring &id) {
    return FindFirst(state, [&id](const NetworkComponent &component) { return SameInAnyCase(component.id, id); });
}

NetworkComponent *ComponentWithKey(NetworkState &state, unsigned key) {
    const auto found = std::lower_bound(state.components.begin(), state.components.end(), key,
                                        [](const NetworkComponent &one, unsigned wanted) { return one.key < wanted; });
    return found == state.components.end() || found->key != key ? nullptr : &*found;
}

NetworkComponent *ComponentWithNode(NetworkState &state, const std::wstring &pnpDevNodeId) {
    return FindFirst(state, [&](const NetworkComponent &component) {
        return component.adapter && SameInAnyCase(component.adapter->pnpDevNodeId, pnpDevNodeId);
    });
}

unsigned PutComponent(NetworkState &state, NetworkComponent component) {
    component.key = ++state.lastKey;
    if (component.adapter && component.adapter->index == 0)
        component.adapter->index = component.key;
    state.components.push_back(std::move(component));
    return state.lastKey;
}

void NetworkConfiguration::Put(NetworkComponent component) {
    Use([&component](NetworkState &state) { return PutComponent(state, std::move(component)); });
}

void NetworkConfiguration::PutAdapter(NetworkAdapter adapter) {
    NetworkComponent component{.id = adapter.id, .classGuid = GUID_DEVCLASS_NET};
    component.adapter = std::move(adapter);
    Put(std::move(component));
}

void NetworkConfiguration::RemoveAdapter(const std::wstring &pnpDevNodeId) {
    Use([&pnpDevNodeId](NetworkState &state) {
        return std::erase_if(state.components, [&](const NetworkComponent &component) {
            return component.adapter && SameInAnyCase(component.adapter->pnpDevNodeId, pnpDevNodeId);
        });
    });
}

void NetworkConfiguration::Bind(const std::wstring &pnpDevNodeId, const std::wstring &componentId, bool enabled) {
    Use([&](NetworkState &state) { state.bindings.Set({pnpDevNodeId, componentId, enabled}); });
}

std::optional<bool> NetworkConfiguration::Binding(const std::wstring &pnpDevNodeId,
                                                  const std::wstring &componentId) const {
    NetworkState state = Read();
    const NetworkBinding *binding = state.bindings.Find(pnpDevNodeId, componentId);
    if (binding == nullptr || ComponentWithNode(state, pnpDevNodeId) == nullptr ||
        ComponentWithId(state, componentId) == nullptr)
        return std::nullopt;
    return binding->enabled;
}

void NetworkConfiguration::OnMoment(std::function<void(const NetworkMoment &)> observer) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_observer = std::move(observer);
}

void NetworkConfiguration::Tell(const NetworkMoment &moment) const {
    const InsideSimulator inside;
    std::function<void(const NetworkMoment &)> observer;
    {
        const LockGuard guard(m_lock);
        observer = m_observer;
    }
    if (observer)
        observer(moment);
}

bool NetworkConfiguration::Has(const std::wstring &id) const {
    NetworkState state = Read();
    return ComponentWithId(state, id) != nullptr;
}

void NetworkConfiguration::LockFromElsewhere(const std::wstring &description) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_state.lock = {description, false};
}

void NetworkConfiguration::Unlock() {
    Use([](NetworkState &state) { state.lock.reset(); });
}

void NetworkConfiguration::EndProcess() {
    Use([](NetworkState &state) {
        if (state.lock && state.lock->inThisProcess)
            state.lock.reset();
    });
}

void NetworkConfiguration::Boot() {
    Use([](NetworkState &state) {
        state.lock.reset();
        state.arp.clear();
    });
    const NetworkState state = Read();
    for (const NetworkComponent &component : state.components) {
        if (component.goesAtBoot)
            Remove(component.key);
    }
}

NetworkState NetworkConfiguration::Read() const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    return m_state;
}

void NetworkConfiguration::Remove(unsigned key) {
    const InsideSimulator inside;
    std::wstring lastOfId;
    {
        const LockGuard guard(m_lock);
        const NetworkComponent *component = ComponentWithKey(m_state, key);
        if (component == nullptr)
            return;
        const std::wstring id = component->id;
        std::erase_if(m_state.components, [key](const NetworkComponent &other) { return other.key == key; });
        if (ComponentWithId(m_state, id) == nullptr) {
            lastOfId = id;
            m_state.bindings.RemoveOf(id);
        }
    }
    if (!lastOfId.empty())
        m_devices->RemoveOf(lastOfId);
}

}  // namespace Simulator
