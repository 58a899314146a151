#include "DeviceChange.h"

#include <wx/log.h>

namespace {

/// One change of a device's state.
class DeviceChange {
public:
    DeviceChange(HDEVINFO devices, SP_DEVINFO_DATA &device, bool enable) : m_devices(devices), m_device(device) {
        m_change.ClassInstallHeader.cbSize = sizeof(m_change.ClassInstallHeader);
        m_change.ClassInstallHeader.InstallFunction = DIF_PROPERTYCHANGE;
        m_change.StateChange = enable ? DICS_ENABLE : DICS_DISABLE;
        m_change.Scope = enable ? DICS_FLAG_GLOBAL : DICS_FLAG_CONFIGSPECIFIC;
        static_assert(sizeof(m_change) == 20 && sizeof(m_change.ClassInstallHeader) == 8);
    }

    void SetScope(DWORD scope) { m_change.Scope = scope; }
    bool SetParameters() {
        return SetupDiSetClassInstallParamsW(m_devices, &m_device, &m_change.ClassInstallHeader, sizeof(m_change)) != 0;
    }
    bool CallInstaller() { return SetupDiCallClassInstaller(DIF_PROPERTYCHANGE, m_devices, &m_device) != 0; }

private:
    HDEVINFO m_devices;
    SP_DEVINFO_DATA &m_device;
    SP_PROPCHANGE_PARAMS m_change{};
};

}  // namespace

bool ChangeDevice(HDEVINFO devices, SP_DEVINFO_DATA &device, bool enable) {
    DeviceChange change(devices, device, enable);
    if (!change.SetParameters())
        return false;
    if (!enable) {
        if (!change.CallInstaller())
            wxLogSysError("not critical - SetupDiCallClassInstaller()");
        return true;
    }
    (void)change.CallInstaller();  // for all hardware profiles; compat 108: a failure is not logged
    change.SetScope(DICS_FLAG_CONFIGSPECIFIC);
    if (change.SetParameters() && !change.CallInstaller())
        wxLogSysError("not critical - SetupDiCallClassInstaller(DICS_FLAG_CONFIGSPECIFIC)");
    return true;
}
