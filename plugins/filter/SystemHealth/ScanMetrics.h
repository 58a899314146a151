// The driver's counters of the monitored port, and the rates that they come to.
#pragma once

#include <cstdint>
#include <optional>

#include "vti.h"

class HealthConfig;
struct TraceSite;

/// Positions of the counters that are used.
enum ScanCounter {
    conn_new = 0,
    conn_established = 2,
    conn_halfopen2close = 3,
    scanbytes_fwd = 6,
    scanbytes_bwd = 7,
    kScanCounters = 10
};

/// What is known of the counters from one pass to the next.
struct ScanRates {
    double scanCounterRate[kScanCounters] = {};  ///< Per second, of the last iteration that had two samples.
    std::uint64_t scanCounterPrev[kScanCounters] = {};
    std::int32_t baselineCounters = 0;  ///< How many of them were ever filled in.
    // These two are the iterations' own, which read them without a lock.
    std::int32_t firstScanPass = 1;
    /// That the driver was told to monitor. A port that is configured later does not reach it.
    std::int32_t scanPort = 0;
};

/// Tells the driver which port to monitor. A failure goes to the error log.
/// @return the library's code, 0 for success.
std::int32_t set_scan_metrics_config(vti_handle_t *handle, std::uint16_t port, std::int32_t outbound);

/// Reads the running totals of a monitored port. A failure goes to the error log.
/// @return the library's code, 0 for success.
std::int32_t get_scan_metrics(vti_handle_t *handle, std::uint16_t port, std::int32_t outbound,
                              ScanMetricsRecord &record);

/// Opens the driver and reads its counters, for the port that is configured.
/// @param iteration  in whose name it is traced.
/// @return nothing if that failed; the metrics that need the driver are then out of this pass.
std::optional<ScanMetricsRecord> RunScanDriverPass(ScanRates &scan, HealthConfig &config, const TraceSite &iteration);

/// Turns the counters into rates; the first pass only lays the baseline.
/// @param delta_t  seconds since the previous iteration; 0 is not guarded.
void RunScanRatePass(ScanRates &scan, const ScanMetricsRecord &record, double delta_t);
