#include "HostMemory.h"

#include <windows.h>

#include "HealthTrace.h"
#include "common/Trace.h"

bool getMemoryMetrics(HostMemory &memory) {
    constexpr unsigned kibShift = 10;
    MEMORYSTATUSEX status = {};
    status.dwLength = sizeof(status);
    static_assert(sizeof(status) == 64);
    if (GlobalMemoryStatusEx(&status) == 0) {
        Trace(kEngineTrace, "GlobalMemoryStatusEx failed");
        return false;
    }
    memory.vmStats[vmstat_phys_mem].value = status.ullTotalPhys >> kibShift;
    memory.vmStats[vmstat_freemem].value = status.ullAvailPhys >> kibShift;
    return true;
}
