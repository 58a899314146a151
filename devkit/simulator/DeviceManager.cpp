#include "DeviceManager.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cwchar>
#include <utility>

#include "AnyCase.h"
#include "CallScope.h"

namespace Simulator {

namespace {

/// Never reused, and different from the system's handles, whose low bits are clear.
HDEVINFO NewList() {
    static std::atomic<std::uintptr_t> last{0x44490001};
    return reinterpret_cast<HDEVINFO>(last += 2);
}

/// @return whether it is success.
bool Succeed(DWORD error) {
    if (error != ERROR_SUCCESS)
        SetLastError(error);
    return error == ERROR_SUCCESS;
}

/// @param enumerator  the beginning of an instance id, such as L"ROOT"; null for all.
bool ComesFrom(const Device &device, const wchar_t *enumerator) {
    return enumerator == nullptr ||
           SameInAnyCase(device.instanceId.substr(0, device.instanceId.find(L'\\')), enumerator);
}

/// Copies a text with its terminator, or reports that it does not fit. @param room  in characters.
DWORD Fill(const std::wstring &text, wchar_t *buffer, DWORD room) {
    if (text.size() >= room)
        return ERROR_INSUFFICIENT_BUFFER;
    std::wmemcpy(buffer, text.c_str(), text.size() + 1);
    return ERROR_SUCCESS;
}

DWORD SizeWithEnd(const std::wstring &text) {
    return static_cast<DWORD>(text.size() + 1);
}

}  // namespace

void DeviceManager::Put(const Device &device) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    const auto same = [&](const Device &other) { return SameInAnyCase(other.instanceId, device.instanceId); };
    const auto place = std::find_if(m_devices.begin(), m_devices.end(), same);
    if (place == m_devices.end())
        m_devices.push_back(device);
    else
        *place = device;
}

void DeviceManager::Remove(const std::wstring &instanceId) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    std::erase_if(m_devices, [&](const Device &device) { return SameInAnyCase(device.instanceId, instanceId); });
}

bool DeviceManager::Has(const std::wstring &instanceId) const {
    const LockGuard guard(m_lock);
    return std::any_of(m_devices.begin(), m_devices.end(),
                       [&](const Device &device) { return SameInAnyCase(device.instanceId, instanceId); });
}

void DeviceManager::RemoveOf(const std::wstring &componentId) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    std::erase_if(m_devices, [&](const Device &device) {
        return !device.componentId.empty() && SameInAnyCase(device.componentId, componentId);
    });
}

HDEVINFO DeviceManager::List(const GUID *classGuid, const wchar_t *enumerator, DWORD flags) {
    const bool allClasses = (flags & DIGCF_ALLCLASSES) != 0;
    if ((flags & ~static_cast<DWORD>(DIGCF_PRESENT | DIGCF_ALLCLASSES | DIGCF_PROFILE)) != 0)
        return Succeed(ERROR_INVALID_FLAGS), INVALID_HANDLE_VALUE;
    if (classGuid == nullptr && !allClasses)
        return Succeed(ERROR_INVALID_PARAMETER), INVALID_HANDLE_VALUE;
    const auto wanted = [&](const Device &device) {
        return (device.present || (flags & DIGCF_PRESENT) == 0) && (allClasses || device.classGuid == *classGuid) &&
               ComesFrom(device, enumerator);
    };
    const LockGuard guard(m_lock);
    const HDEVINFO list = NewList();
    std::vector<Listed> &listed = m_lists[list];
    for (const Device &device : m_devices) {
        if (wanted(device))
            listed.emplace_back(device);
    }
    return list;
}

BOOL DeviceManager::Enumerate(HDEVINFO list, DWORD index, SP_DEVINFO_DATA *data) {
    const LockGuard guard(m_lock);
    const auto found = m_lists.find(list);
    if (found == m_lists.end())
        return Succeed(ERROR_INVALID_HANDLE);
    if (data == nullptr)
        return Succeed(ERROR_INVALID_PARAMETER);
    if (data->cbSize != sizeof *data)
        return Succeed(ERROR_INVALID_USER_BUFFER);
    if (index >= found->second.size())
        return Succeed(ERROR_NO_MORE_ITEMS);
    data->ClassGuid = found->second[index].classGuid;
    data->DevInst = index + 1;
    data->Reserved = reinterpret_cast<ULONG_PTR>(list);
    return TRUE;
}

BOOL DeviceManager::InstanceId(HDEVINFO list, const SP_DEVINFO_DATA *data, wchar_t *buffer, DWORD size, DWORD *needed) {
    const LockGuard guard(m_lock);
    Listed *device = nullptr;
    const DWORD error = FindLocked(list, data, device);
    if (error != ERROR_SUCCESS)
        return Succeed(error);
    if ((buffer == nullptr) != (size == 0))
        return Succeed(ERROR_INVALID_PARAMETER);
    if (needed != nullptr)
        *needed = SizeWithEnd(device->instanceId);
    return Succeed(Fill(device->instanceId, buffer, size));
}

BOOL DeviceManager::Property(HDEVINFO list, const SP_DEVINFO_DATA *data, DWORD property, DWORD *type, BYTE *buffer,
                             DWORD size, DWORD *needed) {
    const LockGuard guard(m_lock);
    Listed *device = nullptr;
    const DWORD error = FindLocked(list, data, device);
    if (error != ERROR_SUCCESS)
        return Succeed(error);
    if (property >= SPDRP_MAXIMUM_PROPERTY)
        return Succeed(ERROR_INVALID_REG_PROPERTY);
    if (buffer == nullptr && size != 0)
        return Succeed(ERROR_INVALID_PARAMETER);
    if (property != SPDRP_DEVICEDESC || !device->description)
        return Succeed(ERROR_INVALID_DATA);
    if (type != nullptr)
        *type = REG_SZ;
    if (needed != nullptr)
        *needed = SizeWithEnd(*device->description) * sizeof(wchar_t);
    return Succeed(Fill(*device->description, reinterpret_cast<wchar_t *>(buffer), size / sizeof(wchar_t)));
}

BOOL DeviceManager::Destroy(HDEVINFO list) {
    const LockGuard guard(m_lock);
    return Succeed(m_lists.erase(list) == 1 ? ERROR_SUCCESS : ERROR_INVALID_HANDLE);
}

DWORD DeviceManager::FindLocked(HDEVINFO list, const SP_DEVINFO_DATA *data, Listed *&device) {
    const auto found = m_lists.find(list);
    if (found == m_lists.end())
        return ERROR_INVALID_HANDLE;
    if (data == nullptr || data->cbSize != sizeof *data || data->Reserved != reinterpret_cast<ULONG_PTR>(list) ||
        data->DevInst == 0 || data->DevInst > found->second.size())
        return ERROR_INVALID_PARAMETER;
    device = &found->second[data->DevInst - 1];
    return ERROR_SUCCESS;
}

}  // namespace Simulator
