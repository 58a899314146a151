#include "HealthMetrics.h"

#include "HealthConfig.h"
#include "HealthTrace.h"
#include "HostMemory.h"
#include "ScanMetrics.h"
#include "common/Trace.h"

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

double RefusalHealthMetric(const ScanRates &scan) {
    const double created = scan.scanCounterRate[conn_new];
    const double refused = scan.scanCounterRate[conn_halfopen2close];
    return created <= kMinNewConnections ? 0.0 : refused * 100.0 / created;
}

double EstablishedHealthMetric(const ScanRates &scan, double numCpus) {
    return scan.scanCounterRate[conn_established] / numCpus;
}

double ScanHealthMetric(const ScanRates &scan, double numCpus) {
    return (scan.scanCounterRate[scanbytes_fwd] + scan.scanCounterRate[scanbytes_bwd]) / (numCpus * kBytesPerMiB);
}

/// compat 35: does not guard against a host without memory; the comparison follows from the result
double FreeMemoryHealthMetric(const HostMemory &memory) {
    return static_cast<double>(memory.vmStats[vmstat_freemem].value) * 100.0 /
           static_cast<double>(memory.vmStats[vmstat_phys_mem].value);
}

/// Traces a metric past its limit. @return whether it is.
bool IsHealthMetricPastLimit(const SysHealthMetric &metric, double factor, const TraceSite &site) {
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

double SysHealthMetric::Limit(double factor) const {
    return is_floor != 0 ? threshold / factor : threshold * factor;
}

void ArmHealthMetrics(HealthMetrics &metrics, const HealthConfig &config) {
    auto &rows = metrics.sysHealthMetrics;
    for (int row = 0; row < delta_t_row; ++row) {
        rows[row].value = 0.0;
        rows[row].threshold = 0.0;
        rows[row].enabled = 0;
    }
    for (const ThresholdSource &source : kThresholdSources) {
        if (config[source.config].is_set != 0) {
            rows[source.metric].threshold = config[source.config].value;
            rows[source.metric].enabled = 1;
        }
    }
    const SysHealthConfigEntry &interval = config[SYS_THR_MAX_ITERATION_INVL];
    rows[delta_t_row].value = 0.0;
    rows[delta_t_row].threshold = interval.is_set != 0 ? interval.value : kDefaultIterationLimit;
    rows[delta_t_row].enabled = 1;
}

void calculateHealthMetrics(HealthMetrics &metrics, const MetricSources &from) {
    const double cpus = from.numCpus;
    const double(&rates)[kScanCounters] = from.scan.scanCounterRate;
    auto &[rq, refusal, established, scan, freeMemory, interval] = metrics.sysHealthMetrics;

    if (rq.enabled != 0) {
        rq.value = from.rqlen;  // compat 29: neither divided nor scaled, whatever its name says
        Trace(kEngineTrace, "rqlen=%f numCpus=%d rqlen_pct=%f", from.rqlen, from.numCpus, rq.value);
    }
    if (refusal.enabled != 0) {
        refusal.value = RefusalHealthMetric(from.scan);
        Trace(kEngineTrace, "conn_halfopen2close=%f conn_new=%f conn_ref_pct=%f", rates[conn_halfopen2close],
              rates[conn_new], refusal.value);
    }
    if (established.enabled != 0) {
        established.value = EstablishedHealthMetric(from.scan, cpus);
        Trace(kEngineTrace, "conn_established=%f numCpus=%f conn_est_per_cpu=%f", rates[conn_established], cpus,
              established.value);
    }
    if (scan.enabled != 0) {
        scan.value = ScanHealthMetric(from.scan, cpus);
        Trace(kEngineTrace, "scanbytes_fwd=%f scanbytes_bwd=%f numCpus=%f scan_mbytes_per_cpu=%f", rates[scanbytes_fwd],
              rates[scanbytes_bwd], cpus, scan.value);
    }
    if (freeMemory.enabled != 0) {
        freeMemory.value = FreeMemoryHealthMetric(from.memory);
        // compat 30: both in KiB, although the text says pages and MB
        Trace(kEngineTrace, "fremem pages=%llu phsymem MB=%llu fremem_pct=%f",
              from.memory.vmStats[vmstat_freemem].value, from.memory.vmStats[vmstat_phys_mem].value, freeMemory.value);
    }
    interval.value = from.delta_t;  // always enabled
}

std::int32_t check_health_metric_thresholds(const HealthMetrics &metrics, double factor) {
    std::int32_t overCount = 0;
    for (const SysHealthMetric &metric : metrics.sysHealthMetrics)
        if (metric.enabled != 0 && IsHealthMetricPastLimit(metric, factor, kEngineTrace))
            ++overCount;
    return overCount;
}
