#include "InstallBench.h"

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <windows.h>
#include <wx/thread.h>

#include "MeasuredInstallation.h"
#include "WindowsDriverInstaller/reports/StackDump.h"

namespace {

constexpr int kInstallRounds = 21;
constexpr int kKills = 100;

double MedianOf(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// The module's own time in an installation, apart from its deliberate waits. The first installation since the module
/// was loaded loads what stack traces need, which takes Wine long.
void BenchOwnTime(Report &report) {
    MeasuredInstallation machine(0);
    const InstallTimes first = machine.Install();
    std::vector<double> own;
    std::map<std::string, std::vector<double>> ownOfSteps;
    for (int round = 0; round < (IsShortRun() ? 1 : kInstallRounds); ++round) {
        const InstallTimes times = machine.Install();
        own.push_back(times.ownSeconds / times.waitedSeconds);
        for (const auto &[step, seconds] : times.ownSecondsOfSteps)
            ownOfSteps[step].push_back(seconds / times.waitedSeconds);
    }
    report.Add("a fresh installation's own time, to its waits", MedianOf(own) * 100, "percent", "<= 1");
    for (const auto &[step, seconds] : ownOfSteps)
        report.Add("... of that in " + step, MedianOf(seconds) * 100, "percent");
    report.Add("the first installation of a process: own time, to its waits",
               first.ownSeconds / first.waitedSeconds * 100, "percent");
}

InstallTimes FastestUpgrade(MeasuredInstallation &machine) {
    InstallTimes fastest = machine.Upgrade();
    for (int round = 1; round < (IsShortRun() ? 1 : 3); ++round) {
        const InstallTimes times = machine.Upgrade();
        if (times.ownSeconds < fastest.ownSeconds)
            fastest = times;
    }
    return fastest;
}

/// An upgrade with 1 to 1000 adapters, each of which has its binding restored.
void BenchGrowth(Report &report) {
    std::map<std::size_t, InstallTimes> times;
    const std::size_t most = IsShortRun() ? 10 : 1000;
    for (std::size_t adapters = 1; adapters <= most; adapters *= 10) {
        MeasuredInstallation machine(adapters);
        (void)machine.Install();  // the first since the module was loaded takes longer
        times[adapters] = FastestUpgrade(machine);
    }
    for (std::size_t adapters = 10; adapters <= most; adapters *= 10) {
        const InstallTimes &more = times[adapters];
        const InstallTimes &fewer = times[adapters / 10];
        const std::string what = "an upgrade with " + std::to_string(adapters) + " adapters, to one with a tenth: ";
        report.Add(what + "calls of the system", static_cast<double>(more.calls) / static_cast<double>(fewer.calls),
                   "ratio", "<= 10");
        report.Add(what + "own time", more.ownSeconds / fewer.ownSeconds, "time ratio", "<= 12");
    }
}

/// Hangs for good.
class StuckThread : public wxThread {
public:
    StuckThread() : wxThread(wxTHREAD_JOINABLE) {}

protected:
    ExitCode Entry() override {
        ::Sleep(INFINITE);
        return nullptr;
    }
};

/// Dumping a stack and killing a thread, without detecting the hang.
double SecondsToDumpAndKill() {
    PrepareStackDump();
    StuckThread thread;
    (void)thread.Run();
    ::Sleep(20);
    const double begin = Now();
    (void)CaptureThreadStack(&thread);
    (void)thread.Kill();
    return Now() - begin;
}

void BenchKill(Report &report) {
    std::vector<double> kills;
    std::vector<double> floors;
    for (int i = 0; i < (IsShortRun() ? 1 : kKills); ++i) {
        kills.push_back(MeasuredInstallation(0).SecondsToKill());
        floors.push_back(SecondsToDumpAndKill());
    }
    const double floor = MedianOf(floors);
    report.Add("from a hung step's limit to its kill, to a stack dump and a kill alone: median",
               MedianOf(kills) / floor, "time ratio");
    report.Add("the same: worst of 100", *std::max_element(kills.begin(), kills.end()) / floor, "time ratio");
}

}  // namespace

void BenchInstall(Report &report) {
    BenchOwnTime(report);
    BenchGrowth(report);
    BenchKill(report);
}
