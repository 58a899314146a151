// The devices of the simulated machine, and the lists in which they are told.
#pragma once

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
    std::wstring componentId{};  ///< Goes with the last network component of that id; empty if it stays.
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

    /// DIGCF_PRESENT and DIGCF_ALLCLASSES are the flags that there are.
    HDEVINFO List(const GUID *classGuid, const wchar_t *enumerator, DWORD flags);
    BOOL Enumerate(HDEVINFO list, DWORD index, SP_DEVINFO_DATA *data);
    /// Sizes are in characters.
    BOOL InstanceId(HDEVINFO list, const SP_DEVINFO_DATA *data, wchar_t *buffer, DWORD size, DWORD *needed);
    /// Sizes are in bytes. A device has an SPDRP_DEVICEDESC at most.
    BOOL Property(HDEVINFO list, const SP_DEVINFO_DATA *data, DWORD property, DWORD *type, BYTE *buffer, DWORD size,
                  DWORD *needed);
    BOOL Destroy(HDEVINFO list);

private:
    [[nodiscard]] DWORD FindLocked(HDEVINFO list, const SP_DEVINFO_DATA *data, const Device *&device) const;

    mutable Lock m_lock;
    std::vector<Device> m_devices;
    std::map<HDEVINFO, std::vector<Device>> m_lists;
};

/// Puts the devices under SetupDiGetClassDevsW, SetupDiEnumDeviceInfo, SetupDiGetDeviceInstanceIdW,
/// SetupDiGetDeviceRegistryPropertyW and SetupDiDestroyDeviceInfoList, and counts the lists.
void InstallDevices(FunctionSet &functions, const std::shared_ptr<DeviceManager> &devices);

}  // namespace Simulator
