#include "HealthMetrics.h"

#include "HealthConfig.h"
#include "HealthLog.h"
#include "HostSample.h"
#include "ScanMetrics.h"
#include "fc/fc.h"

namespace {

constexpr double kDefaultIterationLimit = 45.0;  // seconds
constexpr double kMinNewConnections = 5.0;       // a second; fewer say nothing about refusals
constexpr double kBytesPerMiB = 1048576.0;

struct ThresholdSource {
    ConfigRow config;
    MetricRow metric;
};
constexpr ThresholdSource kThresholdSources[] = {
    {SYS_THR_CONN_REFUSAL_PCT, refusalpct},      {SYS_THR_RUNQ, rqpct},      {SYS_THR_CONN_EST_PER_CPU, estab},
    {SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU, scanmb}, {SYS_THR_FREE_MEM, frepct},
};

double RefusalPercent() {
    const double created = scanCounterRate[conn_new];
    const double refused = scanCounterRate[conn_halfopen2close];
    return created <= kMinNewConnections ? 0.0 : refused * 100.0 / created;
}

double EstablishedPerCpu(double numCpus) {
    return scanCounterRate[conn_established] / numCpus;
}

double ScanMBytesPerCpu(double numCpus) {
    return (scanCounterRate[scanbytes_fwd] + scanCounterRate[scanbytes_bwd]) / (numCpus * kBytesPerMiB);
}

/// compat 35: does not guard against a host without memory; the comparison follows from the result
double FreeMemoryPercent() {
    return static_cast<double>(vmStats[vmstat_freemem].value) * 100.0 /
           static_cast<double>(vmStats[vmstat_phys_mem].value);
}

/// Traces a metric past its limit. @return whether it is.
bool IsPastLimit(const SysHealthMetric &metric, double factor, const TraceSite &site) {
    const double limit = metric.Limit(factor);
    if (metric.is_floor != 0) {
        if (!(limit > metric.value))
            return false;
        Trace(site, "%s value of %f less than threshold of %f (%f / %f) ", metric.name, metric.value, limit,
              metric.threshold, factor);
        return true;
    }
    if (!(metric.value > limit))
        return false;
    Trace(site, "%s value of %f exceeds threshold of %f (%f x %f) ", metric.name, metric.value, limit, factor,
          metric.threshold);
    return true;
}

}  // namespace

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

void ArmHealthMetrics() {
    for (int row = 0; row < delta_t_row; ++row) {
        sysHealthMetrics[row].value = 0.0;
        sysHealthMetrics[row].threshold = 0.0;
        sysHealthMetrics[row].enabled = 0;
    }
    for (const ThresholdSource &source : kThresholdSources) {
        if (sysHealthConfig[source.config].is_set != 0) {
            sysHealthMetrics[source.metric].threshold = sysHealthConfig[source.config].value;
            sysHealthMetrics[source.metric].enabled = 1;
        }
    }
    const SysHealthConfigEntry &interval = sysHealthConfig[SYS_THR_MAX_ITERATION_INVL];
    SysHealthMetric &delta = sysHealthMetrics[delta_t_row];
    delta.value = 0.0;
    delta.threshold = interval.is_set != 0 ? interval.value : kDefaultIterationLimit;
    delta.enabled = 1;
}

void calculateHealthMetrics(double rqlen, std::uint32_t numCpus, double delta_t) {
    const double cpus = numCpus;
    const auto set = [](MetricRow row, double value) { return sysHealthMetrics[row].value = value; };
    const auto isEnabled = [](MetricRow row) { return sysHealthMetrics[row].enabled != 0; };

    if (isEnabled(rqpct))  // compat 29: neither divided nor scaled, whatever its name says
        Trace(kEngineTrace, "rqlen=%f numCpus=%d rqlen_pct=%f", rqlen, numCpus, set(rqpct, rqlen));
    if (isEnabled(refusalpct))
        Trace(kEngineTrace, "conn_halfopen2close=%f conn_new=%f conn_ref_pct=%f", scanCounterRate[conn_halfopen2close],
              scanCounterRate[conn_new], set(refusalpct, RefusalPercent()));
    if (isEnabled(estab))
        Trace(kEngineTrace, "conn_established=%f numCpus=%f conn_est_per_cpu=%f", scanCounterRate[conn_established],
              cpus, set(estab, EstablishedPerCpu(cpus)));
    if (isEnabled(scanmb))
        Trace(kEngineTrace, "scanbytes_fwd=%f scanbytes_bwd=%f numCpus=%f scan_mbytes_per_cpu=%f",
              scanCounterRate[scanbytes_fwd], scanCounterRate[scanbytes_bwd], cpus,
              set(scanmb, ScanMBytesPerCpu(cpus)));
    if (isEnabled(frepct))  // compat 30: both in KiB, whatever the words say
        Trace(kEngineTrace, "fremem pages=%llu phsymem MB=%llu fremem_pct=%f", vmStats[vmstat_freemem].value,
              vmStats[vmstat_phys_mem].value, set(frepct, FreeMemoryPercent()));
    if (isEnabled(delta_t_row))
        set(delta_t_row, delta_t);
}

std::int32_t check_health_metric_thresholds(double factor) {
    std::int32_t overCount = 0;
    for (const SysHealthMetric &metric : sysHealthMetrics)
        if (metric.enabled != 0 && IsPastLimit(metric, factor, kEngineTrace))
            ++overCount;
    return overCount;
}
