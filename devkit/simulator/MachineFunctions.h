// The functions that tell of a machine, each with the way in which it fails.
#pragma once

#include <windows.h>
#include <pdh.h>
#include <pdhmsg.h>

#include "Function.h"

namespace Simulator::System {

SIMULATOR_FUNCTION(PdhOpenQueryW, "pdh.dll", ReturnsStatus);
SIMULATOR_FUNCTION(PdhAddCounterW, "pdh.dll", ReturnsStatus);
SIMULATOR_FUNCTION(PdhCollectQueryData, "pdh.dll", ReturnsStatus);
SIMULATOR_FUNCTION(PdhGetFormattedCounterValue, "pdh.dll", ReturnsStatus);
SIMULATOR_FUNCTION(PdhCloseQuery, "pdh.dll", ReturnsStatus);

SIMULATOR_FUNCTION(GetSystemInfo, "KERNEL32.dll", CannotFail);
SIMULATOR_FUNCTION(GlobalMemoryStatusEx, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(GetVersionExW, "KERNEL32.dll", ReturnsZero);

}  // namespace Simulator::System
