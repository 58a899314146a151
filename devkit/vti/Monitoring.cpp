// What the module configures in the library: the profiler, the trace, the monitoring of port scans.
#include <algorithm>

#include "DriverState.h"

using namespace Vti;

namespace {

bool IsScanMetricsRequest(const ScanMetricsRecord &record) {
    return record.word0 == 1 && (record.direction == 1 || record.direction == 2) && record.counters_per_row == 10 &&
           record.row_count == 1;
}

}  // namespace

void vti_set_profiler(volatile unsigned *blockfilter, volatile unsigned *running) {
    const std::lock_guard<std::mutex> guard(Lock());
    RecordCall("vti_set_profiler", "");
    TheDriver().profilerBlockfilter = blockfilter;
    TheDriver().profilerRunning = running;
}

int32_t vti_set_trace_level(vti_handle_t *handle, int32_t level) {
    return Perform("vti_set_trace_level", handle, std::to_string(level), [&](Driver &driver) {
        driver.traceLevel = level;
        return Outcome();
    });
}

int32_t vti_set_trace_handler(vti_handle_t *handle, vti_trace_handler handler) {
    return Perform("vti_set_trace_handler", handle, handler != nullptr ? "handler" : "none", [&](Driver &driver) {
        driver.traceHandler = handler;
        return Outcome();
    });
}

int32_t vti_set_scan_monitoring(vti_handle_t *handle, const ScanMonitorRequest *request) {
    return Perform("vti_set_scan_monitoring", handle, "", [&](Driver &driver) -> Outcome {
        if (request == nullptr || request->word0 != 1)
            return {kInvalidRequest, "the head of the scan monitoring request is not 1"};
        const auto *bytes = reinterpret_cast<const uint8_t *>(request);
        driver.monitorRequest.assign(bytes, bytes + sizeof *request);
        return {};
    });
}

int32_t vti_get_scan_metrics(vti_handle_t *handle, ScanMetricsRecord *record, uint32_t size) {
    const bool readable = record != nullptr && size == sizeof(ScanMetricsRecord);
    const std::string arguments = readable ? std::to_string(record->direction) + ", " + std::to_string(record->port)
                                           : "size " + std::to_string(size);
    return Perform("vti_get_scan_metrics", handle, arguments, [&](const Driver &driver) -> Outcome {
        if (!readable)
            return {kInvalidRequest, "a scan metrics record has 120 bytes"};
        if (!IsScanMetricsRequest(*record))
            return {kInvalidRequest, "the words of the scan metrics record are not those of a request"};
        if (driver.scanShape[1] != 0)
            std::copy_n(driver.scanCounters.begin(),
                        std::min<std::size_t>(driver.scanShape[0], driver.scanCounters.size()), record->counters);
        record->counters_per_row = driver.scanShape[0];
        record->row_count = driver.scanShape[1];
        return {};
    });
}
