// The driver's counters of the monitored port, and the rates that they come to.
#pragma once

#include <cstdint>

#include "vti.h"

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

/// Rates per second, of the last iteration that had two samples.
extern double scanCounterRate[kScanCounters];
/// The port that the driver was told to monitor. A port that is configured later does not reach it.
extern std::int32_t scanPort;

/// Tells the driver which port to monitor. A failure goes to the error log.
/// @return the library's code, 0 for success.
std::int32_t set_scan_metrics_config(vti_handle_t *handle, std::uint16_t port, std::int32_t outbound);

/// Reads the running totals of a monitored port. A failure goes to the error log.
/// @return the library's code, 0 for success.
std::int32_t get_scan_metrics(vti_handle_t *handle, std::uint16_t port, std::int32_t outbound,
                              ScanMetricsRecord &record);

/// Opens the driver and reads its counters, for the port that is configured.
/// @param iteration  in whose name it is traced.
/// @return false if that failed; the metrics that need the driver are then out of this pass.
bool RunDriverPass(ScanMetricsRecord &record, const TraceSite &iteration);

/// Turns the counters into rates; the first pass only lays the baseline. Under sysHealthLock.
/// @param delta_t  seconds since the previous iteration; 0 is not guarded.
void RunRatePass(const ScanMetricsRecord &record, double delta_t);
