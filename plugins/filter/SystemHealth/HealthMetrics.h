// The six metrics of an iteration, and which of them are past their limits.
#pragma once

#include <cstdint>

class HealthConfig;
struct HostMemory;
struct ScanRates;

struct SysHealthMetric {
    const char *const name;
    const char *const short_name;
    const std::int32_t is_floor;  ///< 1 when a value below the threshold is bad, 0 when one above it is.
    double value;
    double threshold;
    std::int32_t enabled;

    /// The threshold that applies under a factor, for which 1.0 is none.
    [[nodiscard]] double Limit(double factor) const;
};

/// Rows of the table: the order of evaluation, of the log line and of the read-out.
enum MetricRow { rqpct, refusalpct, estab, scanmb, frepct, delta_t_row, kMetricRows };

/// The table.
struct HealthMetrics {
    // compat 29: keeps the first name, though its value is neither per processor nor a percentage
    // compat 156: only a read-out before the first iteration sees these thresholds
    SysHealthMetric sysHealthMetrics[kMetricRows] = {
        {"runnable_processes_per_cpu_pct", "rqpct", 0, 0, 50.0, 0},
        {"connections_refused_per_new_conn_pct", "refusalpct", 0, 0, 10.0, 0},
        {"connections_established_per_cpu", "estab", 0, 0, 50.0, 0},
        {"total_scan_mbytes_per_cpu", "scanmb", 0, 0, 100.0, 0},
        {"free_memory_pct", "frepct", 1, 0, 100.0, 0},
        {"iteration interval", "delta_t", 0, 0, 100.0, 0},
    };
};

/// What the metrics of an iteration are calculated from.
struct MetricSources {
    double rqlen;           ///< Threads that wait for a processor.
    std::uint32_t numCpus;  ///< Not 0.
    double delta_t;         ///< Seconds since the previous iteration.
    const HostMemory &memory;
    const ScanRates &scan;
};

/// Clears the table and takes the thresholds from the configuration.
void ArmHealthMetrics(HealthMetrics &metrics, const HealthConfig &config);

/// Fills in the values of the enabled metrics.
void calculateHealthMetrics(HealthMetrics &metrics, const MetricSources &from);

/// @param factor  makes every limit stricter below 1.0.
/// @return how many enabled metrics are past their limit; each is traced.
std::int32_t check_health_metric_thresholds(const HealthMetrics &metrics, double factor);
