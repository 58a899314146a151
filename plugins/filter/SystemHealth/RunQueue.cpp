#include "RunQueue.h"

#include <windows.h>
#include <pdh.h>

#include "HealthTrace.h"
#include "common/Trace.h"
#include "common/Unique.h"

namespace {

constexpr wchar_t kRunQueuePath[] = L"\\System\\Processor Queue Length";
constexpr DWORD kSampleMs = 100;

using Query = Unique<PDH_HQUERY, PdhCloseQuery>;

}  // namespace

std::optional<double> queryRunQueueLength() {
    const auto failed = [](const char *message, const TraceLine &line = kEngineTrace) {
        Trace(line, "%s", message);
        return std::nullopt;
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
    return value.doubleValue;
}
