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
    std::wstring_view name;
    void (*measure)(Report &);
};
constexpr std::array<Group, 7> kGroups{{
    {L"metrics", BenchConnMetrics},
    {L"health", BenchHealth},
    {L"diagnostics", BenchDiagnostics},
    {L"flags", BenchDriverFlags},
    {L"inf", BenchInfScan},
    {L"steps", BenchSteps},
    {L"install", BenchInstall},
}};

bool IsGroup(std::wstring_view name) {
    return std::any_of(kGroups.begin(), kGroups.end(), [name](const Group &group) { return group.name == name; });
}

int Usage() {
    std::fprintf(stderr, "usage: fc-bench [--short] [--json FILE] [GROUP...]\ngroups:");
    for (const Group &group : kGroups)
        std::fprintf(stderr, " %ls", std::wstring(group.name).c_str());
    std::fprintf(stderr, "; all without one\n");
    return 2;
}

int CannotWrite(const std::wstring &json) {
    std::fprintf(stderr, "fc-bench: can't write '%ls': is its folder there, and writable?\n", json.c_str());
    return 2;
}

/// Measures the groups; without arguments all. Saves the rows after each, since a later one may crash.
int Measure(const std::vector<std::wstring> &groups, const std::wstring &json) {
    const wxInitializer wx;
    Report report;
    for (const Group &group : kGroups) {
        if (!groups.empty() && std::find(groups.begin(), groups.end(), group.name) == groups.end())
            continue;
        group.measure(report);
        report.PrintNew();
        if (!json.empty() && !report.WriteJson(json))
            return CannotWrite(json);
    }
    return report.AllMet() ? 0 : 1;
}

}  // namespace

int wmain(int argc, wchar_t **argv) {
    std::vector<std::wstring> groups(argv + 1, argv + argc);
    std::wstring json;
    if (!groups.empty() && groups[0] == L"--short") {
        SetShortRun();
        groups.erase(groups.begin());
    }
    if (groups.size() >= 2 && groups[0] == L"--json") {
        json = groups[1];
        groups.erase(groups.begin(), groups.begin() + 2);
    }
    if (!std::all_of(groups.begin(), groups.end(), IsGroup))
        return Usage();
    if (!json.empty() && !CanWriteJson(json))
        return CannotWrite(json);
    return Measure(groups, json);
}
