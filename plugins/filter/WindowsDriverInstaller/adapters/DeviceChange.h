// Changes of a device's state.
#pragma once

#include <windows.h>
#include <setupapi.h>

/// Enables or disables a device.
/// @return false if the change could not even be prepared.
bool ChangeDevice(HDEVINFO devices, SP_DEVINFO_DATA &device, bool enable);
