// The module-wide objects. They are constructed when the library is loaded, in the order in which
// ModuleObjects.cpp defines them, and destroyed when it is unloaded. Those that others than the entry use are declared
// where those find them: in Diagnostics/Diagnostics.h, in SystemHealth/SystemHealth.h and in
// metrics/ConnMetricsObjects.h.
#pragma once

#include <cstdint>

#include <wx/thread.h>

using PrintFunction = int(void *, const char *, ...);
/// compat 2: the driver library's own print function; nothing reads it
extern PrintFunction *libraryPrint;

/// Guards the one-time call of `vti_set_profiler`.
extern wxCriticalSection moduleInitLock;

/// 1 once the addresses of the profiler's variables were handed to the driver library.
extern std::uint8_t profilerInstalled;
