// fc-bench [--short] [--json FILE] [GROUP...]: measures the module against peers and floors of the same run.
// Exit code 0 when every goal is met, 1 when one is not, 2 when a run was not possible.

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include <wx/init.h>

#include "Bench.h"
#include "ConnMetricsBench.h"
#include "DiagnosticsBench.h"
#include "DriverFlagsBench.h"
#include "HealthBench.h"
#include "InfScanBench.h"
#include "InstallBench.h"
#include "StepsBench.h"

namespace {

struct Group {
    std::string_view name;
    void (*measure)(Report &);
};
constexpr std::array<Group, 7> kGroups{{
    {"metrics", BenchConnMetrics},
    {"health", BenchHealth},
    {"diagnostics", BenchDiagnostics},
    {"flags", BenchDriverFlags},
    {"inf", BenchInfScan},
    {"steps", BenchSteps},
    {"install", BenchInstall},
}};

bool IsGroup(std::string_view name) {
    return std::any_of(kGroups.begin(), kGroups.end(), [name](const Group &group) { return group.name == name; });
}

int Usage() {
    std::fprintf(stderr, "usage: fc-bench [--short] [--json FILE] [GROUP...]\ngroups:");
    for (const Group &group : kGroups)
        std::fprintf(stderr, " %s", std::string(group.name).c_str());
    std::fprintf(stderr, "; all without one\n");
    return 2;
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<std::string> groups(argv + 1, argv + argc);
    std::string json;
    if (!groups.empty() && groups[0] == "--short") {
        SetShortRun();
        groups.erase(groups.begin());
    }
    if (groups.size() >= 2 && groups[0] == "--json") {
        json = groups[1];
        groups.erase(groups.begin(), groups.begin() + 2);
    }
    if (!std::all_of(groups.begin(), groups.end(), IsGroup))
        return Usage();
    const wxInitializer wx;
    Report report;
    for (const Group &group : kGroups)
        if (groups.empty() || std::find(groups.begin(), groups.end(), group.name) != groups.end())
            group.measure(report);
    report.Print();
    if (!json.empty() && !report.WriteJson(json)) {
        std::fprintf(stderr, "fc-bench: can't write '%s': is its folder there, and writable?\n", json.c_str());
        return 2;
    }
    return report.AllMet() ? 0 : 1;
}
