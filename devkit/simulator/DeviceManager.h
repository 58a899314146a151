// The devices of the simulated machine, and the lists that report them.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <windows.h>
#include <devguid.h>
#include <setupapi.h>

#include "Lock.h"

namespace Simulator {

class FunctionSet;

namespace Kind {
inline constexpr char kDeviceList[] = "device list";
}

/// A device as a test defines it.
struct Device {
    std::wstring instanceId;                    ///< Such as L"ROOT\\NET\\0000".
    std::optional<std::wstring> description{};  ///< Without one, SPDRP_DEVICEDESC fails with ERROR_INVALID_DATA.
    GUID classGuid = GUID_DEVCLASS_NET;
    bool present = true;
    std::wstring componentId{};         ///< Removed with the last network component of that id; empty if it stays.
    DWORD changeError = ERROR_SUCCESS;  ///< The error of each change of its state.
    bool disabled = false;              ///< In all hardware profiles.
    bool disabledInProfile = false;     ///< In the current one.
};

/// A change of a device's state that the program has requested.
struct DeviceChange {
    std::wstring instanceId;
    DWORD state = 0;  ///< DICS_ENABLE, DICS_DISABLE or another.
    DWORD scope = 0;  ///< DICS_FLAG_GLOBAL or DICS_FLAG_CONFIGSPECIFIC.

    bool operator==(const DeviceChange &) const = default;
};

/// A list is a copy of the devices that exist when it is created. List handles are never reused, not even in a later
/// simulation. The functions behave like those of setupapi.dll, with the last error, and do not change output
/// parameters when they fail, except the required size. Any thread.
class DeviceManager {
public:
    /// Appends the device, or replaces the one with that instance id.
    void Put(const Device &device);
    void Remove(const std::wstring &instanceId);
    [[nodiscard]] bool Has(const std::wstring &instanceId) const;
    /// Removes those that belong to the network component, whose id is case-insensitive.
    void RemoveOf(const std::wstring &componentId);

    /// Whether it exists, and is not disabled in any profile.
    [[nodiscard]] bool IsEnabled(const std::wstring &instanceId) const;
    /// Those that reached a device, including those that failed, in the order of the calls.
    [[nodiscard]] std::vector<DeviceChange> Changes() const;
    /// Called after a successful change, inside the simulator, in the thread of the call, with no lock held: it may
    /// call this object, but must not wait for others.
    void OnChange(std::function<void(const DeviceChange &)> observer);

    /// DIGCF_PRESENT, DIGCF_ALLCLASSES and DIGCF_PROFILE, which excludes none, are the supported flags.
    HDEVINFO List(const GUID *classGuid, const wchar_t *enumerator, DWORD flags);
    BOOL Enumerate(HDEVINFO list, DWORD index, SP_DEVINFO_DATA *data);
    /// Sizes are in characters.
    BOOL InstanceId(HDEVINFO list, const SP_DEVINFO_DATA *data, wchar_t *buffer, DWORD size, DWORD *needed);
    /// Sizes are in bytes. SPDRP_DEVICEDESC is the only property.
    BOOL Property(HDEVINFO list, const SP_DEVINFO_DATA *data, DWORD property, DWORD *type, BYTE *buffer, DWORD size,
                  DWORD *needed);
    /// The parameters are those of DIF_PROPERTYCHANGE. They stay with the device of that list.
    BOOL SetParameters(HDEVINFO list, const SP_DEVINFO_DATA *data, const SP_CLASSINSTALL_HEADER *header, DWORD size);
    /// DIF_PROPERTYCHANGE, which requires parameters, is the only supported function.
    BOOL CallInstaller(DWORD function, HDEVINFO list, const SP_DEVINFO_DATA *data);
    BOOL Destroy(HDEVINFO list);

private:
    struct Listed : Device {
        explicit Listed(const Device &device) : Device(device) {}
        std::optional<SP_PROPCHANGE_PARAMS> parameters;
    };

    [[nodiscard]] DWORD FindLocked(HDEVINFO list, const SP_DEVINFO_DATA *data, Listed *&device);
    [[nodiscard]] DWORD ChangeLocked(const DeviceChange &change);

    mutable Lock m_lock;
    std::vector<Device> m_devices;
    std::map<HDEVINFO, std::vector<Listed>> m_lists;
    std::vector<DeviceChange> m_changes;
    std::function<void(const DeviceChange &)> m_observer;
};

/// Simulates SetupDiGetClassDevsW, SetupDiEnumDeviceInfo, SetupDiGetDeviceInstanceIdW,
/// SetupDiGetDeviceRegistryPropertyW, SetupDiSetClassInstallParamsW, SetupDiCallClassInstaller and
/// SetupDiDestroyDeviceInfoList with the devices, and counts the lists.
void InstallDevices(FunctionSet &functions, const std::shared_ptr<DeviceManager> &devices);

}  // namespace Simulator
