// How the devices of the simulated machine are enabled and disabled.
#include <algorithm>
#include <cstring>
#include <utility>

#include "AnyCase.h"
#include "CallScope.h"
#include "DeviceManager.h"

namespace Simulator {

namespace {

BOOL Answer(DWORD error) {
    if (error != ERROR_SUCCESS)
        SetLastError(error);
    return error == ERROR_SUCCESS;
}

}  // namespace

bool DeviceManager::IsEnabled(const std::wstring &instanceId) const {
    const LockGuard guard(m_lock);
    return std::any_of(m_devices.begin(), m_devices.end(), [&](const Device &device) {
        return SameInAnyCase(device.instanceId, instanceId) && !device.disabled && !device.disabledInProfile;
    });
}

std::vector<DeviceChange> DeviceManager::Changes() const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    return m_changes;
}

void DeviceManager::OnChange(std::function<void(const DeviceChange &)> observer) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_observer = std::move(observer);
}

BOOL DeviceManager::SetParameters(HDEVINFO list, const SP_DEVINFO_DATA *data, const SP_CLASSINSTALL_HEADER *header,
                                  DWORD size) {
    const LockGuard guard(m_lock);
    Listed *device = nullptr;
    const DWORD error = FindLocked(list, data, device);
    if (error != ERROR_SUCCESS)
        return Answer(error);
    if (header == nullptr || size != sizeof(SP_PROPCHANGE_PARAMS) || header->InstallFunction != DIF_PROPERTYCHANGE)
        return Answer(ERROR_INVALID_PARAMETER);
    if (header->cbSize != sizeof *header)
        return Answer(ERROR_INVALID_USER_BUFFER);
    std::memcpy(&device->parameters.emplace(), header, size);
    return TRUE;
}

BOOL DeviceManager::CallInstaller(DWORD function, HDEVINFO list, const SP_DEVINFO_DATA *data) {
    DeviceChange change;
    std::function<void(const DeviceChange &)> observer;
    {
        const LockGuard guard(m_lock);
        Listed *device = nullptr;
        DWORD error = FindLocked(list, data, device);
        if (error == ERROR_SUCCESS && function != DIF_PROPERTYCHANGE)
            error = ERROR_INVALID_PARAMETER;
        if (error == ERROR_SUCCESS && !device->parameters)
            error = ERROR_NO_CLASSINSTALL_PARAMS;
        if (error == ERROR_SUCCESS) {
            change = {device->instanceId, device->parameters->StateChange, device->parameters->Scope};
            error = ChangeLocked(change);
        }
        if (error != ERROR_SUCCESS)
            return Answer(error);
        observer = m_observer;
    }
    if (observer)
        observer(change);
    return TRUE;
}

DWORD DeviceManager::ChangeLocked(const DeviceChange &change) {
    const auto device = std::find_if(m_devices.begin(), m_devices.end(), [&](const Device &each) {
        return SameInAnyCase(each.instanceId, change.instanceId);
    });
    if (device == m_devices.end())
        return ERROR_NO_SUCH_DEVINST;
    m_changes.push_back(change);
    if (device->changeError != ERROR_SUCCESS)
        return device->changeError;
    bool &disabled = change.scope == DICS_FLAG_GLOBAL ? device->disabled : device->disabledInProfile;
    if (change.state == DICS_ENABLE || change.state == DICS_DISABLE)
        disabled = change.state == DICS_DISABLE;
    return ERROR_SUCCESS;
}

}  // namespace Simulator
