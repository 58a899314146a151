#include "ModuleObjects.h"

#include <ctime>

#include <wx/dynlib.h>

#include "Diagnostics/Diagnostics.h"
#include "SystemHealth/SystemHealth.h"
#include "metrics/ConnMetricsObjects.h"
#include "vti.h"

// The order of these definitions is the order of construction; keep it.
wxCriticalSection connMetricsLock;
StagingMetrics stagingMetrics;
ConnMetricsMap mergedMetrics;
std::int64_t lastMetricsUpdate = _time64(nullptr);

PrintFunction *libraryPrint = &qb_dump_printf;

const wxString emptyText;

// compat 1: keeps one load reference to this library, so that the module stays loaded until the process ends
[[maybe_unused]] static const bool keptLoaded = new wxDynamicLibrary("fc", wxDL_NOW) != nullptr;

wxCriticalSection moduleInitLock;
HealthState healthState;

std::uint8_t profilerInstalled = 0;
