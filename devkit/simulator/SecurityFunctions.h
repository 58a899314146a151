// The functions for owners, access lists and privileges, each with the way in which it fails.
#pragma once

#include <windows.h>
#include <aclapi.h>

#include "Function.h"

namespace Simulator::System {

SIMULATOR_FUNCTION(AllocateAndInitializeSid, "ADVAPI32.dll", ReturnsZero);
SIMULATOR_FUNCTION(FreeSid, "ADVAPI32.dll", CannotFail);
SIMULATOR_FUNCTION(SetEntriesInAclW, "ADVAPI32.dll", ReturnsStatus);
SIMULATOR_FUNCTION(LocalFree, "KERNEL32.dll", CannotFail);
SIMULATOR_FUNCTION(SetNamedSecurityInfoW, "ADVAPI32.dll", ReturnsStatus);
SIMULATOR_FUNCTION(LookupPrivilegeValueW, "ADVAPI32.dll", ReturnsZero);
SIMULATOR_FUNCTION(AdjustTokenPrivileges, "ADVAPI32.dll", ReturnsZero);

}  // namespace Simulator::System
