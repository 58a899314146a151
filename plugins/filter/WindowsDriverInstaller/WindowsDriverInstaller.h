// What the driver installer offers to the rest of the module: the functions that become Lua's.
#pragma once

#include "DriverThreads.h"
#include "DriverVersions.h"
#include "ServiceControl.h"
