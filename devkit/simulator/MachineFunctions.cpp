// The functions that report properties of the machine.
#include "MachineFunctions.h"

#include <memory>

#include "FunctionSet.h"
#include "Machine.h"
#include "PerformanceQueries.h"

namespace Simulator {

namespace {

void InstallQueries(FunctionSet &functions, const Machine &machine) {
    const auto queries = std::make_shared<PerformanceQueries>();
    functions.Put<System::PdhOpenQueryW>(
        [queries](const auto &, LPCWSTR source, DWORD_PTR, PDH_HQUERY *query) { return queries->Open(source, query); });
    functions.Put<System::PdhAddCounterW>(
        [queries](const auto &, PDH_HQUERY query, LPCWSTR path, DWORD_PTR, PDH_HCOUNTER *counter) {
            return queries->AddCounter(query, path, counter);
        });
    functions.Put<System::PdhCollectQueryData>([queries, &machine](const auto &, PDH_HQUERY query) {
        return queries->Collect(query, machine.processorQueue);
    });
    functions.Put<System::PdhGetFormattedCounterValue>(
        [queries](const auto &, PDH_HCOUNTER counter, DWORD format, DWORD *type, PDH_FMT_COUNTERVALUE *value) {
            return queries->Format(counter, format, type, value);
        });
    functions.Put<System::PdhCloseQuery>([queries](const auto &, PDH_HQUERY query) { return queries->Close(query); });
}

/// Percentage of the physical memory in use.
DWORD MemoryLoad(const Machine &machine) {
    if (machine.memoryAvailable >= machine.memoryTotal)
        return 0;
    const double used = static_cast<double>(machine.memoryTotal - machine.memoryAvailable);
    return static_cast<DWORD>(100 * used / static_cast<double>(machine.memoryTotal));
}

BOOL FillMemoryStatus(const Machine &machine, MEMORYSTATUSEX &status) {
    status.ullTotalPhys = machine.memoryTotal;
    status.ullAvailPhys = machine.memoryAvailable;
    status.dwMemoryLoad = MemoryLoad(machine);
    return TRUE;
}

}  // namespace

void InstallMachine(FunctionSet &functions, Machine &machine) {
    InstallQueries(functions, machine);
    InstallMachineVersion(functions, machine);
    functions.Put<System::GetSystemInfo>([&machine](const auto &next, SYSTEM_INFO *info) {
        next(info);
        info->dwNumberOfProcessors = machine.processorCount;
    });
    functions.Put<System::GlobalMemoryStatusEx>([&machine](const auto &next, MEMORYSTATUSEX *status) -> BOOL {
        if (status->dwLength != sizeof(MEMORYSTATUSEX)) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        return next(status) && FillMemoryStatus(machine, *status);
    });
}

}  // namespace Simulator
