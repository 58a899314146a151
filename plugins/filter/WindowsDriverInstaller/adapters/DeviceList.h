// The owner of a list of devices as setupapi makes it.
#pragma once

#include <windows.h>
#include <setupapi.h>

#include "common/Unique.h"

using DeviceList = Unique<HDEVINFO, SetupDiDestroyDeviceInfoList>;
