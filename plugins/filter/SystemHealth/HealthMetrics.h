// The six metrics of an iteration, and which of them are past their limits. All under sysHealthLock, but for the
// log line of the same iteration.
#pragma once

#include <cstdint>

struct SysHealthMetric {
    const char *const name;
    const char *const short_name;
    const std::int32_t is_floor;  ///< 1 when a value below the threshold is bad, 0 when one above it is.
    double value;
    double threshold;
    std::int32_t enabled;

    /// The threshold that applies under a factor, for which 1.0 is none.
    [[nodiscard]] double Limit(double factor) const { return is_floor != 0 ? threshold / factor : threshold * factor; }
};

/// Rows of the table: the order of evaluation, of the log line and of the read-out.
enum MetricRow { rqpct, refusalpct, estab, scanmb, frepct, delta_t_row, kMetricRows };

extern SysHealthMetric sysHealthMetrics[kMetricRows];

/// Clears the table and takes the thresholds from the configuration.
void ArmHealthMetrics();

/// Fills in the values of the enabled metrics.
/// @param rqlen    threads that wait for a processor.
/// @param numCpus  processors, not 0.
/// @param delta_t  seconds since the previous iteration.
void calculateHealthMetrics(double rqlen, std::uint32_t numCpus, double delta_t);

/// @param factor  makes every limit stricter below 1.0.
/// @return how many enabled metrics are past their limit; each is traced.
std::int32_t check_health_metric_thresholds(double factor);
