// fc-bench [--json FILE]: measures the module against peers and floors of the same run.
// Exit code 0 when every goal is met, 1 when one is not, 2 when a run was not possible.

#include <cstdio>
#include <cstring>

#include <wx/init.h>

#include "Bench.h"
#include "ConnMetricsBench.h"
#include "DiagnosticsBench.h"
#include "DriverFlagsBench.h"
#include "HealthBench.h"
#include "InfScanBench.h"
#include "StepsBench.h"

int main(int argc, char **argv) {
    const bool json = argc == 3 && std::strcmp(argv[1], "--json") == 0;
    if (argc != 1 && !json) {
        std::fprintf(stderr, "usage: fc-bench [--json FILE]\n");
        return 2;
    }
    const wxInitializer wx;
    Report report;
    BenchConnMetrics(report);
    BenchHealth(report);
    BenchDiagnostics(report);
    BenchDriverFlags(report);
    BenchInfScan(report);
    BenchSteps(report);
    report.Print();
    if (json && !report.WriteJson(argv[2])) {
        std::fprintf(stderr, "fc-bench: can't write '%s': is its folder there, and writable?\n", argv[2]);
        return 2;
    }
    return report.AllMet() ? 0 : 1;
}
