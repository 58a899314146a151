// The functions of the service manager, each with the way in which it fails.
#pragma once

#include <windows.h>

#include "Function.h"

namespace Simulator::System {

SIMULATOR_FUNCTION(OpenSCManagerW, "ADVAPI32.dll", ReturnsZero);
SIMULATOR_FUNCTION(OpenServiceW, "ADVAPI32.dll", ReturnsZero);
SIMULATOR_FUNCTION(CloseServiceHandle, "ADVAPI32.dll", ReturnsZero);
SIMULATOR_FUNCTION(StartServiceW, "ADVAPI32.dll", ReturnsZero);
SIMULATOR_FUNCTION(ControlService, "ADVAPI32.dll", ReturnsZero);
SIMULATOR_FUNCTION(ChangeServiceConfigW, "ADVAPI32.dll", ReturnsZero);
SIMULATOR_FUNCTION(DeleteService, "ADVAPI32.dll", ReturnsZero);
SIMULATOR_FUNCTION(QueryServiceStatus, "ADVAPI32.dll", ReturnsZero);

}  // namespace Simulator::System
