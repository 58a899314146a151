#include "ScanMetrics.h"

#include <algorithm>
#include <memory>

#include <wx/log.h>

#include "HealthState.h"
#include "HealthTrace.h"
#include "SystemHealth.h"
#include "common/DriverFailure.h"
#include "common/DriverHandle.h"
#include "common/Trace.h"

namespace {

constexpr std::uint32_t kRequestWord = 1;
constexpr std::uint32_t kInbound = 1;
constexpr std::uint32_t kOutbound = 2;
constexpr std::uint32_t kErrorBytes = 128;

/// The port and direction to monitor, as configured.
struct ScanTarget {
    std::uint16_t port;
    std::int32_t outbound;
};

ScanTarget ConfiguredScanTarget(const HealthConfig &config) {
    const SysHealthConfigEntry &outbound = config[SYS_CONF_CONN_REFUSAL_OUTBOUND];
    return {static_cast<std::uint16_t>(config[SYS_CONF_CONN_REFUSAL_PORT].value),
            outbound.is_set != 0 && static_cast<std::int32_t>(outbound.value) == 1 ? 1 : 0};
}

}  // namespace

std::int32_t set_scan_metrics_config(vti_handle_t *handle, std::uint16_t port, std::int32_t outbound) {
    constexpr unsigned bitsPerWord = 32;
    const auto request = std::make_unique<ScanMonitorRequest>();
    request->word0 = kRequestWord;
    std::uint32_t *const ports = outbound != 0 ? request->outbound_ports : request->inbound_ports;
    ports[port / bitsPerWord] = 1U << (port % bitsPerWord);
    const std::int32_t code = vti_set_scan_monitoring(handle, request.get());
    if (code != 0) {
        const wxString error = DriverFailureText(handle, kErrorBytes);
        wxLogError("vti_set_scan_monitoring failed rc= %d buf{%s}", code, error);
    }
    return code;
}

std::int32_t get_scan_metrics(vti_handle_t *handle, std::uint16_t port, std::int32_t outbound,
                              ScanMetricsRecord &record) {
    record = {};
    record.word0 = kRequestWord;
    record.direction = outbound != 0 ? kOutbound : kInbound;
    record.port = port;
    record.counters_per_row = kScanCounters;
    record.row_count = 1;
    const std::int32_t code = vti_get_scan_metrics(handle, &record, sizeof(record));
    if (code != 0) {
        const wxString error = DriverFailureText(handle, kErrorBytes);
        wxLogError("vti_get_scan_metrics failed rc= %d, buf{%s}", code, error);
    }
    return code;
}

std::optional<ScanMetricsRecord> RunScanDriverPass(ScanRates &scan, HealthConfig &config, const TraceSite &iteration) {
    const TraceSite site(kScanTrace, iteration.place);
    const ScanTarget target = ConfiguredScanTarget(config);
    const DriverHandle handle(vti_open());
    // compat 34: a driver that can't be opened is no message
    if (!handle) {
        config.DisableDriverMetrics();
        return std::nullopt;
    }
    if (scan.firstScanPass != 0) {
        Trace(site, "setting scan config %d, %d", target.port, target.outbound);
        (void)set_scan_metrics_config(handle.get(), target.port, target.outbound);
        scan.scanPort = target.port;  // compat 31: stays for good, also after a failure
    }
    Trace(site, "Collecting scan metrics");
    // compat 32: reads the port that the driver was told, with the direction of this pass
    std::optional<ScanMetricsRecord> record(std::in_place);
    const std::int32_t code =
        get_scan_metrics(handle.get(), static_cast<std::uint16_t>(scan.scanPort), target.outbound, *record);
    if (code != 0) {
        // compat 33: goes on without the driver's metrics in spite of the text
        const wxString error = DriverFailureText(handle.get(), kErrorBytes);
        wxLogError("get_scan_metrics() failed rc=%d, exiting, buf{%s}", code, error);
        config.DisableDriverMetrics();
        return std::nullopt;
    }
    return record;
}

void RunScanRatePass(ScanRates &scan, const ScanMetricsRecord &record, double delta_t) {
    const auto rows = static_cast<std::int32_t>(record.row_count);
    // The driver's word is taken for how many counters it has filled, but the record has room for no more.
    const std::int32_t counters =
        std::min(static_cast<std::int32_t>(record.counters_per_row), static_cast<std::int32_t>(kScanCounters));
    if (rows <= 0 || counters <= 0)
        return;
    scan.firstScanPass = 0;
    // A counter that comes for the first time only lays its baseline.
    for (std::int32_t i = 0; i < std::min(counters, scan.baselineCounters); ++i) {
        const std::uint64_t current = record.counters[i];
        // A total that fell gives no rate, not a huge one.
        const std::uint64_t previous = scan.scanCounterPrev[i];
        const std::uint64_t difference = current < previous ? 0 : current - previous;
        // compat 35: does not guard against an interval of zero seconds
        scan.scanCounterRate[i] = static_cast<double>(difference) / delta_t;
    }
    std::copy_n(record.counters, counters, scan.scanCounterPrev);
    scan.baselineCounters = std::max(scan.baselineCounters, counters);
}

// compat 54: shows the configured port, not the one that the driver knows. The configuration has another lock
int GetScanMetricPort(lua_State *L) {
    Trace(kReadOutTrace, "GetScanMetricPort() called");
    const wxCriticalSectionLocker lock(healthState.lock);
    const std::optional<std::uint16_t> port =
        healthState.sysHealthEnabled == 1 ? healthState.config.Port() : std::nullopt;
    lua_pushboolean(L, port ? 1 : 0);
    lua_pushinteger(L, port.value_or(0));
    Trace(kEngineTrace, "GetScanMetricPort() returning");  // compat 53: on the engine's component, unlike the entry
    return 2;
}
