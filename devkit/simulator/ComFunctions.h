// The functions of COM, each with the way in which it fails.
#pragma once

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

#include "Function.h"

namespace Simulator::System {

SIMULATOR_FUNCTION(CoInitializeEx, "ole32.dll", ReturnsResult);
SIMULATOR_FUNCTION(CoUninitialize, "ole32.dll", CannotFail);
SIMULATOR_FUNCTION(CoCreateInstance, "ole32.dll", ReturnsResult);
SIMULATOR_FUNCTION(CoTaskMemAlloc, "ole32.dll", ReturnsZero);
SIMULATOR_FUNCTION(CoTaskMemFree, "ole32.dll", CannotFail);
SIMULATOR_FUNCTION(SysAllocString, "OLEAUT32.dll", ReturnsZero);
SIMULATOR_FUNCTION(SysFreeString, "OLEAUT32.dll", CannotFail);
SIMULATOR_FUNCTION(SysStringLen, "OLEAUT32.dll", CannotFail);

}  // namespace Simulator::System
