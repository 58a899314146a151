#include "HostSample.h"

#include <memory>
#include <type_traits>

#include <windows.h>
#include <pdh.h>

#include "HealthLog.h"
#include "fc/fc.h"

namespace {

constexpr wchar_t kRunQueuePath[] = L"\\System\\Processor Queue Length";
constexpr DWORD kSampleMs = 100;
constexpr unsigned kKiBShift = 10;

struct CloseQuery {
    void operator()(PDH_HQUERY query) const { (void)PdhCloseQuery(query); }
};
using Query = std::unique_ptr<std::remove_pointer_t<PDH_HQUERY>, CloseQuery>;

}  // namespace

// compat 36: only two of the rows and one of the numbers are used
VmStatEntry vmStats[kVmStatRows] = {
    {"vmstat_phys_mem", "null", 0, 0}, {"vmstat_runQ", "r", 0, 0}, {"vmstat_avm", "avm", 0, 0},
    {"vmstat_freemem", "fre", 0, 0},   {"user_cpu", "us", 0, 0},   {"sys_cpu", "sy", 15, 0},
    {"idle_cpu", "id", 0, 0},          {"wait_cpu", "wa", 0, 0},
};

std::int32_t queryRunQueueLength(double &rqlen) {
    const auto failed = [](const char *message, const TraceLine &line = kEngineTrace) {
        Trace(line, "%s", message);
        return 1;
    };
    PDH_HQUERY opened = nullptr;
    if (PdhOpenQueryW(nullptr, 0, &opened) != ERROR_SUCCESS)
        return failed("PdhOpenQuery failed");
    const Query query(opened);
    PDH_HCOUNTER counter = nullptr;
    if (PdhAddCounterW(query.get(), kRunQueuePath, 0, &counter) != ERROR_SUCCESS)
        return failed("PdhAddCounter failed for Processor Queue Length");
    if (PdhCollectQueryData(query.get()) != ERROR_SUCCESS)
        return failed("PdhCollectQueryData failed");
    Sleep(kSampleMs);
    if (PdhCollectQueryData(query.get()) != ERROR_SUCCESS)
        return failed("Second PdhCollectQueryData failed");
    PDH_FMT_COUNTERVALUE value = {};
    if (PdhGetFormattedCounterValue(counter, PDH_FMT_DOUBLE, nullptr, &value) != ERROR_SUCCESS)
        return failed("PdhGetFormattedCounterValue failed");
    rqlen = value.doubleValue;
    return 0;
}

bool getMemoryMetrics() {
    MEMORYSTATUSEX status = {};
    status.dwLength = sizeof(status);
    static_assert(sizeof(status) == 64);
    if (GlobalMemoryStatusEx(&status) == 0) {
        Trace(kEngineTrace, "GlobalMemoryStatusEx failed");
        return false;
    }
    vmStats[vmstat_phys_mem].value = status.ullTotalPhys >> kKiBShift;
    vmStats[vmstat_freemem].value = status.ullAvailPhys >> kKiBShift;
    return true;
}
