#include "HealthSample.h"

#include <windows.h>

#include "HealthState.h"
#include "RunQueue.h"
#include "common/Trace.h"

HealthSample TakeHealthSample(HealthState &health, const TraceSite &site) {
    const std::optional<double> rqlen = queryRunQueueLength();
    if (!rqlen) {
        Trace(site, "failed to collect rqLen, exiting");
        return {actionCollectFailed};
    }
    SYSTEM_INFO system = {};
    GetSystemInfo(&system);
    if (system.dwNumberOfProcessors == 0) {
        Trace(site, "failed to collect numCpus, exiting");
        return {actionCollectFailed};
    }
    if (!getMemoryMetrics(health.memory)) {
        Trace(site, "failed to collect memory metrics, exiting");
        return {actionMemoryFailed};
    }
    HealthSample sample{actionNormal, *rqlen, system.dwNumberOfProcessors};
    if (health.config[SYS_CONF_CONN_REFUSAL_PORT].is_set != 0)
        sample.scan = RunScanDriverPass(health.scan, health.config, site);
    return sample;
}
