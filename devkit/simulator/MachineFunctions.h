// The functions that report properties of a machine, each with the way in which it fails.
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
SIMULATOR_FUNCTION(VerifyVersionInfoW, "KERNEL32.dll", ReturnsZero);

/// By the name that GCC and Clang use.
using wxGetOsVersion = Function<"_Z14wxGetOsVersionPiS_S_", FC_WX_DLL, int(int *, int *, int *), CannotFail>;

}  // namespace Simulator::System

namespace Simulator {

class FunctionSet;
struct Machine;

/// The part of InstallMachine for the system's version.
void InstallMachineVersion(FunctionSet &functions, const Machine &machine);

}  // namespace Simulator
