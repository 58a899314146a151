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
    return FindFirst(state, [key](const NetworkComponent &component) { return component.key == key; });
}

void NetworkConfiguration::Put(NetworkComponent component) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    component.key = ++m_lastKey;
    m_state.components.push_back(std::move(component));
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
        if (ComponentWithId(m_state, id) == nullptr)
            lastOfId = id;
    }
    if (!lastOfId.empty())
        m_devices->RemoveOf(lastOfId);
}

}  // namespace Simulator
