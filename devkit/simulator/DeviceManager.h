// The devices of the simulated machine, and the lists in which they are told.
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

/// A device as a test makes it.
struct Device {
    std::wstring instanceId;                    ///< Such as L"ROOT\\NET\\0000".
    std::optional<std::wstring> description{};  ///< Without one, SPDRP_DEVICEDESC fails with ERROR_INVALID_DATA.
    GUID classGuid = GUID_DEVCLASS_NET;
    bool present = true;
    std::wstring componentId{};         ///< Goes with the last network component of that id; empty if it stays.
    DWORD changeError = ERROR_SUCCESS;  ///< What each change of its state fails with.
    bool disabled = false;              ///< In all hardware profiles.
    bool disabledInProfile = false;     ///< In the current one.
};

/// A change of a device's state that the program has asked for.
struct DeviceChange {
    std::wstring instanceId;
    DWORD state = 0;  ///< DICS_ENABLE, DICS_DISABLE or another.
    DWORD scope = 0;  ///< DICS_FLAG_GLOBAL or DICS_FLAG_CONFIGSPECIFIC.

    bool operator==(const DeviceChange &) const = default;
};

/// A list is a copy of the devices that there are when it is made. Handles of lists are never used again, not even
/// in a later simulation. The functions answer as those of setupapi.dll do, with the last error, and leave output
/// parameters alone when they fail, but for the size that is needed. Any thread.
class DeviceManager {
public:
    /// Adds the device behind the others, or replaces the one of that instance id.
    void Put(const Device &device);
    void Remove(const std::wstring &instanceId);
    [[nodiscard]] bool Has(const std::wstring &instanceId) const;
    /// Removes those that are tied to the network component, in any case of its id.
    void RemoveOf(const std::wstring &componentId);

    /// Whether it is there, and disabled nowhere.
    [[nodiscard]] bool IsEnabled(const std::wstring &instanceId) const;
    /// Those that have reached a device, also where it failed them, in the order of the calls.
    [[nodiscard]] std::vector<DeviceChange> Changes() const;
    /// What comes of a change that has succeeded. Called inside the simulator, in the thread of the call, while nothing
    /// is held: it may come back here, and wait for nobody.
    void OnChange(std::function<void(const DeviceChange &)> observer);

    /// DIGCF_PRESENT, DIGCF_ALLCLASSES and DIGCF_PROFILE, which leaves none out, are the flags that there are.
    HDEVINFO List(const GUID *classGuid, const wchar_t *enumerator, DWORD flags);
    BOOL Enumerate(HDEVINFO list, DWORD index, SP_DEVINFO_DATA *data);
    /// Sizes are in characters.
    BOOL InstanceId(HDEVINFO list, const SP_DEVINFO_DATA *data, wchar_t *buffer, DWORD size, DWORD *needed);
    /// Sizes are in bytes. A device has an SPDRP_DEVICEDESC at most.
    BOOL Property(HDEVINFO list, const SP_DEVINFO_DATA *data, DWORD property, DWORD *type, BYTE *buffer, DWORD size,
                  DWORD *needed);
    /// The parameters are those of DIF_PROPERTYCHANGE. They stay with the device of that list.
    BOOL SetParameters(HDEVINFO list, const SP_DEVINFO_DATA *data, const SP_CLASSINSTALL_HEADER *header, DWORD size);
    /// DIF_PROPERTYCHANGE, which wants parameters, is the function that there is.
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

/// Puts the devices under SetupDiGetClassDevsW, SetupDiEnumDeviceInfo, SetupDiGetDeviceInstanceIdW,
/// SetupDiGetDeviceRegistryPropertyW, SetupDiSetClassInstallParamsW, SetupDiCallClassInstaller and
/// SetupDiDestroyDeviceInfoList, and counts the lists.
void InstallDevices(FunctionSet &functions, const std::shared_ptr<DeviceManager> &devices);

}  // namespace Simulator
